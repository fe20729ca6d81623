#!/bin/sh
# Installs the library and builds a project of somebody else's against the installed copy, once
# through the CMake package and once through pkg-config, and runs it.
# Usage: check_install.sh BUILD_DIRECTORY CONSUMER_DIRECTORY WORK_DIRECTORY COMPILER FLAGS [EMULATOR...]
set -eu
build=$1 consumer=$2 work=$3 compiler=$4 flags=$5
shift 5
rm -rf "$work"
cmake --install "$build" --prefix "$work/prefix"
# From elsewhere, so that nothing of the tree is found by accident.
cp -r "$consumer" "$work/source"
cmake -S "$work/source" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" \
    -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_CXX_FLAGS="$flags"
cmake --build "$work/build"
"$@" "$work/build/consumer"

package=$(find "$work/prefix" -name tarvocameraframeboost.pc)
library=$(dirname "$package")/..
# shellcheck disable=SC2046,SC2086
"$compiler" -std=c++17 $flags "$work/source/main.cpp" -o "$work/by-pkg-config" \
    $(PKG_CONFIG_PATH=$(dirname "$package") pkg-config --cflags --libs tarvocameraframeboost) \
    -Wl,-rpath,"$library" -Wl,-rpath-link,"$library"
"$@" "$work/by-pkg-config"
