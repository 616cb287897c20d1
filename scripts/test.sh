#!/usr/bin/env bash
# Configures, builds and runs the test suite.
#
#   scripts/test.sh               normal build (RelWithDebInfo) and all tests
#   scripts/test.sh asan          ASan+UBSan build and all tests
#   scripts/test.sh tsan          TSan build and all tests
#   scripts/test.sh all           the three in turn
#
# The normal build also runs the compile-only lock-annotation check.
#
# Extra arguments after the preset go to ctest (for example -R logger).
set -euo pipefail
cd "$(dirname "$0")/.."

presets=("${1:-default}")
shift || true
if [ "${presets[0]}" = all ]; then presets=(default asan tsan); fi

jobs=$(nproc)
# ccache hits across checkouts in other directories (a CI clone, a second
# work tree): paths below the checkout count as relative, and the working
# directory stays out of the hash.
export CCACHE_BASEDIR="$PWD" CCACHE_NOHASHDIR=true
for preset in "${presets[@]}"; do
  echo "== $preset: configure"
  cmake --preset "$preset" >/dev/null
  echo "== $preset: build"
  cmake --build --preset "$preset" -j "$jobs"
  if [ "$preset" = default ]; then
    echo "== $preset: lock annotations (clang -Wthread-safety, syntax only)"
    bash scripts/check_thread_safety.sh "build/$preset"
  fi
  echo "== $preset: test"
  ctest --preset "$preset" -j "$jobs" "$@"
done
