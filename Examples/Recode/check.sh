#!/usr/bin/env bash
# Holds what Recode writes against the system's own converter.
#
#   Examples/Recode/check.sh PROGRAM
set -euo pipefail

program=$(realpath "${1:?usage: check.sh PROGRAM}")
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"

fail() {
    echo "check.sh: $*" >&2
    exit 1
}

# repeated TEXT: enough of it for every way of converting.
repeated() {
    for _ in {1..300}; do
        printf '%s\n' "$1"
    done
}

# both_ways OURS ICONVS TEXT: UTF-8 to the set and back.
both_ways() {
    repeated "$3" >text
    iconv -f UTF-8 -t "$2" text >expected
    "$program" utf-8 "$1" text made >log || fail "utf-8 to $1 ended with $?"
    cmp made expected || fail "utf-8 to $1"
    "$program" "$1" utf-8 expected back >log || fail "$1 to utf-8 ended with $?"
    cmp back text || fail "$1 to utf-8"
}

both_ways cp936 CP936 "床前明月光，疑是地上霜。abc 举头望明月，低头思故乡。"
both_ways cp1252 CP1252 "Dès l'aube… à 5 € le cœur"
both_ways cp1250 CP1250 "Příliš žluťoučký kůň"
both_ways cp1251 CP1251 "Съешь же ещё этих мягких французских булок"
both_ways cp862 CP862 "שלום, ½ עולם"
both_ways cp874 CP874 "สวัสดีชาวโลก"
both_ways iso8859-1 ISO-8859-1 "Grüße aus Øre"
both_ways iso8859-5 ISO-8859-5 "Привет, мир"
both_ways iso8859-7 ISO-8859-7 "Καλημέρα κόσμε"
both_ways iso8859-15 ISO-8859-15 "5 € le cœur"
both_ways ucs-2 UTF-16LE "床前 aé"

printf 'A€😀\n' >text
iconv -f UTF-8 -t UTF-32LE text >wide
"$program" ucs-4 utf-8 wide back >log && cmp back text || fail "ucs-4 to utf-8"
"$program" cp1251 iso8859-5 <(printf '\xCF\xF0') made >log && [[ $(cat made) == $'\xBF\xE0' ]] ||
    fail "page to page"
: >empty
"$program" cp936 ucs-2 empty made >log && [[ ! -s made ]] || fail "an empty file"
"$program" nothing utf-8 empty made >log 2>complaint && fail "an empty file of no set"

# becomes FROM TO SOURCE RESULT EXIT: what printf makes of the two texts, whatever is lost.
becomes() {
    local ended=0
    printf "$3" >text
    printf "$4" >expected
    "$program" "$1" "$2" text made >log 2>complaint || ended=$?
    [[ $ended == "$5" ]] || fail "$1 to $2 of $3 ended with $ended"
    cmp made expected || fail "$1 to $2 of $3"
}

for set in cp936 cp1251 cp1252; do
    becomes utf-8 $set 'a\xE0\xA4\x85b' 'ab' 1 # a letter of India
    becomes utf-8 $set 'a\0b' 'a\0b' 0
    becomes $set utf-8 'a\0b' 'a\0b' 0
    becomes utf-8 $set 'a\xFFb' 'ab' 1
done
becomes utf-8 utf-8 'a\xFFb\xF0\x9F\x98\x80' 'ab\xF0\x9F\x98\x80' 1
becomes utf-8 iso8859-1 'a\xF0\x90\x81\x81' 'a' 1 # U+10041, of which 16 bits are an A
becomes utf-8 ucs-2 'a\xF0\x9F\x98\x80\0' 'a\0\0\0' 1
becomes cp1250 utf-8 'a\x81b' 'ab' 1 # undefined there
becomes cp1252 cp1251 'a\x81b' 'ab' 1
becomes cp936 utf-8 'a\xFE\xFF\xFE\x22\xB0\xA1' 'a"\xE5\x95\x8A' 1 # two pairs that are none
becomes ucs-4 utf-8 'a\0\0\0b\0\0' 'a' 1
becomes ucs-2 cp1251 'a\0b' 'a' 1
"$program" utf-8 ucs-4 text made >log 2>complaint && fail "ucs-4 is for reading only"
grep -q "no such set to write: ucs-4" complaint || fail "nothing is said about ucs-4"
"$program" utf-8 cp936 missing made >log 2>complaint && fail "a missing file is no failure"
grep -q "cannot read missing" complaint || fail "nothing is said about a missing file"
echo "check.sh: all as iconv has them"
