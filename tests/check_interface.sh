#!/bin/sh
# Holds the library's binary interface against the list that is checked in.
# Usage: check_interface.sh LIBRARY LIST NM READELF
set -eu
library=$1 list=$2 nm=$3 readelf=$4

# What C and C++ themselves provide: symbols with their versions, or of their reserved names.
runtime='@(GLIBC|GLIBCXX|CXXABI|GCC)|^_(Unwind_|ITM_|_cxa_|_gmon_|_gxx_)|^((void|bool) )?std::|^operator (new|delete)|^(vtable|typeinfo) for (std|__cxxabi)'
actual=$(
    "$nm" -D -C --defined-only "$library" | cut -d ' ' -f 3- | sed 's/^/exports /'
    "$nm" -D -C --undefined-only "$library" | sed 's/^ *[A-Za-z] //' | grep -vE "$runtime" |
        sed 's/^/imports /'
)
# The standard libraries keep their types in namespaces, and under tags, of their own.
echo "$actual" | sed -E 's/std::__(1|cxx11)::/std::/g; s/\[abi:[a-z0-9]+\]//' | LC_ALL=C sort -u | diff -u "$list" - || {
    echo "The binary interface differs from $list" >&2
    exit 1
}

expect() {
    echo "$2" | grep -qE "$3" || { echo "$1" >&2; exit 1; }
}
dynamic=$("$readelf" -dW "$library")
segments=$("$readelf" -lW "$library")
expect 'no soname' "$dynamic" 'SONAME.*\[libtarvocameraframeboost.so\]'
expect 'not bound at load' "$dynamic" 'BIND_NOW|FLAGS.* NOW'
expect 'no RELRO' "$segments" 'GNU_RELRO'
expect 'an executable stack' "$segments" 'GNU_STACK.* RW  '
if echo "$dynamic" | grep -q TEXTREL; then
    echo 'text relocations' >&2
    exit 1
fi
