#!/usr/bin/env bash
# Installs what is missing, builds, and runs the main job: a short demonstration.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
scripts/build.sh build
exec scripts/demo.sh build/bin
