#!/usr/bin/env bash
# Builds the tests of the layers that threads share (the open-file table, the pending list
# and its monitor, the caches and the store under them) with ThreadSanitizer, in
# build-tsan/, and runs them. Only those targets are built, to keep CI short.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=build-tsan
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMARQUEL_TSAN=ON \
  -DMARQUEL_BUILD_BENCH=OFF "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -g1 -DNDEBUG" \
  "-DCMAKE_C_FLAGS_RELWITHDEBINFO=-O1 -g1 -DNDEBUG" >/dev/null
cmake --build "$dir" -j "$(nproc)" --target files_tests
export TSAN_OPTIONS="${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}"
# The load test opens a hundred files on one thread: minutes under the sanitizer, and no
# second thread to watch.
"$dir/tests/files_tests" --gtest_brief=1 --gtest_filter=-ServerLoadTest.*
