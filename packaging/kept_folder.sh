# For scripts that make a folder once per machine and keep it. Such a script sources this file,
# defines say() and fail(), and prints the folder on standard output. Several of these scripts can
# run at the same time.
# shellcheck shell=sh

# kept_folder FOLDER NAME KEY: if FOLDER/NAME-KEY exists, prints its path and ends the script.
# Otherwise the script has to make the folder in $staging, with $work for temporary files, and then
# call keep. Other scripts that need this folder wait until this script ends.
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
  # apt downloads as its own user. This user must have access to the folder.
  chmod 755 "$work"
}

# folder_for_apt FOLDER: makes a folder into which apt can download.
folder_for_apt() {
  mkdir "$1"
  if [ "$(id -u)" = 0 ] && id _apt >/dev/null 2>&1; then chown _apt "$1"; fi
}

# keep: moves the complete folder $staging to its final place, and prints the path.
keep() {
  chmod 755 "$staging"
  mv -T "$staging" "$result"
  say "ready in $result"
  echo "$result"
}
