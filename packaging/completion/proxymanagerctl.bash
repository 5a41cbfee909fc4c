# bash completion for proxymanagerctl(1). It needs only bash. For the command after exec, it uses
# the package bash-completion if that is installed.

_proxymanagerctl_words() {
  mapfile -t COMPREPLY < <(compgen -W "$1" -- "$cur")
}

_proxymanagerctl_files() {
  compopt -o filenames 2>/dev/null
  mapfile -t COMPREPLY < <(compgen -f -- "$cur")
}

_proxymanagerctl_rules='host-case isinnet-name dns-first domain-dot shexp-regex https-path unreachable
no-var date-month-end entry-dropped entry-unknown entry-port direct-missing direct-first no-return
local-to-proxy too-many-names cost ignore-unknown'

# The names of rules: one, or several with commas between them.
_proxymanagerctl_lint_rules() {
  local before=
  [[ $cur != *,* ]] || before=${cur%,*},
  mapfile -t COMPREPLY < <(compgen -P "$before" -W "$_proxymanagerctl_rules" -- "${cur##*,}")
}

_proxymanagerctl_exec() {
  local at=$1
  if declare -F _command_offset >/dev/null; then
    _command_offset "$at"
  elif [ "$COMP_CWORD" -eq "$at" ]; then
    mapfile -t COMPREPLY < <(compgen -c -- "$cur")
  else
    _proxymanagerctl_files
  fi
}

_proxymanagerctl() {
  local commands='status get config off manual pacurl wpad settings watch refresh wait diagnose exec pac relay pvd'
  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
  local command=${COMP_WORDS[1]} options i
  COMPREPLY=()
  # bash splits "--format=curl" into three words.
  if [ "$cur" = = ]; then
    cur=
  elif [ "$prev" = = ] && [ "$COMP_CWORD" -gt 2 ]; then
    prev=${COMP_WORDS[COMP_CWORD - 2]}
  fi

  if [ "$COMP_CWORD" -eq 1 ]; then
    _proxymanagerctl_words "$commands --help --version"
    return
  fi
  if [ "$command" = exec ]; then
    for ((i = 2; i < COMP_CWORD; i++)); do
      if [ "${COMP_WORDS[i]}" = -- ]; then
        _proxymanagerctl_exec $((i + 1))
        return
      fi
    done
  fi
  case $prev in
    --format)
      case ${COMP_WORDS[2]} in
        test) _proxymanagerctl_words 'text tap junit' ;;
        cover) _proxymanagerctl_words 'text json html' ;;
        lint) _proxymanagerctl_words 'text json sarif' ;;
        *) _proxymanagerctl_words 'table curl env raw' ;;
      esac
      return
      ;;
    --fail-on)
      _proxymanagerctl_words 'error warning note'
      return
      ;;
    --ignore | --only)
      _proxymanagerctl_lint_rules
      return
      ;;
    --password-file | --file | -f | -p)
      _proxymanagerctl_files
      return
      ;;
    --tz)
      _proxymanagerctl_words "$(cd /usr/share/zoneinfo 2>/dev/null &&
        find . -type f -path '*[A-Z]*' -printf '%P ')"
      return
      ;;
    --timeout | --user | --host | --otherwise | --at | --resolve | --my-ip | --credentials-for | --repeat | -c) return ;;
  esac
  case $command in
    status | config | watch) options='--timeout --json --show-password --help' ;;
    get) options='--file --format --timeout --json --show-password --ask-local --credentials-for --with-password --help' ;;
    off | manual | pacurl | wpad) options='--user --password-file --save --timeout --json --help' ;;
    exec) options='--timeout --ask-local --credentials-for --no-check --help --' ;;
    refresh) options='--timeout --help' ;;
    wait) options='--configured --script --timeout --help' ;;
    diagnose) options='--timeout --ask-local --help' ;;
    settings)
      if [[ $COMP_CWORD -eq 2 && $cur != -* ]]; then
        _proxymanagerctl_words reset
        return
      fi
      options='--timeout --json --help'
      ;;
    pac)
      if [ "$COMP_CWORD" -eq 2 ]; then
        _proxymanagerctl_words 'eval check lint test bench explain cover diff --help'
        return
      fi
      options='--at --tz --resolve --my-ip --offline --help'
      case ${COMP_WORDS[2]} in
        eval) options="--file --host --json $options" ;;
        explain) options="--file --host --current --json $options" ;;
        cover) options="--file --format --current $options" ;;
        diff) options="--file --json $options" ;;
        bench) options="--file --repeat --json $options" ;;
        test) options="--format $options" ;;
        lint) options='--format --ignore --only --fail-on --help' ;;
        *) options="--json $options" ;;
      esac
      if [[ $cur != -* ]]; then
        _proxymanagerctl_files
        return
      fi
      ;;
    relay)
      options='--help'
      [ "$COMP_CWORD" -ne 2 ] || options='enable disable --help'
      ;;
    pvd)
      if [ "$COMP_CWORD" -eq 2 ]; then
        _proxymanagerctl_words 'show to-pac --help'
        return
      fi
      options='--host --json --help'
      [ "${COMP_WORDS[2]}" != to-pac ] || options='--host --otherwise --help'
      if [[ $cur != -* ]]; then
        _proxymanagerctl_files
        return
      fi
      ;;
    *) return ;;
  esac
  if [[ $cur == -* || $command != @(get|manual|pacurl|exec|diagnose) ]]; then
    _proxymanagerctl_words "$options"
  fi
}

complete -F _proxymanagerctl proxymanagerctl
