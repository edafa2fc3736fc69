#!/usr/bin/env bash
set -eu
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DKESTRIX_TESTS=OFF -DKESTRIX_BENCH=OFF \
  -DCMAKE_PREFIX_PATH="$PREFIX" -DCMAKE_INSTALL_PREFIX="$PREFIX" ${CMAKE_ARGS:-}
cmake --build build -j "${CPU_COUNT:-2}"
cmake --install build
