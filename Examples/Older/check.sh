#!/bin/sh
# Runs the recorder in a directory of its own: three lines, in capitals, with the sign in UTF-8.
set -eu
directory=$(mktemp -d)
trap 'rm -rf "$directory"' EXIT
"$1" "$directory" > "$directory.out"
lines=$(grep -cE '^[0-9]{2}\.[0-9]{2}\.[0-9]{4} [0-9:]{8} NO\. [123]: 2[123] °C$' "$directory.out" || true)
cat "$directory.out"
rm -f "$directory.out"
test "$lines" = 3
