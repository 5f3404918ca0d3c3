#!/usr/bin/env bash
# Installs what is missing (Debian 12, as root), builds, then runs the demo
# ("./build.sh demo") or the whole test suite ("./build.sh test").
set -euo pipefail
cd "$(dirname "$0")"
what=${1:-test}
build=${VEXAL_BUILD_DIR:-build}

# libwine-dev: the system IDL files that widl imports; wine64: stdole2.tlb,
# regsvr32 and cscript, which the tests drive.
packages=(cmake make g++-mingw-w64-x86-64-posix mingw-w64-tools wine wine64 libwine-dev googletest)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}" >/dev/null
fi

cmake -S . -B "$build" -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake >/dev/null
cmake --build "$build" -j"$(nproc)"

# The tests and the demo share one persistent wineserver for the build's
# private prefix; stop it on the way out so nothing holds the caller open.
stop_wine() { WINEPREFIX="$PWD/$build/wineprefix" wineserver -k >/dev/null 2>&1 || true; }
trap stop_wine EXIT

case "$what" in
  demo)
    examples/demo.sh "$build"
    ;;
  test)
    ctest --test-dir "$build" -j"$(nproc)" --output-on-failure
    ;;
  *)
    echo "usage: $0 demo|test" >&2
    exit 2
    ;;
esac
