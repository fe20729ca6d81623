#!/bin/sh
# Proves of Android.bp what can be proven without a platform tree: its form, that it names all
# sources, and that they compile with its flags and Android's own headers.
# Usage: check_android_bp.sh SOURCE_DIRECTORY COMPILER
set -eu
cd "$1"
compiler=$2

fail() {
    echo "Android.bp: $1" >&2
    exit 1
}

difference=$(bpfmt -d Android.bp)
[ -z "$difference" ] || fail "not in bpfmt's form: $difference"

# The texts of a list property of a module: value MODULE PROPERTY.
values() {
    awk -v name="\"$1\"" -v property="$2:" '
        /^[a-z_]+ \{/ { block = ""; wanted = 0 }
        { block = block $0 "\n"; if ($1 == "name:" && index($2, name)) wanted = 1 }
        /^}/ && wanted { printf "%s", block; wanted = 0 }
    ' Android.bp | awk -v property="$2:" '
        $1 == property { inside = 1; isList = /\[/ }
        inside { print }
        inside && (/\]/ || !isList) { exit }
    ' | grep -o '"[^"]*"' | tr -d '"'
}

library=$(values libtarvocameraframeboost srcs)
[ "$library" = "$(ls cameraframeboost/*.cpp)" ] || fail "the library's sources are others: $library"
tests=$(values libtarvocameraframeboost_test srcs)
for source in cameraframeboost/*.cpp host/*.cpp; do
    echo "$tests" | grep -qx "$source" || fail "the test module lacks $source"
done
for file in $tests $(values libtarvocameraframeboost version_script); do
    [ -f "$file" ] || fail "there is no $file"
done

standard=$(values libtarvocameraframeboost cpp_std)
flags=$(values libtarvocameraframeboost cflags)
for directory in $(values libtarvocameraframeboost local_include_dirs); do
    flags="$flags -I$directory"
done
for source in $library; do
    # shellcheck disable=SC2086
    "$compiler" -std="$standard" $flags -fno-exceptions -fno-rtti -D__ANDROID__ \
        -isystem /usr/include/android -isystem tests/android -fsyntax-only "$source" ||
        fail "$source does not compile"
done
