#!/usr/bin/env bash
# Builds the masking fuzz target and runs it for the given number of seconds
# from the seed corpus in fuzz/corpus/mask/.
#
# usage: run_mask_fuzz.sh <seconds> [build-dir]
# Without a build dir a temporary one is used and removed afterwards. Exits
# non-zero when the fuzzer finds a fault (the input is kept in the build dir
# as crash-*, leak-*, timeout-* or oom-*) or when the build fails.
set -euo pipefail

seconds=${1:?usage: run_mask_fuzz.sh <seconds> [build-dir]}
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cxx=${VEK_FUZZ_CXX:-clang++}

if [[ $# -ge 2 ]]; then
    build=$2
    mkdir -p "$build"
    keep=1
else
    build=$(mktemp -d)
    keep=0
fi
cleanup() { if [[ $keep == 0 && $status == 0 ]]; then rm -rf "$build"; fi; }
status=1
trap cleanup EXIT

sources=("$root"/fuzz/mask_fuzz.cpp "$root"/src/mask/*.cpp "$root"/src/os_adapter/*.cpp
         "$root"/src/base/secure.cpp)
echo "mask fuzz: building in $build"
"$cxx" -std=c++20 -g -O1 -fno-omit-frame-pointer \
    -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=undefined \
    -I"$root/include" -I"$root/src" -DVEK_DNS_BUILDING -DVEK_OS_ADAPTER_BUILDING \
    "${sources[@]}" -o "$build/mask_fuzz"

# Work on a copy of the seeds: new inputs found in the run stay in the build dir.
corpus=$build/corpus
mkdir -p "$corpus"
cp "$root"/fuzz/corpus/mask/* "$corpus"/

log=$build/mask_fuzz.log
set +e
"$build/mask_fuzz" -max_total_time="$seconds" -max_len=1024 -timeout=10 -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="$build/" "$corpus" >"$log" 2>&1
rc=$?
set -e

runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
if [[ $rc -ne 0 ]]; then
    tail -n 60 "$log"
    echo "mask fuzz: FAILED (exit $rc) after ${runs:-?} executions; artifacts in $build"
    keep=1
    exit "$rc"
fi
echo "mask fuzz: ${runs:-?} executions in $seconds s, no finding"
status=0
