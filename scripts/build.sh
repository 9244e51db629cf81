#!/bin/bash
# Configures and builds the project with its tests.
#
#   scripts/build.sh [cmake options...]      e.g. scripts/build.sh -DKORA_BUILD_BENCH=ON
#
# Environment: KORA_BUILD_DIR (default <repo>/build), KORA_BUILD_TYPE (default Debug),
# KORA_JOBS (default: the number of processors).
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD=${KORA_BUILD_DIR:-$ROOT/build}
TYPE=${KORA_BUILD_TYPE:-Debug}
JOBS=${KORA_JOBS:-$(nproc)}

cmake -S "$ROOT" -B "$BUILD" -DCMAKE_BUILD_TYPE="$TYPE" -DKORA_BUILD_TESTS=ON "$@" >/dev/null
cmake --build "$BUILD" -j"$JOBS"
