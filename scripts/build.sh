#!/usr/bin/env bash
# Configures and builds Marquel. Usage: scripts/build.sh [BUILD_DIR] [cmake options...]
set -euo pipefail
cd "$(dirname "$0")/.."
dir="${1:-build}"
shift || true
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
cmake --build "$dir" -j "$(nproc)"
