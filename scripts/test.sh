#!/usr/bin/env bash
# Builds and runs every test: the default build, then AddressSanitizer +
# UndefinedBehaviorSanitizer, then ThreadSanitizer.
# Every test process isolates itself in its own network namespace.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

run() {
  local preset=$1; shift
  echo "== ${preset} =="
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  ctest --preset "$preset" "$@"
}

run default
run asan
run tsan
