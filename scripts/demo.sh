#!/usr/bin/env bash
# Builds the release configuration and runs the main job.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release -DFM_BUILD_TESTS=OFF >/dev/null
cmake --build build/release -j "$(nproc)"
./build/release/platform_bench --benchmark_min_time=0.2
