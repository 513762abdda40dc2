#!/usr/bin/env bash
# Renews docs/plot-timeline.png: builds, runs the browser test that draws `marquelctl plot`
# of a two-program transport stream in headless Chromium, and copies its screenshot.
# Usage: scripts/plot-screenshot.sh [BUILD_DIR]   (default: build)
set -euo pipefail
cd "$(dirname "$0")/.."
dir="${1:-build}"
scripts/build.sh "$dir" >/dev/null
(cd "$dir" && ctest -L browser --output-on-failure --timeout 600)
cp "$dir/screenshots/plot-timeline.png" docs/plot-timeline.png
echo "docs/plot-timeline.png renewed"
