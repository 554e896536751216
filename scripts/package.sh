#!/usr/bin/env bash
# Builds the Debian packages liborvikm0, liborvikm-dev and orvik-tools:
#
#   scripts/package.sh [BUILD_DIR]      (default build-package)
#
# configures BUILD_DIR once as a Release build installing under /usr (no
# tests, no benchmarks), builds it and runs CPack's DEB generator. The
# packages land in BUILD_DIR/packages. JOBS sets the build's parallelism.
set -euo pipefail
source_dir=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${1:-build-package}
jobs=${JOBS:-$(nproc 2>/dev/null || echo 2)}

if [ ! -f "$build_dir/cmake_install.cmake" ]; then
    cmake -S "$source_dir" -B "$build_dir" \
        -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_INSTALL_PREFIX=/usr \
        -DORVIKM_BUILD_TESTS=OFF \
        -DCMAKE_DISABLE_FIND_PACKAGE_benchmark=ON
fi
cmake --build "$build_dir" -j "$jobs"
rm -f "$build_dir"/packages/*.deb
(cd "$build_dir" && cpack -G DEB -B "$PWD/packages")
echo "Debian packages:"
ls -1 "$build_dir"/packages/*.deb
