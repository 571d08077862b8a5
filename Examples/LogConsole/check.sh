#!/usr/bin/env bash
# Drives LogConsole as somebody at its console would and looks at what is left.
#
#   Examples/LogConsole/check.sh PROGRAM
set -euo pipefail

program=${1:?usage: check.sh PROGRAM}
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

fail() {
    echo "check.sh: $*" >&2
    exit 1
}

"$program" >"$scratch/output" <<COMMANDS || fail "the program ended with $?"
logfilter -logmodulestatistics on
logfilter -logsavesetting bysize 2 2
logfilter -logpath "$scratch/the log"
logfilter -logmodule Disk off
wait 200
logfilter -loglevel 2
wait 2
cleanup
logfilter -logpath ""
statistics
COMMANDS

shopt -s nullglob
old=("$scratch/the log_"*)
[[ ${#old[@]} == 2 ]] || fail "${#old[@]} old files are there, not 2"
for file in "${old[@]}"; do
    size=$(stat -c %s "$file")
    ((size >= 2048 && size < 2048 + 200)) || fail "$file has $size bytes"
done
grep -q '^Net .* bytes$' "$scratch/output" || fail "no statistics of Net"
grep -h 'Disk' "${old[@]}" "$scratch/the log" && fail "Disk was switched off"
grep -hv '^\[..:..:.. [a-z]* [A-Za-z]*:1 [0-9]* LogConsole.cpp:[0-9]*\]round [0-9]*$' \
    "${old[@]}" "$scratch/the log" && fail "the lines above are torn"
echo "check.sh: ${#old[@]} old files, all lines whole"
