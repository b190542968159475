#!/usr/bin/env bash
# Builds libevents and runs its demo: a sample trap encoded, printed as
# octets and decoded again.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh >/dev/null
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)" >/dev/null
build/examples/trap_roundtrip
sed "s#/usr/KZ/conf/C/#$PWD/examples/#" examples/hubd.conf > build/hubd.conf
build/tools/hubconf check build/hubd.conf
