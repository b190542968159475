#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for SECONDS
# (default 30), starting from its seed corpus in fuzz/corpus/NAME.
# Usage: scripts/fuzz.sh [SECONDS] [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-30}
shift || true

CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DEVENTS_FUZZ=ON
cmake --build build-fuzz -j "$(nproc)"

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for f in fuzz/*_fuzzer.cpp; do targets+=("$(basename "$f" .cpp)"); done
fi
for target in "${targets[@]}"; do
  work=$(mktemp -d)
  [ -d "fuzz/corpus/$target" ] && cp -r "fuzz/corpus/$target/." "$work/"
  echo "== $target: ${seconds}s"
  build-fuzz/fuzz/"$target" -max_total_time="$seconds" -print_final_stats=1 "$work" 2>&1 | tail -n 12
  rm -rf "$work"
done
