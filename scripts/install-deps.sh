#!/usr/bin/env bash
# Installs the Debian packages that building, testing, the API reference and
# the Debian packages need, when they are missing (CLI11 and nlohmann/json are
# for the orvik command-line tool, Asio and libuv for the event-loop driver's
# tests and examples). Extra package names may be given as arguments. Runs
# apt-get only as root; otherwise it names what is missing.
set -euo pipefail

packages=(
    cmake make g++ pkg-config
    libzmq3-dev uuid-dev
    libgtest-dev libgmock-dev
    libbenchmark-dev
    clang libclang-rt-14-dev
    doxygen
    dpkg-dev file
    libcli11-dev nlohmann-json3-dev
    python3-dev pybind11-dev python3-pytest python3-pytest-asyncio
    libasio-dev libuv1-dev
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

export DEBIAN_FRONTEND=noninteractive

# Why the package lists need refreshing before installing, or nothing when
# they are there, recent, and know every missing package.
lists_need_update() {
    local lists=/var/lib/apt/lists
    if ! compgen -G "$lists/*_Packages*" >/dev/null; then
        echo "no package lists yet (a fresh machine or container)"
        return
    fi
    if [ -n "$(find "$lists" -maxdepth 1 -name '*_Packages*' -mtime +7 -print -quit)" ]; then
        echo "the package lists are more than a week old"
        return
    fi
    local p
    for p in "${missing[@]}"; do
        if ! apt-cache policy "$p" 2>/dev/null | grep -q 'Candidate: [^(]'; then
            echo "the package lists do not know $p"
            return
        fi
    done
}

reason=$(lists_need_update)
if [ -n "$reason" ]; then
    echo "Updating the package lists first: $reason (apt-get update, about a minute)"
    apt-get update -q
fi

echo "Installing ${#missing[@]} missing packages (a few minutes on a fresh machine): ${missing[*]}"
if ! apt-get install -y -q --no-install-recommends "${missing[@]}"; then
    echo "Installing failed; updating the package lists and trying once more"
    apt-get update -q
    apt-get install -y -q --no-install-recommends "${missing[@]}"
fi
