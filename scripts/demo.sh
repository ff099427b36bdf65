#!/usr/bin/env bash
# Sets up a fresh machine, builds the xkl program and runs its demo:
# leave-one-speaker-out recognition of the bundled spoken digits.
#
# usage: scripts/demo.sh [demo options...]   (e.g. scripts/demo.sh --verbose)
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
jobs=${XKL_JOBS:-$(nproc 2>/dev/null || echo 2)}

"$root/scripts/setup.sh"
build="$root/build-demo"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DXKL_BUILD_TESTS=OFF > "$build.configure.log" 2>&1 \
  || { cat "$build.configure.log"; exit 1; }
cmake --build "$build" -j "$jobs" --target xkl_tool > "$build.build.log" 2>&1 \
  || { tail -50 "$build.build.log"; exit 1; }
exec "$build/tools/xkl" demo "$@"
