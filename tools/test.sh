#!/usr/bin/env bash
# Installs what is missing, builds the module and runs the whole test suite.
# Every build treats compiler warnings as errors.
#   tools/test.sh              normal build in build/; then the thread, race,
#                              fork and slow-helper tests again in a
#                              ThreadSanitizer build in build-tsan/; then the
#                              whole suite (fuzz corpora replayed included) in an
#                              AddressSanitizer + UndefinedBehaviorSanitizer
#                              build in build-asan/
#   tools/test.sh --sanitize   only the AddressSanitizer + UndefinedBehaviorSanitizer build
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
[ "${1:-}" = "--no-install" ] && shift || bash "$root/tools/install-deps.sh"

build="$root/build"
options=()
if [ "${1:-}" = "--sanitize" ]; then
  build="$root/build-asan"
  options=(-DKORVO_SANITIZE=ON)
fi

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKORVO_WERROR=ON "${options[@]}" >/dev/null
cmake --build "$build" -j"$(nproc)"
status=0
(cd "$build" && ctest --output-on-failure -j"$(nproc)") || status=$?
[ "${1:-}" = "--sanitize" ] && exit "$status"

# Where application threads meet inside the module, ThreadSanitizer also
# fails a test on a data race, a lock-order inversion or a use after free
# that happened to give right answers (tests/CMakeLists.txt sets
# TSAN_OPTIONS=halt_on_error=1). It runs even when the suite above failed.
tsan="$root/build-tsan"
cmake -S "$root" -B "$tsan" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKORVO_WERROR=ON -DKORVO_TSAN=ON >/dev/null
cmake --build "$tsan" -j"$(nproc)" --target abi_tests slow_helper_tests
(cd "$tsan" && ctest --output-on-failure -j"$(nproc)" -R '^(Cases/Races|SlowHelper)\.') || status=$?

# Memory errors, undefined behaviour and leaks fail the suite here, in every
# test, the fuzz corpora's replay included. It runs even when the above failed.
bash "$root/tools/test.sh" --no-install --sanitize || status=$?
exit "$status"
