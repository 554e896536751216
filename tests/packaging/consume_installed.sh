#!/usr/bin/env bash
# Installs the build tree into a fresh prefix, then builds and runs a small
# application against it twice: with find_package(orvikm CONFIG) and with
# pkg-config.
set -euo pipefail
build_dir=$1
source_dir=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null

echo "== find_package(orvikm CONFIG REQUIRED)"
cmake -S "$source_dir/consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
"$work/cmake-build/consumer"

echo "== pkg-config --cflags --libs orvikm"
libdir=$(dirname "$(find "$work/prefix" -name 'liborvik_messenging.so.0' | head -n 1)")
export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046
c++ -std=c++17 "$source_dir/consumer/main.cpp" -o "$work/pc-consumer" \
    $(pkg-config --cflags --libs orvikm) -Wl,-rpath,"$libdir"
"$work/pc-consumer"

echo "== SONAMEs"
for lib in liborvik_util.so.0 libzmq_wexbolt.so.0 liborvik_messenging.so.0; do
    soname=$(objdump -p "$libdir/$lib" | awk '/SONAME/ {print $2}')
    [ "$soname" = "$lib" ] || { echo "$lib has SONAME '$soname'"; exit 1; }
    echo "$lib"
done
