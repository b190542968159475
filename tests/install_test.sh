#!/usr/bin/env bash
# Installs the build into a temporary prefix, then proves what a user and an
# application get: the installed tools run as they are, and the C example
# builds against the installed tree through pkg-config and through CMake's
# find_package, including the headers as <libevents/...>.  Then uninstalls.
# Usage: install_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1
source=$2
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" >/dev/null
"$prefix/bin/hubconf" --version | grep -q '^hubconf (libevents) [0-9]'
for page in man1/hubevent.1 man1/hubd-dev.1 man1/hubconf.1 man1/hubsnmp.1 man1/codeptcat-build.1 \
    man5/hubd.conf.5 man3/libevents-event.3 man3/libevents-codec.3 man3/libevents-format.3 \
    man3/libevents-config.3 man3/libevents-snmpcall.3; do
  test -s "$(dirname "$(find "$prefix" -name hubconf.1)")/../$page"
done

pcdir=$(dirname "$(find "$prefix" -name libevents.pc)")
flags=$(PKG_CONFIG_PATH=$pcdir pkg-config --cflags --libs libevents)
cc -std=c11 -Wall -Werror "$source/examples/trap_roundtrip.c" $flags -o "$prefix/roundtrip"
libdir=$(PKG_CONFIG_PATH=$pcdir pkg-config --variable=libdir libevents)
output=$(LD_LIBRARY_PATH=$libdir "$prefix/roundtrip")
grep -q 'agent 10.1.2.3, generic 6, specific 17' <<<"$output"

consumer=$prefix/consumer
mkdir "$consumer"
cat >"$consumer/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.20)
project(consumer C)
find_package(libevents 0 REQUIRED)
add_executable(roundtrip $source/examples/trap_roundtrip.c)
target_link_libraries(roundtrip PRIVATE libevents::events)
CMAKE
cmake -S "$consumer" -B "$consumer/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$consumer/build" >/dev/null
grep -q 'agent 10.1.2.3, generic 6, specific 17' <<<"$("$consumer/build/roundtrip")"

# The soname is versioned, and no C++ name leaks out of the C interface.
readelf -d "$libdir/libevents.so" | grep -q 'SONAME.*libevents.so.0'
if nm -D --defined-only "$libdir/libevents.so" | awk '{print $3}' | grep -E '^_Z[0-9NSL]'; then exit 1; fi

rm -rf "$prefix/roundtrip" "$consumer"
cmake --build "$build" --target uninstall >/dev/null
if [ -n "$(find "$prefix" ! -type d)" ]; then find "$prefix" ! -type d; exit 1; fi
echo "installed, run, linked through pkg-config and find_package, uninstalled"
