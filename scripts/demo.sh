#!/usr/bin/env bash
# Builds Vemira and runs the end-to-end demonstration (the main job).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
"$root/scripts/install-deps.sh"
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release -DVEMIRA_BUILD_BENCH=ON >/dev/null
cmake --build build -j"$(nproc)"
exec "$root/build/src/cli/vemira" demo "$@"
