#!/usr/bin/env bash
# Installs a build into <build>/package-test/prefix, builds consumer/ against
# that prefix in <build>/package-test/build and runs its two clients.
#
#   run.sh <build folder> <toolchain file>
set -euo pipefail
build=$1
toolchain=$2
here=$(cd "$(dirname "$0")" && pwd)
work=$build/package-test

rm -rf "$work"
# In the build's own Wine prefix, which the other tests have made already:
# the generator runs in it at build time, the clients afterwards.
export VEXAL_BUILD_ROOT=$build
cmake --install "$build" --prefix "$work/prefix" >/dev/null
cmake -S "$here/consumer" -B "$work/build" -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
  -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/build"

for client in doubler_client doubler_client_def; do
  "$here/../../cmake/wine-run.sh" "$work/build/$client.exe"
done
