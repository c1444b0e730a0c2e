#!/usr/bin/env bash
# Builds everything with AddressSanitizer and UndefinedBehaviorSanitizer and runs every test, then
# runs each fuzz target for a few seconds (scripts/fuzz.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build/asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DFM_SANITIZE=ON -DFM_BUILD_BENCH=OFF >/dev/null
cmake --build build/asan -j "$(nproc)"
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:strict_string_checks=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
ctest --test-dir build/asan --output-on-failure -j "$(nproc)"
bash scripts/fuzz.sh
