#!/usr/bin/env bash
# Builds and runs the address-resolution benchmark (bench/: main.cpp, the
# shared harness.cpp and one file per scenario): our calls against a raw UDP
# client, glibc and c-ares, on one in-process loopback responder, with medians
# and ratios next to the goals, and the memory of a burst. The program isolates
# itself in a private network namespace (only loopback) before it does
# anything, and refuses to run when it cannot.
#
# Pinned to one CPU (client, workers and responder alike), so that runs on
# different machines and loads compare. Extra arguments go to the program
# (--quick, --only cold|hot|async|async-ours|breakdown|srv).
# VEK_BENCH_BUILD_DIR overrides the build directory (default: build/default).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

build_dir=${VEK_BENCH_BUILD_DIR:-build/default}
cmake --preset default -B "$build_dir" >/dev/null
cmake --build "$build_dir" --target resolve_bench -j2
exec taskset -c 0 "$build_dir/bench/resolve_bench" "$@"
