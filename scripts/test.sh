#!/usr/bin/env bash
# Builds libevents and passes every test: the suite in a normal build (GCC),
# the suite again under AddressSanitizer and UndefinedBehaviorSanitizer
# (clang), and a short run of every fuzz target (FUZZ_SECONDS each, 30 by
# default).  Warnings are errors here.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

jobs=$(nproc)
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DEVENTS_WERROR=ON
cmake --build build -j "$jobs"
ctest --test-dir build --output-on-failure -j "$jobs"

cmake -S . -B build-sanitize -DCMAKE_BUILD_TYPE=Debug -DEVENTS_SANITIZE=ON -DEVENTS_BENCH=OFF \
  -DEVENTS_WERROR=ON -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++
cmake --build build-sanitize -j "$jobs"
ctest --test-dir build-sanitize --output-on-failure -j "$jobs"

bash scripts/fuzz.sh "${FUZZ_SECONDS:-30}"
