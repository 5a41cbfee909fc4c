# For scripts that make a folder once per machine and keep it; to be sourced. Such a script has
# say() and fail(), prints the folder on standard output, and may run several times at once.
# shellcheck shell=sh

# kept_folder FOLDER NAME KEY: if FOLDER/NAME-KEY has been made, prints it and ends the script. Else
# this script makes it in $staging, with $work for temporary files. Other scripts that need it wait
# until keep.
kept_folder() {
  result=$1/$2-$3
  if [ -d "$result" ]; then
    echo "$result"
    exit 0
  fi
  mkdir -p "$1"
  exec 9>"$1/.$2.lock"
  flock --nonblock 9 || {
    say "another one is being made, waiting for it"
    flock 9
  }
  if [ -d "$result" ]; then
    echo "$result"
    exit 0
  fi
  work=$(mktemp -d)
  staging=$(mktemp -d "$1/.$2-XXXXXX")
  trap 'rm -rf "$work" "$staging"' EXIT
  trap 'exit 1' HUP INT TERM
  # apt downloads as its own user, who must be able to reach the folder.
  chmod 755 "$work"
}

# folder_for_apt FOLDER: makes it, for apt to download into.
folder_for_apt() {
  mkdir "$1"
  if [ "$(id -u)" = 0 ] && id _apt >/dev/null 2>&1; then chown _apt "$1"; fi
}

# keep: the folder is complete.
keep() {
  chmod 755 "$staging"
  mv -T "$staging" "$result"
  say "ready in $result"
  echo "$result"
}
