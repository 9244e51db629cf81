#!/bin/bash
# Installs what is missing, builds build/ in Debug with the tests and runs the whole suite.
# Needs root: every test case runs in a private mount namespace with a tmpfs store root.
#
#   sudo scripts/test.sh [ctest options...]      e.g. sudo scripts/test.sh -L storage
#
# Environment: as scripts/build.sh (KORA_BUILD_DIR, KORA_BUILD_TYPE, KORA_JOBS).
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD=${KORA_BUILD_DIR:-$ROOT/build}

if [ "$(id -u)" -ne 0 ]; then
  echo "test.sh: run as root (sudo scripts/test.sh): the tests make private mount namespaces" >&2
  exit 2
fi

"$ROOT/scripts/deps.sh" build interop
KORA_BUILD_DIR="$BUILD" "$ROOT/scripts/build.sh"
ctest --test-dir "$BUILD" --output-on-failure -j2 "$@"
