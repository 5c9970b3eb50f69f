#!/usr/bin/env bash
# The library's main job, shown end to end: builds in Release and runs the demo.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)" >/dev/null
exec build/release/tools/smoke/qvipc_smoke
