#!/usr/bin/env bash
# usage: consumer-test.sh CONSUMER_SOURCE WORK_DIR CXX EXTRA_FLAGS PACKAGE=BUILD_DIR...
# Installs every build into one scratch prefix, then builds the consumer
# against each package (Trellis for Qt 5, Trellis6 for Qt 6) twice, through
# find_package() and through pkg-config, runs it, and checks that it loads
# that package's library and Qt and nothing of the other; so must the
# installed trellis-copy program (trellis-copy6 for Qt 6) of a build that has
# the examples, whose manual page must be installed too.
# A cross build gives its toolchain file as TRELLIS_TEST_TOOLCHAIN and its
# emulator command as TRELLIS_TEST_EMULATOR (words separated by ';'): the
# consumer is then built with the same toolchain and started through the
# emulator.
set -euo pipefail
source=$1 work=$2 cxx=$3 flags=$4
shift 4
toolchain=${TRELLIS_TEST_TOOLCHAIN:-}
IFS=';' read -ra emulator <<<"${TRELLIS_TEST_EMULATOR:-}"
rm -rf "$work"
prefix=$work/prefix

for pair in "$@"; do
    cmake --install "${pair#*=}" --prefix "$prefix" >/dev/null
done

# The Trellis and Qt libraries a program loads, as the dynamic loader lists
# them (what ldd shows, through the emulator too), on one line.
loaded() {
    LD_TRACE_LOADED_OBJECTS=1 "${emulator[@]}" "$1" \
        | sed -n 's/^\s*\(lib\(Trellis\|Qt\)[^ ]*\).*/\1/p' | LC_ALL=C sort | tr '\n' ' '
}

for pair in "$@"; do
    package=${pair%%=*}
    case $package in
    Trellis) headers=$prefix/include/Trellis program=$prefix/bin/trellis-copy
        expected="libQt5Core.so.5 libTrellis.so.1 " ;;
    Trellis6) headers=$prefix/include/Trellis6/Trellis program=$prefix/bin/trellis-copy6
        expected="libQt6Core.so.6 libQt6Core5Compat.so.6 libTrellis6.so.1 " ;;
    *) echo "unknown package $package" >&2; exit 2 ;;
    esac
    library=lib$package.so.1
    libdir=$(dirname "$(find "$prefix" -name "$library" | head -n1)")
    test -L "$libdir/lib$package.so" && test -f "$headers/Trellis.h"
    test "$(readelf -d "$libdir/$library" | sed -n 's/.*SONAME.*\[\(.*\)\]/\1/p')" = "$library"

    echo "== find_package($package)"
    if [ -n "$toolchain" ]; then
        # The toolchain confines package searches to its sysroot, so the
        # package is named by its directory.
        cmake -S "$source" -B "$work/$package-cmake" -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
            -DTRELLIS_PACKAGE="$package" -D"${package}_DIR=$libdir/cmake/$package" \
            -DCMAKE_CXX_FLAGS="$flags" >/dev/null
    else
        cmake -S "$source" -B "$work/$package-cmake" -DCMAKE_PREFIX_PATH="$prefix" \
            -DTRELLIS_PACKAGE="$package" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="$flags" >/dev/null
    fi
    cmake --build "$work/$package-cmake" >/dev/null
    "${emulator[@]}" "$work/$package-cmake/consumer"
    test "$(loaded "$work/$package-cmake/consumer")" = "$expected"

    if grep -q '^TRELLIS_BUILD_EXAMPLES:BOOL=ON$' "${pair#*=}/CMakeCache.txt"; then
        echo "== $(basename "$program")"
        "${emulator[@]}" "$program" --version
        test "$(loaded "$program")" = "$expected"
        # Its manual page, made from its --help, typesets without a warning.
        if [ -z "$toolchain" ]; then
            page=$prefix/share/man/man1/$(basename "$program").1
            echo "== $(basename "$page")"
            test -z "$(groff -man -Tutf8 -rLL=80n -ww -z "$page" 2>&1)"
        fi
    fi

    pc=${package,,}
    if [ -n "$toolchain" ]; then
        echo "== pkg-config $pc: not checked in a cross build (pkg-config would give the host's Qt)"
        continue
    fi
    echo "== pkg-config $pc"
    pcflags=$(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags --libs "$pc")
    # shellcheck disable=SC2086
    "$cxx" -std=c++17 -fPIC $flags -o "$work/$pc-consumer" "$source/main.cpp" $pcflags \
        -Wl,-rpath,"$libdir"
    "$work/$pc-consumer"
    test "$(loaded "$work/$pc-consumer")" = "$expected"
done
