#!/usr/bin/env bash
# Installs what is missing, builds the library and certinfo in release mode, runs certinfo's
# demonstration. Extra arguments go to certinfo.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release --target certinfo
exec ./build/release/examples/certinfo "$@"
