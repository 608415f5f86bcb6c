#!/usr/bin/env bash
# Installs everything needed to build and test on Debian 12, from Debian's packages only.
# Idempotent: packages already present are not touched, and nothing is fetched when all are.
set -euo pipefail

packages=(
    build-essential cmake ninja-build pkg-config git
    libssl-dev libboost-dev libboost-log-dev
    libgtest-dev libgmock-dev libbenchmark-dev
    clang libclang-rt-14-dev llvm
    python3 netbase
)

missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$package")
    fi
done

if ((${#missing[@]} == 0)); then
    exit 0
fi

echo "Installing: ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
$sudo apt-get update -q
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
