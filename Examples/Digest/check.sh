#!/usr/bin/env bash
# Holds what Digest prints against the system's own tools.
#
#   Examples/Digest/check.sh PROGRAM
set -euo pipefail

program=$(realpath "${1:?usage: check.sh PROGRAM}")
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"

fail() {
    echo "check.sh: $*" >&2
    exit 1
}

# The program's own lines, without what the library logs while it is loaded.
digest() {
    "$program" "$@" | sed -e 's/\x1b\[[0-9;]*m//g' -e '/ info Infra:/d'
}

: >empty
printf abc >three
cat "$program" "$program" "$program" "$program" "$program" >several-pieces
head -c 65536 several-pieces >one-piece
head -c 65537 several-pieces >one-byte-more

[[ $(digest three) == "900150983cd24fb0d6963f7d28e17f72  a9993e364706816aba3e25717850c26c9cd0d89d  352441c2  three" ]] ||
    fail "three letters: $(digest three)"

for file in *; do
    md5=$(md5sum <"$file")
    sha1=$(sha1sum <"$file")
    crc=$(gzip -1 -c "$file" | tail -c 8 | od -An -N4 -tx4) # the end of a gzip file
    expected="${md5%% *}  ${sha1%% *}  ${crc// /}  $file"
    [[ $(digest "$file") == "$expected" ]] || fail "$(digest "$file") is not $expected"
    [[ $(digest --base64 "$file") == "$(base64 -w 0 "$file")" ]] || fail "Base64 of $file"
done

[[ $(digest *) == "$(for file in *; do digest "$file"; done)" ]] || fail "several files"
! digest three missing >printed 2>complaint || fail "a missing file is no failure"
grep -q "cannot open missing" complaint || fail "nothing is said about a missing file"
[[ $(wc -l <printed) == 1 ]] || fail "the file beside a missing one is not printed"
