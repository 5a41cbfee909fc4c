#!/bin/sh
# Prints the sizes of the programs and shared libraries below a folder, in bytes: for each file the
# size of code and constants, of data, and of data that is initialised with zeros, and the size of
# the file.
#
# usage: packaging/cross/sizes.sh TRIPLET FOLDER
set -eu
triplet=${1:?usage: sizes.sh TRIPLET FOLDER}
folder=${2:?usage: sizes.sh TRIPLET FOLDER}

printf '%-36s %10s %10s %10s %10s\n' file text data bss disk
find "$folder" -type f \( -perm -u+x -o -name '*.so*' \) | sort | while read -r file; do
  sizes=$("$triplet-size" "$file" 2>/dev/null | awk 'NR == 2 { print $1, $2, $3 }')
  [ -n "$sizes" ] || continue  # a script has no sizes
  # shellcheck disable=SC2086  # three numbers
  printf '%-36s %10s %10s %10s %10s\n' "${file#"$folder"/}" $sizes "$(stat -c %s "$file")"
done
