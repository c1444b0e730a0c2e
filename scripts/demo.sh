#!/usr/bin/env bash
# Builds the release configuration and runs the main job: fmsim demo, FolderMerge on ntsim. It
# exits with the demonstration's status: 0 when every result is the one the filter should give.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release -DFM_BUILD_TESTS=OFF >/dev/null
cmake --build build/release -j "$(nproc)" --target fmsim
./build/release/fmsim demo
