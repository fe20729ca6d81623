#!/bin/sh
# Builds the library the way the NDK preset does, with this machine's compiler in the NDK's place
# and empty libraries in the device's.
# Usage: check_ndk.sh SOURCE_DIRECTORY WORK_DIRECTORY COMPILER
set -eu
source=$1 work=$2 compiler=$3
rm -rf "$work"
mkdir -p "$work/lib"
for library in log cutils tarvo_cfbt some_store; do
    "$compiler" -shared -x c++ /dev/null -o "$work/lib/lib$library.so"
done
flags="-D__ANDROID__ -isystem /usr/include/android -isystem $source/tests/android"
cmake -S "$source" -B "$work/build" -G Ninja -DANDROID=ON -DBUILD_TESTING=OFF \
    -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_COMPILE_WARNING_AS_ERROR=ON \
    -DTARVO_CONFIG_STORE_LIBRARY=some_store -DCMAKE_CXX_FLAGS="$flags" \
    -DCMAKE_SHARED_LINKER_FLAGS="-L$work/lib"
cmake --build "$work/build"
cmake --install "$work/build" --prefix "$work/install"
