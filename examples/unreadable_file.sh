#!/bin/bash
# Runs a program on a file that it may not read, and expects a clean error.
#   unreadable_file.sh PROGRAM [WORD...]     the words come before the file
set -euo pipefail
program=$1
shift
directory=$(mktemp -d)
trap 'rm -rf "$directory"' EXIT
chmod 755 "$directory"
echo secret >"$directory/file"
chmod 000 "$directory/file"

run=("$program")
if [ "$(id -u)" -eq 0 ]; then
  # The build directory may be closed to others: run a copy of the program, with the library beside it.
  cp "$program" "$directory/program"
  cp "$(ldd "$program" | awk '/liboxpliv/ {print $3}')" "$directory/liboxpliv.so.1"
  run=(setpriv --reuid=65534 --regid=65534 --clear-groups env "LD_LIBRARY_PATH=$directory" "LSAN_OPTIONS=" "$directory/program")
fi
status=0
text=$("${run[@]}" "$@" "$directory/file" 2>&1) || status=$?
echo "$text"
[ "$status" -eq 1 ] && [[ $text == *"$directory/file: Permission denied"* ]]
