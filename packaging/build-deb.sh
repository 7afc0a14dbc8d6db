#!/usr/bin/env bash
# Builds the Debian package into build-deb/ and prints its path.
set -euo pipefail
cd "$(dirname "$0")/.."
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
# The same build type as the development tree, so a compiler cache serves most of it; the
# programs are stripped when packed.
cmake -S . -B build-deb -G Ninja "${launcher[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_INSTALL_PREFIX=/usr -DHM_SYSTEMD_UNIT_DIR=/lib/systemd/system \
    -DHM_BUILD_TESTS=OFF -DHM_BUILD_BENCHMARKS=OFF -DHM_PACKAGE_BUILD=ON >/dev/null
cmake --build build-deb -j "$(nproc)" >&2
(cd build-deb && cpack -G DEB >&2)
ls "$PWD"/build-deb/hollowmere_*.deb
