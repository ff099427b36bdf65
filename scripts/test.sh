#!/usr/bin/env bash
# Sets up what the build needs, then builds and runs the whole test suite
# twice: a normal optimised build and an AddressSanitizer + UndefinedBehavior-
# Sanitizer build. Exits non-zero on any failure.
#
# usage: scripts/test.sh            (from anywhere inside the repository)
#        XKL_JOBS=4 scripts/test.sh  (parallel build and test jobs; default: nproc)
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
jobs=${XKL_JOBS:-$(nproc 2>/dev/null || echo 2)}

"$root/scripts/setup.sh"

run_suite() {
  local name=$1; shift
  local dir="$root/build-test/$name"
  echo "=== $name build"
  cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DXKL_BUILD_TESTS=ON "$@" > "$dir.configure.log" 2>&1 \
    || { cat "$dir.configure.log"; return 1; }
  cmake --build "$dir" -j "$jobs"
  echo "=== $name tests"
  (cd "$dir" && ctest --output-on-failure -j "$jobs" --timeout 900)
}

mkdir -p "$root/build-test"
run_suite normal
ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_suite sanitize -DXKL_SANITIZE=ON
echo "=== all suites passed"
