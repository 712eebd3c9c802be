#!/usr/bin/env bash
# Builds the fuzz targets (clang, libFuzzer, ASan+UBSan) and runs each one
# from its seed corpus for EXECUTIONS inputs (default 1,000,000). New inputs
# go to a scratch copy of the corpus, never into the source tree. Prints one
# line per target: executions, seconds and result.
#   scripts/fuzz.sh [EXECUTIONS]
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
kw_install_missing

runs=${1:-1000000}
dir=${KW_BUILD_ROOT:-build}/fuzz
CC=clang CXX=clang++ cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKW_FUZZ=ON >/dev/null
cmake --build "$dir" -j "${KW_JOBS:-$(nproc)}" --target fuzz_targets >/dev/null

scratch=$(mktemp -d "${TMPDIR:-/tmp}/kw-fuzz.XXXXXX")
trap 'rm -rf "$scratch"' EXIT
declare -A max_len=([peer_message]=64 [settings]=1024 [group_auth]=128 [group_keys]=1024)
status=0
for corpus in tests/fuzz/corpus/*/; do
  name=$(basename "$corpus")
  cp -r "$corpus" "$scratch/$name"
  started=$SECONDS
  if "$dir/tests/fuzz/${name}_fuzz" -runs="$runs" -max_len="${max_len[$name]:-4096}" -print_final_stats=1 \
      "$scratch/$name" >"$scratch/$name.log" 2>&1; then
    result=passed
  else
    result=FAILED
    status=1
    tail -n 40 "$scratch/$name.log"
  fi
  executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$scratch/$name.log")
  echo "${name}_fuzz: ${executions:-?} executions in $((SECONDS - started)) s, $result"
done
exit "$status"
