#!/usr/bin/env bash
# Installs the built library into a temporary prefix, then builds and runs a
# plain C program against it twice: through find_package and through
# pkg-config.
# usage: check_install.sh <build dir> <this folder> <C compiler>
set -euo pipefail
build=$1
here=$2
cc=$3

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" > "$work/install.log"
libdir=$(dirname "$(find "$prefix" -name 'libxklM5.so' | head -n 1)")

# Sanitizer builds need their runtime first in the process. The symbol list
# is read whole before searching it: under pipefail, `nm | grep -q` fails
# whenever grep stops early and nm dies of the broken pipe.
preload=""
symbols=$(nm -D "$libdir/libxklM5.so")
if grep -q '__asan_' <<< "$symbols"; then
  preload=$("$cc" -print-file-name=libasan.so)
fi
run() { env LD_LIBRARY_PATH="$libdir" ${preload:+LD_PRELOAD="$preload"} ASAN_OPTIONS=detect_leaks=0 "$@"; }

echo "== find_package"
mkdir -p "$work/cmake-src"
cp "$here/consumer.c" "$work/cmake-src/"
cp "$here/CMakeLists.txt.in" "$work/cmake-src/CMakeLists.txt"
cmake -S "$work/cmake-src" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_COMPILER="$cc" > "$work/configure.log"
cmake --build "$work/cmake-build" > "$work/build.log"
run "$work/cmake-build/consumer"

echo "== pkg-config"
export PKG_CONFIG_PATH="$libdir/pkgconfig"
flags=$(pkg-config --cflags --libs xkl)
"$cc" -std=c99 -pedantic -Wall -Werror -o "$work/consumer-pc" "$here/consumer.c" $flags
run "$work/consumer-pc"
