#!/bin/sh
# Builds the fuzz targets with clang (libFuzzer, ASan, UBSan) and runs each for a bounded
# time, then prints its executions and corpus size:
#   fuzz_psk_parser  the PSK text parser (seeds in fuzz/corpus/psk)
#   fuzz_km_unseal   the host key service's unseal (seeds in fuzz/corpus/km)
#   fuzz_der_pem     the DER/PEM classifier with the certificate and key decoders
#                    (seeds in fuzz/corpus/der_pem)
# Usage: fuzz/run.sh [seconds per target]   (default 60)
# KORA_FUZZ_BUILD_DIR overrides the build directory (default <repo>/build-fuzz),
# KORA_FUZZ_CORPUS_DIR the working corpora (default <repo>/fuzz/corpus-run; one directory per
# target below it).
set -eu

seconds=${1:-60}
root=$(cd "$(dirname "$0")/.." && pwd)
build=${KORA_FUZZ_BUILD_DIR:-$root/build-fuzz}
corpora=${KORA_FUZZ_CORPUS_DIR:-$root/fuzz/corpus-run}
flags="-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer"

CC=clang CXX=clang++ cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DKORA_BUILD_FUZZ=ON -DKORA_BUILD_TESTS=OFF -DKORA_BUILD_TOOLS=OFF \
  -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" >/dev/null
cmake --build "$build" -j2 --target fuzz_psk_parser fuzz_km_unseal fuzz_der_pem >/dev/null

status=0
for spec in fuzz_psk_parser:psk:4096 fuzz_km_unseal:km:8192 fuzz_der_pem:der_pem:4096; do
  target=${spec%%:*}
  rest=${spec#*:}
  seeds=$root/fuzz/corpus/${rest%%:*}
  max_len=${rest#*:}
  # New inputs go to a working corpus (not checked in); the seeds stay as they are.
  corpus=$corpora/${rest%%:*}
  mkdir -p "$corpus"
  log=$build/$target.log
  target_status=0
  "$build/fuzz/$target" -max_total_time="$seconds" -print_final_stats=1 -max_len="$max_len" \
    -artifact_prefix="$build/$target-" "$corpus" "$seeds" >"$log" 2>&1 || target_status=$?
  executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  echo "$target: ${executions:-?} executions in ${seconds} s"
  echo "corpus: $(find "$corpus" -type f | wc -l) new files in $corpus, $(find "$seeds" -type f | wc -l) seed files"
  if [ "$target_status" -ne 0 ]; then
    tail -n 40 "$log"
    echo "$target failed (exit $target_status); see $log" >&2
    status=$target_status
  fi
done
exit "$status"
