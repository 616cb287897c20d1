#!/bin/bash
# Builds the libFuzzer targets with clang and runs one of them over a scratch
# copy of its corpus, so that what it finds does not land in the tree.
#
#   scripts/fuzz.sh TARGET [RUNS]     e.g. scripts/fuzz.sh rpc_frame 10000000
#
# TARGET names fuzz/TARGET_fuzz.cpp and fuzz/corpus/TARGET/. A crash leaves
# its input as ./crash-* and the script fails.
set -euo pipefail
cd "$(dirname "$0")/.."

target=${1:?usage: scripts/fuzz.sh TARGET [RUNS]}
runs=${2:-1000000}
[ -f "fuzz/${target}_fuzz.cpp" ] || { echo "no fuzz/${target}_fuzz.cpp" >&2; exit 2; }

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz --target "${target}_fuzz"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp -r "fuzz/corpus/${target}/." "$work/"
"build/fuzz/fuzz/${target}_fuzz" -runs="$runs" -max_len=4096 -print_final_stats=1 "$work"
