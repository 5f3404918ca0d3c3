#!/usr/bin/env bash
# Compares the export table of vexal.dll with the list of names it may export.
# An exported name that is not listed fails; listed names still missing are
# reported, and fail too once VEXAL_ALL_EXPORTS=1 (every subsystem built).
set -euo pipefail
dll=$1
list=$2
objdump=${OBJDUMP:-x86_64-w64-mingw32-objdump}

got=$("$objdump" -p "$dll" |
  awk '/\[Ordinal\/Name Pointer\] Table/{t=1;next} t&&/^[ \t]*\[/{print $NF} t&&/^$/{t=0}' | sort -u)
extra=$(comm -13 <(sort -u "$list") <(echo "$got") | grep . || true)
missing=$(comm -23 <(sort -u "$list") <(echo "$got") | grep . || true)

total=$(grep -c . "$list")
have=$(( total - $(echo -n "$missing" | grep -c . || true) ))
echo "vexal.dll exports $have of the $total listed names"
if [ -n "$missing" ]; then
  echo "not exported yet:"
  echo "$missing" | sed 's/^/  /'
fi
if [ -n "$extra" ]; then
  echo "exported but not listed:"
  echo "$extra" | sed 's/^/  /'
  exit 1
fi
if [ -n "$missing" ] && [ "${VEXAL_ALL_EXPORTS:-0}" = 1 ]; then
  exit 1
fi
