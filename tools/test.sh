#!/usr/bin/env bash
# Installs what is missing, builds the module and runs the whole test suite.
#   tools/test.sh              normal build in build/
#   tools/test.sh --sanitize   AddressSanitizer + UndefinedBehaviorSanitizer build in build-asan/
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
bash "$root/tools/install-deps.sh"

build="$root/build"
options=()
if [ "${1:-}" = "--sanitize" ]; then
  build="$root/build-asan"
  options=(-DKORVO_SANITIZE=ON)
fi

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${options[@]}" >/dev/null
cmake --build "$build" -j"$(nproc)"
cd "$build"
ctest --output-on-failure -j"$(nproc)"
