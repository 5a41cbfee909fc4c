#!/bin/sh
# Runs a command once for each URL, with the daemon's proxy for this URL.
# usage: each_url COMMAND [OPTION...] URL...
#        each_url COMMAND [OPTION...] -- URL...   if an option has a URL, too
#
# The exit status is 0, or the exit status of the last run that failed.
set -u
[ $# -gt 0 ] || {
  echo "usage: each_url COMMAND [OPTION...] [--] URL..." >&2
  exit 64
}
urls_follow=no
for word; do [ "$word" != -- ] || urls_follow=yes; done

# This loop takes each word once. It appends options to the arguments again, and URLs to $urls.
count=$# is_url=no urls=
newline='
'
while [ "$count" -gt 0 ]; do
  word=$1 count=$((count - 1))
  shift
  if [ "$urls_follow$word" = yes-- ] && [ $is_url = no ]; then
    is_url=yes
    continue
  fi
  case $urls_follow:$is_url:$word in
    *:yes:* | no:*:[Hh][Tt][Tt][Pp]://* | no:*:[Hh][Tt][Tt][Pp][Ss]://* | no:*:[Ff][Tt][Pp]://*)
      urls=$urls$word$newline
      ;;
    *) set -- "$@" "$word" ;;
  esac
done
[ -n "$urls" ] || {
  echo "each_url: no URL" >&2
  exit 64
}

status=0
while IFS= read -r url; do
  [ -n "$url" ] || continue
  proxymanagerctl exec "$url" -- "$@" "$url" </dev/null || status=$?
done <<END
$urls
END
exit "$status"
