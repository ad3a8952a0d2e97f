#!/bin/bash
# Runs the tour ($1) on a file that it may not read, and expects a clean error.
set -euo pipefail
directory=$(mktemp -d)
trap 'rm -rf "$directory"' EXIT
chmod 755 "$directory"
echo secret >"$directory/file"
chmod 000 "$directory/file"

run=("$1")
if [ "$(id -u)" -eq 0 ]; then
  # The build directory may be closed to others: run a copy of the program, with the library beside it.
  cp "$1" "$directory/tour"
  cp "$(ldd "$1" | awk '/liboxpliv/ {print $3}')" "$directory/liboxpliv.so.1"
  run=(setpriv --reuid=65534 --regid=65534 --clear-groups env "LD_LIBRARY_PATH=$directory" "LSAN_OPTIONS=" "$directory/tour")
fi
status=0
text=$("${run[@]}" "$directory/file" 2>&1) || status=$?
echo "$text"
[ "$status" -eq 1 ] && [[ $text == *"can't load $directory/file: Permission denied"* ]]
