#!/usr/bin/env bash
# What the search for peaks costs beside maps of the whole image, over random settings:
#   bench/search_budget.sh [--settings N] [--seed S] [--table | --setting SEED] [--verbose]      (default: 220 settings)
# Cutoffs from -0.2 to 0.6, boxes from 8 pixels to a quarter of the side, bands from 0.05 to 0.5 cycles per pixel, steps from
# 0.9 to 30 degrees, hot pixels up to 10^5 standard deviations, constant borders, templates of noise and checkerboards. Prints
# settings that are known to be hard, and the worst ratios of time and differences of peak memory. Exit status 0 if no
# setting takes more than 1.3 times the time of maps or 64 MiB more, and all have the same peaks on 1, 2 and 3 threads.
set -eu
cd "$(dirname "$0")/.."
tools/install_packages.sh build test >/dev/null
cmake -S . -B build -DKESTRIX_BENCH=ON >/dev/null
cmake --build build -j "$(nproc)" --target kestrix_search_budget >/dev/null
exec build/bench/kestrix_search_budget "$@"
