#!/usr/bin/env bash
# Builds the libFuzzer targets (fuzz/<name>_fuzz.cpp) with clang and runs each
# for the given number of seconds from a copy of its seed corpus.
#
# usage: scripts/fuzz.sh SECONDS [name...]     (no names: every target)
# Environment: VEK_FUZZ_CXX (default clang++), VEK_FUZZ_BUILD (default build/fuzz).
# Exits non-zero on a finding; the input is kept in the build dir as
# <name>-crash-*, -leak-*, -timeout-* or -oom-*. Targets that touch files enter
# the test sandbox themselves, so nothing here reaches the host's files or network.
set -euo pipefail

seconds=${1:?usage: scripts/fuzz.sh SECONDS [name...]}
shift
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cxx=${VEK_FUZZ_CXX:-clang++}
build=${VEK_FUZZ_BUILD:-$root/build/fuzz}
mkdir -p "$build/obj"
names=("$@")
if [[ ${#names[@]} -eq 0 ]]; then
    for f in "$root"/fuzz/*_fuzz.cpp; do
        n=$(basename "$f" _fuzz.cpp)
        names+=("$n")
    done
fi

flags=(-std=c++20 -g -O1 -fno-omit-frame-pointer -fsanitize=address,undefined -fno-sanitize-recover=undefined
       -I"$root/include" -I"$root/src" -I"$root/tests" -DVEK_DNS_BUILDING -DVEK_OS_ADAPTER_BUILDING)

# The library, the adapter and the sandbox, instrumented, rebuilt when any of
# their sources is newer than the archive. One builder at a time.
exec 9>"$build/.lock"
flock 9
lib=$build/libvek_fuzz.a
sources=("$root"/src/*/*.cpp "$root"/tests/support/sandbox.cpp)
if [[ ! -f $lib ]] || [[ -n $(find "$root/src" "$root/include" "$root/tests/support" -newer "$lib" -print -quit) ]]; then
    echo "fuzz: building the instrumented library in $build"
    rm -f "$build"/obj/*.o
    compile() { "$cxx" "${flags[@]}" -fsanitize=fuzzer-no-link -c "$1" -o "$build/obj/$(echo "${1#"$root"/}" | tr / _).o"; }
    running=0
    for s in "${sources[@]}"; do
        compile "$s" &
        if (( ++running >= 2 )); then wait -n; running=$((running - 1)); fi
    done
    while (( running > 0 )); do wait -n; running=$((running - 1)); done
    ar rcs "$lib" "$build"/obj/*.o
fi
for n in "${names[@]}"; do
    if [[ ! -x $build/$n || "$root/fuzz/${n}_fuzz.cpp" -nt $build/$n || $lib -nt $build/$n ]]; then
        "$cxx" "${flags[@]}" -fsanitize=fuzzer "$root/fuzz/${n}_fuzz.cpp" "$lib" -lpthread -o "$build/$n"
    fi
done
flock -u 9

status=0
for n in "${names[@]}"; do
    corpus=$build/corpus/$n
    mkdir -p "$corpus"
    cp "$root/fuzz/corpus/$n"/* "$corpus"/
    log=$build/$n.log
    set +e
    "$build/$n" -max_total_time="$seconds" -max_len=4096 -timeout=10 -rss_limit_mb=2048 \
        -print_final_stats=1 -artifact_prefix="$build/$n-" "$corpus" >"$log" 2>&1
    rc=$?
    set -e
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
    if [[ $rc -ne 0 ]]; then
        tail -n 40 "$log"
        echo "fuzz $n: FAILED (exit $rc) after ${runs:-?} executions; artifacts in $build"
        status=1
    else
        echo "fuzz $n: ${runs:-?} executions in $seconds s, no finding"
    fi
done
exit $status
