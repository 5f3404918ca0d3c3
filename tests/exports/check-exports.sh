#!/usr/bin/env bash
# Compares the export table of vexal.dll with the list of the names it
# exports: a listed name that is missing fails, and so does an exported name
# that is not listed. The list itself must hold the number of names given,
# so that a name dropped from the DLL and the list together is caught too.
#
#   check-exports.sh vexal.dll vexal-exports.txt 124
set -euo pipefail
dll=$1
list=$2
count=$3
objdump=${OBJDUMP:-x86_64-w64-mingw32-objdump}

got=$("$objdump" -p "$dll" |
  awk '/\[Ordinal\/Name Pointer\] Table/{t=1;next} t&&/^[ \t]*\[/{print $NF} t&&/^$/{t=0}' | sort -u)
extra=$(comm -13 <(sort -u "$list") <(echo "$got") | grep . || true)
missing=$(comm -23 <(sort -u "$list") <(echo "$got") | grep . || true)

total=$(grep -c . "$list")
if [ "$total" != "$count" ]; then
  echo "$list holds $total names, not $count"
  exit 1
fi
have=$(( total - $(echo -n "$missing" | grep -c . || true) ))
echo "vexal.dll exports $have of the $total listed names"
if [ -n "$missing" ]; then
  echo "not exported:"
  echo "$missing" | sed 's/^/  /'
fi
if [ -n "$extra" ]; then
  echo "exported but not listed:"
  echo "$extra" | sed 's/^/  /'
fi
[ -z "$missing" ] && [ -z "$extra" ]
