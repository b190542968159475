#!/usr/bin/env bash
# Installs the build into a temporary prefix, then compiles and runs the C
# example against it through pkg-config, as an application would.
# Usage: install_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1
source=$2
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" >/dev/null
pcdir=$(dirname "$(find "$prefix" -name libevents.pc)")
flags=$(PKG_CONFIG_PATH=$pcdir pkg-config --cflags --libs libevents)
cc -std=c11 -Wall -Werror "$source/examples/trap_roundtrip.c" $flags -o "$prefix/roundtrip"
libdir=$(PKG_CONFIG_PATH=$pcdir pkg-config --variable=libdir libevents)
output=$(LD_LIBRARY_PATH=$libdir "$prefix/roundtrip")
grep -q 'agent 10.1.2.3, generic 6, specific 17' <<<"$output"
# The soname is versioned, and no C++ name leaks out of the C interface.
readelf -d "$libdir/libevents.so" | grep -q 'SONAME.*libevents.so.0'
if nm -D --defined-only "$libdir/libevents.so" | awk '{print $3}' | grep -E '^_Z[0-9NSL]'; then exit 1; fi
echo "installed and linked through pkg-config"
