#!/bin/sh
# Builds the fuzz targets with clang (libFuzzer, ASan, UBSan) and runs each for a bounded
# time, then prints its executions and corpus size.
# Usage: fuzz/run.sh [seconds]   (default 60, per target)
# KORA_FUZZ_BUILD_DIR overrides the build directory (default <repo>/build-fuzz),
# KORA_FUZZ_CORPUS_DIR the root of the working corpora (default <repo>/fuzz/corpus-run).
set -eu

seconds=${1:-60}
root=$(cd "$(dirname "$0")/.." && pwd)
build=${KORA_FUZZ_BUILD_DIR:-$root/build-fuzz}
flags="-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer"

CC=clang CXX=clang++ cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DKORA_BUILD_FUZZ=ON -DKORA_BUILD_TESTS=OFF -DKORA_BUILD_TOOLS=OFF \
  -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" >/dev/null

# Each target with the seed directory under fuzz/corpus/ that it starts from.
targets="fuzz_psk_parser:psk fuzz_der_pem:der_pem"

status=0
for entry in $targets; do
  target=${entry%%:*}
  seeds_dir=$root/fuzz/corpus/${entry#*:}
  cmake --build "$build" -j2 --target "$target" >/dev/null
  # New inputs go to a working corpus (not checked in); the seeds stay as they are.
  corpus=${KORA_FUZZ_CORPUS_DIR:-$root/fuzz/corpus-run}/${entry#*:}
  mkdir -p "$corpus"
  log=$build/$target.log
  result=0
  "$build/fuzz/$target" -max_total_time="$seconds" -print_final_stats=1 -max_len=4096 \
    -artifact_prefix="$build/$target-" "$corpus" "$seeds_dir" >"$log" 2>&1 || result=$?

  executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  files=$(find "$corpus" -type f | wc -l)
  seeds=$(find "$seeds_dir" -type f | wc -l)
  echo "$target: ${executions:-?} executions in ${seconds} s"
  echo "corpus: $files new files in $corpus, $seeds seed files"
  if [ "$result" -ne 0 ]; then
    tail -n 40 "$log"
    echo "$target failed (exit $result); see $log" >&2
    status=$result
  fi
done
exit "$status"
