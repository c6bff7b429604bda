#!/usr/bin/env bash
# usage: side-by-side-test.sh SOURCE_DIR WORK_DIR CONSUMER_SOURCE CXX EXTRA_FLAGS QT6_BUILD_DIR
# Builds the Qt 5 library from the same sources and has consumer-test.sh
# install it into one prefix with the Qt 6 build, then use each package there.
set -euo pipefail
sources=$1 work=$2 consumer=$3 cxx=$4 flags=$5 qt6build=$6
qt5build=$work-qt5-build

cmake -S "$sources" -B "$qt5build" -DTRELLIS_QT_MAJOR_VERSION=5 -DCMAKE_BUILD_TYPE=Debug \
    -DTRELLIS_BUILD_TESTS=OFF -DCMAKE_CXX_COMPILER="$cxx" >/dev/null
cmake --build "$qt5build" --parallel 2 --target Trellis trellis-copy trellis-copy-man >/dev/null
exec "$(dirname "$0")/consumer-test.sh" "$consumer" "$work" "$cxx" "$flags" \
    Trellis="$qt5build" Trellis6="$qt6build"
