#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite.
# Usage: scripts/test.sh [--sanitize]   (--sanitize: AddressSanitizer + UBSan, in build-asan/)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh

dir=build
opts=()
if [ "${1:-}" = "--sanitize" ]; then
  dir=build-asan
  # -O1 and line tables only: what the sanitizers' reports need, at about two thirds of
  # the compile time, which keeps CI's whole run within its budget.
  opts=(-DMARQUEL_SANITIZE=ON -DMARQUEL_BUILD_BENCH=OFF
    "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -g1 -DNDEBUG" "-DCMAKE_C_FLAGS_RELWITHDEBINFO=-O1 -g1 -DNDEBUG")
  export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}"
  export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
fi
scripts/build.sh "$dir" "${opts[@]}"
cd "$dir"
ctest -j "$(nproc)" --output-on-failure --timeout 600
