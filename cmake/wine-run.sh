#!/usr/bin/env bash
# Runs one Windows program under Wine in the build tree's private prefix.
# The prefix is made on first use (under a lock, since CTest runs tests in
# parallel) and one persistent wineserver keeps later starts fast.
#
#   wine-run.sh [--gtest] program.exe [args...]
#
# With --gtest the program is a GoogleTest program and passes only when it
# exits 0, its output ends with GoogleTest's passed summary and holds no
# failure line: a Windows program that crashes can leave Wine with status 0.
set -u
gtest=0
if [ "${1:-}" = "--gtest" ]; then
  gtest=1
  shift
fi
build_root=${VEXAL_BUILD_ROOT:-}
if [ -z "$build_root" ]; then
  # Programs live in <build>/bin; the prefix sits next to that folder.
  build_root=$(cd "$(dirname "$1")/.." && pwd)
fi
export WINEPREFIX="$build_root/wineprefix"
export WINEDEBUG=-all
export WINEDLLOVERRIDES="mscoree,mshtml="
export WINEARCH=win64
(
  flock 9
  # Nothing started here may keep the lock descriptor.
  if [ ! -f "$WINEPREFIX/.vexal-ready" ]; then
    mkdir -p "$WINEPREFIX"
    wineboot -i >/dev/null 2>&1 9>&-
    wineserver -w 9>&-
    # No automatic debugger: with an empty debugger command a crash ends the
    # process with the exception's code instead of in winedbg, which can
    # leave exit status 0 behind.
    wine reg add 'HKLM\Software\Microsoft\Windows NT\CurrentVersion\AeDebug' /v Debugger /t REG_SZ /d '' /f \
      >/dev/null 2>&1 9>&-
    wineserver -w 9>&-
    touch "$WINEPREFIX/.vexal-ready"
  fi
  wineserver -p >/dev/null 2>&1 9>&-
) 9>"$build_root/.wineprefix.lock"

# Wine's helper processes (services, rpcss) outlive the program and inherit
# its standard handles; a pipe held by them would keep the caller (CTest)
# waiting. So the program writes to a file that is replayed afterwards.
out=$(mktemp "$build_root/.wine-output.XXXXXX")
wine "$@" >"$out" 2>&1 </dev/null
status=$?
cat "$out"
if [ $gtest = 1 ] && [ $status = 0 ]; then
  if grep -aq '^\[  FAILED  \]' "$out" || ! grep -aq '^\[  PASSED  \] [0-9]* test' "$out"; then
    echo "wine-run.sh: exit status 0 without GoogleTest's passed summary: counted as failed"
    status=1
  fi
fi
rm -f "$out"
exit $status
