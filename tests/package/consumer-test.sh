#!/usr/bin/env bash
# usage: consumer-test.sh BUILD_DIR CONSUMER_SOURCE WORK_DIR CXX [EXTRA_FLAGS [TOOLCHAIN EMULATOR]]
# A cross build gives its toolchain file and its emulator command (words
# separated by ';'): the consumer is then built with the same toolchain and
# started through the emulator.
set -euo pipefail
build=$1 source=$2 work=$3 cxx=$4 flags=${5:-} toolchain=${6:-}
IFS=';' read -ra emulator <<<"${7:-}"
rm -rf "$work"
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name 'libTrellis.so.1' | head -n1)")
test -L "$libdir/libTrellis.so" && test -f "$prefix/include/Trellis/Trellis.h"
test "$(readelf -d "$libdir/libTrellis.so.1" | sed -n 's/.*SONAME.*\[\(.*\)\]/\1/p')" = libTrellis.so.1

echo "== find_package(Trellis)"
if [ -n "$toolchain" ]; then
    # The toolchain confines package searches to its sysroot, so the package
    # is named by its directory.
    cmake -S "$source" -B "$work/cmake-build" -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
        -DTrellis_DIR="$libdir/cmake/Trellis" -DCMAKE_CXX_FLAGS="$flags" >/dev/null
else
    cmake -S "$source" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" \
        -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="$flags" >/dev/null
fi
cmake --build "$work/cmake-build" >/dev/null
"${emulator[@]}" "$work/cmake-build/consumer"

if [ -n "$toolchain" ]; then
    echo "== pkg-config trellis: not checked in a cross build (pkg-config would give the host's Qt)"
    exit 0
fi

echo "== pkg-config trellis"
export PKG_CONFIG_PATH=$libdir/pkgconfig
# shellcheck disable=SC2046
"$cxx" -std=c++17 -fPIC $flags -o "$work/consumer-pc" "$source/main.cpp" \
    $(pkg-config --cflags --libs trellis) -Wl,-rpath,"$libdir"
"$work/consumer-pc"
