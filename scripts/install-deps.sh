#!/usr/bin/env bash
# Installs the Debian packages that building and testing need, when they are
# missing. Runs apt-get only as root; otherwise it names what is missing.
set -euo pipefail

packages=(
    cmake make g++ pkg-config
    libzmq3-dev uuid-dev
    libgtest-dev libgmock-dev
    libbenchmark-dev
    clang libclang-rt-14-dev
    "$@"
)

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$p")
    fi
done

[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
    echo "Missing packages: ${missing[*]}" >&2
    echo "Install them (as root: apt-get install ${missing[*]}) and run again." >&2
    exit 1
fi

echo "Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
if ! apt-get install -y --no-install-recommends "${missing[@]}"; then
    apt-get update
    apt-get install -y --no-install-recommends "${missing[@]}"
fi
