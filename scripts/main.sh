#!/usr/bin/env bash
# Builds the library and the plinth tool, then runs the main job.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release -DPLINTH_BUILD_TESTS=OFF >/dev/null
cmake --build build/release --target plinth
./build/release/plinth env
