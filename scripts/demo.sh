#!/bin/bash
# Installs what is missing, builds build/ and runs the command-line tool's demo.
#
#   sudo scripts/demo.sh
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD=${KORA_BUILD_DIR:-$ROOT/build}

if [ "$(id -u)" -ne 0 ]; then
  echo "demo.sh: run as root (sudo scripts/demo.sh): the store lives under /data" >&2
  exit 2
fi

"$ROOT/scripts/deps.sh" build
KORA_BUILD_DIR="$BUILD" "$ROOT/scripts/build.sh"
exec "$BUILD/tools/kora-ssl-store" demo
