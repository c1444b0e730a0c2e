#!/usr/bin/env bash
# Builds everything with AddressSanitizer and UndefinedBehaviorSanitizer and runs every test, then
# runs each fuzz target for a few seconds (scripts/fuzz.sh) and builds the portable service library
# and fmctl for Windows with mingw-w64 (scripts/cross-build.sh), and runs the main job in its release
# build (scripts/demo.sh), where optimized code meets warnings the debug build never sees.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build/asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DFM_SANITIZE=ON -DFM_BUILD_BENCH=OFF >/dev/null
cmake --build build/asan -j "$(nproc)"
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:strict_string_checks=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
ctest --test-dir build/asan --output-on-failure -j "$(nproc)"
bash scripts/fuzz.sh
bash scripts/cross-build.sh
bash scripts/demo.sh > build/demo.log 2>&1 || { cat build/demo.log; echo "the main job failed" >&2; exit 1; }
echo "main job: $(grep -a "^fmsim demo:" build/demo.log)"
