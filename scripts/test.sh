#!/usr/bin/env bash
# Installs what is missing, then builds and runs the whole test suite three ways:
#   ci          gcc, warnings as errors, every test including the packaging test
#   asan-ubsan  clang with AddressSanitizer and UndefinedBehaviorSanitizer (any report fails),
#               including the fuzz targets for a bounded time
#   tsan        clang with ThreadSanitizer, the concurrency tests
# Pass one or more of these names to run only those stages.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh

stages=("$@")
if ((${#stages[@]} == 0)); then stages=(ci asan-ubsan tsan); fi

for stage in "${stages[@]}"; do
    echo "=== ${stage} ==="
    start=$SECONDS
    cmake --preset "$stage" >/dev/null
    cmake --build --preset "$stage"
    ctest --preset "$stage"
    echo "=== ${stage} passed in $((SECONDS - start)) s ==="
done
