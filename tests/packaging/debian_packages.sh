#!/usr/bin/env bash
# Builds the Debian packages (scripts/package.sh) into PACKAGE_BUILD, checks
# their fields and file lists, unpacks them into a temporary root with
# dpkg-deb -x, checks the SONAMEs there, runs orvik-devnode from it, and
# builds and runs the consumer application against the unpacked -dev package
# with CMake and with pkg-config.
#
#   debian_packages.sh PACKAGE_BUILD EXPECT_ORVIK(0|1)
set -euo pipefail
package_build=$1
expect_orvik=$2
source_dir=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
    echo "FAILED: $*"
    exit 1
}

JOBS=1 "$source_dir/scripts/package.sh" "$package_build" >"$work/package.log" 2>&1 ||
    { cat "$work/package.log"; fail "scripts/package.sh"; }

cache_value() { sed -n "s/^$1:[A-Z]*=//p" "$package_build/CMakeCache.txt"; }
version=$(cache_value CMAKE_PROJECT_VERSION)-$(cache_value ORVIKM_PACKAGE_RELEASE)
libdir=usr/$(cache_value CMAKE_INSTALL_LIBDIR)
so_version=$(cache_value CMAKE_PROJECT_VERSION)
arch=$(dpkg --print-architecture)
echo "== packages of version $version for $arch, libraries in /$libdir"

deb() { echo "$package_build/packages/$1_${version}_$arch.deb"; }
for name in liborvikm0 liborvikm-dev orvik-tools; do
    [ -f "$(deb "$name")" ] || { ls "$package_build/packages"; fail "no $(basename "$(deb "$name")")"; }
    [ "$(dpkg-deb -f "$(deb "$name")" Package)" = "$name" ] || fail "$name: wrong Package field"
    [ "$(dpkg-deb -f "$(deb "$name")" Version)" = "$version" ] || fail "$name: wrong Version field"
    [ -n "$(dpkg-deb -f "$(deb "$name")" Maintainer)" ] || fail "$name: no Maintainer"
    [ -n "$(dpkg-deb -f "$(deb "$name")" Description)" ] || fail "$name: no Description"
done

echo "== Depends"
# depends_on PACKAGE DEPENDENCY: DEPENDENCY (a name, or "name (relation)") is
# one of PACKAGE's Depends entries.
depends_on() {
    local depends
    depends=$(dpkg-deb -f "$(deb "$1")" Depends)
    local entry
    while IFS= read -r entry; do
        entry=${entry# }
        if [ "$entry" = "$2" ] || [ "${entry%% (*}" = "$2" ]; then
            return 0
        fi
    done < <(tr ',' '\n' <<<"$depends")
    fail "$1 does not depend on $2"
}
for dependency in libzmq5 libuuid1 libstdc++6 libc6; do
    depends_on liborvikm0 "$dependency"
done
depends_on liborvikm-dev "liborvikm0 (= $version)"
depends_on liborvikm-dev libzmq3-dev
depends_on liborvikm-dev uuid-dev
depends_on orvik-tools "liborvikm0 (= $version)"
depends_on orvik-tools libstdc++6
for name in liborvikm0 liborvikm-dev orvik-tools; do
    echo "$name: $(dpkg-deb -f "$(deb "$name")" Depends)"
done

echo "== file lists"
# contents PACKAGE: its files and links, one path a line, sorted.
contents() { dpkg-deb -c "$(deb "$1")" | awk '$1 !~ /^d/ {print $6}' | sed 's|^\./||' | sort; }
expect_contents() {
    local expected=$work/$1.expected
    sort >"$expected"
    contents "$1" >"$work/$1.actual"
    diff -u "$expected" "$work/$1.actual" || fail "$1 holds other files than expected"
    echo "$1: $(wc -l <"$expected") files as expected"
}
libraries=(liborvik_util libzmq_wexbolt liborvik_messenging)
for lib in "${libraries[@]}"; do
    echo "$libdir/$lib.so.0"
    echo "$libdir/$lib.so.$so_version"
done | expect_contents liborvikm0
{
    (cd "$source_dir" && find include/orvikm companions/orviku/include/orviku \
        companions/wxblt/include/wxblt -type f) |
        sed 's|^companions/[a-z]*/include/|include/|; s|^|usr/|'
    for file in OrvikmPkgConfig.cmake orvikmConfig.cmake orvikmConfigVersion.cmake \
        orvikmTargets.cmake orvikmTargets-release.cmake; do
        echo "$libdir/cmake/orvikm/$file"
    done
    echo "$libdir/pkgconfig/orvikm.pc"
    for lib in "${libraries[@]}"; do echo "$libdir/$lib.so"; done
} | expect_contents liborvikm-dev
{
    echo usr/bin/orvik-devnode
    if [ "$expect_orvik" = 1 ]; then echo usr/bin/orvik; fi
} | expect_contents orvik-tools

echo "== unpacked with dpkg-deb -x: links and SONAMEs"
root=$work/root
for name in liborvikm0 liborvikm-dev orvik-tools; do
    dpkg-deb -x "$(deb "$name")" "$root"
done
for lib in "${libraries[@]}"; do
    [ "$(readlink "$root/$libdir/$lib.so")" = "$lib.so.0" ] || fail "$lib.so does not point to $lib.so.0"
    [ "$(readlink "$root/$libdir/$lib.so.0")" = "$lib.so.$so_version" ] ||
        fail "$lib.so.0 does not point to $lib.so.$so_version"
    soname=$(objdump -p "$root/$libdir/$lib.so.0" | awk '/SONAME/ {print $2}')
    [ "$soname" = "$lib.so.0" ] || fail "$lib.so.0 has SONAME '$soname'"
    echo "$lib.so.0: SONAME $soname"
done

echo "== orvik-devnode from the unpacked root finds its libraries there"
loaded=$(ldd "$root/usr/bin/orvik-devnode" | awk '$1 == "liborvik_messenging.so.0" {print $3}')
[ "$loaded" -ef "$root/$libdir/liborvik_messenging.so.0" ] ||
    fail "orvik-devnode loads liborvik_messenging.so.0 from '$loaded'"
# Read whole before its first line is shown: a reader that stops early would
# end the program with SIGPIPE once its help no longer fits one write.
"$root/usr/bin/orvik-devnode" --help >"$work/devnode-help.txt"
head -n 1 "$work/devnode-help.txt"

echo "== find_package(orvikm CONFIG REQUIRED) against the unpacked -dev package"
export LD_LIBRARY_PATH=$root/$libdir
cmake -S "$source_dir/tests/packaging/consumer" -B "$work/cmake-build" \
    -DCMAKE_PREFIX_PATH="$root/usr" >"$work/consumer-cmake.log" 2>&1 ||
    { cat "$work/consumer-cmake.log"; fail "configuring the consumer"; }
found=$(sed -n 's/^orvikm_DIR:PATH=//p' "$work/cmake-build/CMakeCache.txt")
[ "$found" = "$root/$libdir/cmake/orvikm" ] || fail "find_package found orvikm in '$found'"
cmake --build "$work/cmake-build" >"$work/consumer-build.log" 2>&1 ||
    { cat "$work/consumer-build.log"; fail "building the consumer"; }
"$work/cmake-build/consumer"

echo "== pkg-config --cflags --libs orvikm against the unpacked -dev package"
export PKG_CONFIG_PATH=$root/$libdir/pkgconfig
[ "$(pkg-config --variable=libdir orvikm)" -ef "$root/$libdir" ] ||
    fail "orvikm.pc points to $(pkg-config --variable=libdir orvikm)"
# shellcheck disable=SC2046
c++ -std=c++17 "$source_dir/tests/packaging/consumer/main.cpp" -o "$work/pc-consumer" \
    $(pkg-config --cflags --libs orvikm)
"$work/pc-consumer"
