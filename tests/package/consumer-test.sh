#!/usr/bin/env bash
# usage: consumer-test.sh BUILD_DIR CONSUMER_SOURCE WORK_DIR CXX [EXTRA_FLAGS]
set -euo pipefail
build=$1 source=$2 work=$3 cxx=$4 flags=${5:-}
rm -rf "$work"
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name 'libTrellis.so.1' | head -n1)")
test -L "$libdir/libTrellis.so" && test -f "$prefix/include/Trellis/Trellis.h"
test "$(readelf -d "$libdir/libTrellis.so.1" | sed -n 's/.*SONAME.*\[\(.*\)\]/\1/p')" = libTrellis.so.1

echo "== find_package(Trellis)"
cmake -S "$source" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="$flags" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
"$work/cmake-build/consumer"

echo "== pkg-config trellis"
export PKG_CONFIG_PATH=$libdir/pkgconfig
# shellcheck disable=SC2046
"$cxx" -std=c++17 -fPIC $flags -o "$work/consumer-pc" "$source/main.cpp" \
    $(pkg-config --cflags --libs trellis) -Wl,-rpath,"$libdir"
"$work/consumer-pc"
