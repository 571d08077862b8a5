#!/usr/bin/env bash
# Runs the recorder in a directory of its own: three lines, in capitals, with the sign in UTF-8, and
# on the log how long each took.
#
#   Examples/Older/check.sh PROGRAM
set -euo pipefail

program=${1:?usage: check.sh PROGRAM}
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

mkdir "$scratch/storage"
"$program" "$scratch/storage" >"$scratch/output"
cat "$scratch/output"
# A log line's colour is reset behind its line end, which may stand in front of a record.
countOf()
{
    sed 's/\x1b\[[0-9;]*m//g' "$scratch/output" | grep -cE "$1"
}
test "$(countOf '^[0-9]{2}\.[0-9]{2}\.[0-9]{4} [0-9:]{8} NO\. [123]: 2[123] °C$')" = 3
test "$(countOf '\]recorder-line : [0-9]+ us$')" = 3
