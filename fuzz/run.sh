#!/bin/sh
# Builds the PSK parser fuzz target with clang (libFuzzer, ASan, UBSan) and runs it for a
# bounded time, then prints the executions and the corpus size.
# Usage: fuzz/run.sh [seconds]   (default 60)
# KORA_FUZZ_BUILD_DIR overrides the build directory (default <repo>/build-fuzz),
# KORA_FUZZ_CORPUS_DIR the working corpus (default <repo>/fuzz/corpus-run/psk).
set -eu

seconds=${1:-60}
root=$(cd "$(dirname "$0")/.." && pwd)
build=${KORA_FUZZ_BUILD_DIR:-$root/build-fuzz}
flags="-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer"

CC=clang CXX=clang++ cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DKORA_BUILD_FUZZ=ON -DKORA_BUILD_TESTS=OFF -DKORA_BUILD_TOOLS=OFF \
  -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" >/dev/null
cmake --build "$build" -j2 --target fuzz_psk_parser >/dev/null

# New inputs go to a working corpus (not checked in); the seeds in fuzz/corpus/psk stay as they are.
corpus=${KORA_FUZZ_CORPUS_DIR:-$root/fuzz/corpus-run/psk}
mkdir -p "$corpus"
log=$build/fuzz_psk_parser.log
status=0
"$build/fuzz/fuzz_psk_parser" -max_total_time="$seconds" -print_final_stats=1 -max_len=4096 \
  -artifact_prefix="$build/" "$corpus" "$root/fuzz/corpus/psk" >"$log" 2>&1 || status=$?

executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
files=$(find "$corpus" -type f | wc -l)
seeds=$(find "$root/fuzz/corpus/psk" -type f | wc -l)
echo "fuzz_psk_parser: ${executions:-?} executions in ${seconds} s"
echo "corpus: $files new files in $corpus, $seeds seed files"
if [ "$status" -ne 0 ]; then
  tail -n 40 "$log"
  echo "fuzz_psk_parser failed (exit $status); see $log" >&2
fi
exit "$status"
