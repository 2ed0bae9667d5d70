#!/usr/bin/env bash
# Builds and runs the address-resolution benchmark (bench/resolve_bench.cpp):
# our calls against a raw UDP client, glibc and c-ares, on one in-process
# loopback responder, with medians and ratios next to the goals. The program
# isolates itself in a private network namespace (only loopback) before it
# does anything, and refuses to run when it cannot.
#
# Pinned to one CPU (client, workers and responder alike), so that runs on
# different machines and loads compare. Extra arguments go to the program
# (--quick, --only cold|hot|async|async-ours|breakdown).
# VEK_BENCH_BUILD_DIR overrides the build directory (default: build/default).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

build_dir=${VEK_BENCH_BUILD_DIR:-build/default}
cmake --preset default -B "$build_dir" >/dev/null
cmake --build "$build_dir" --target resolve_bench -j2
exec taskset -c 0 "$build_dir/bench/resolve_bench" "$@"
