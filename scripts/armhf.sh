#!/bin/bash
# Cross-builds the project for 32-bit ARM (armhf) and runs the whole test suite under
# qemu-arm user-mode emulation.
#
#   sudo scripts/armhf.sh [ctest options...]
#
# Environment: KORA_ARMHF_BUILD_DIR (default <repo>/build-armhf), KORA_JOBS.
# Exit status: the suite's; 77 with one "armhf: SKIPPED (reason)" line when the armhf
# packages cannot be installed on this machine (e.g. a mirror mid-sync for armhf).
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD=${KORA_ARMHF_BUILD_DIR:-$ROOT/build-armhf}
JOBS=${KORA_JOBS:-$(nproc)}

skip() {
  echo "################################################################"
  echo "armhf: SKIPPED ($1)"
  echo "################################################################"
  exit 77
}

if [ "$(id -u)" -ne 0 ]; then
  echo "armhf.sh: run as root: the tests make private mount namespaces" >&2
  exit 2
fi

rc=0
"$ROOT/scripts/deps.sh" build armhf || rc=$?
case $rc in
  0) ;;
  3) skip "the armhf packages cannot be installed now: the mirror's armhf index or versions do not match the host's; see /tmp/kora-deps-install.log" ;;
  *) exit "$rc" ;;
esac

cmake -S "$ROOT" -B "$BUILD" -DCMAKE_TOOLCHAIN_FILE="$ROOT/cmake/toolchain-armhf.cmake" \
  -DCMAKE_BUILD_TYPE=Debug -DKORA_BUILD_TESTS=ON >/dev/null
cmake --build "$BUILD" -j"$JOBS"

# The programs must really be 32-bit ARM, or the run below proves nothing.
probe=$(find "$BUILD/tests" -maxdepth 1 -type f -name 'test_*' -perm -u+x | head -n 1)
if [ -z "$probe" ]; then
  echo "armhf.sh: no test program was built" >&2
  exit 1
fi
machine=$(readelf -h "$probe" | sed -n 's/^ *Machine: *//p')
class=$(readelf -h "$probe" | sed -n 's/^ *Class: *//p')
echo "armhf: test programs are $class $machine"
if [ "$machine" != "ARM" ] || [ "$class" != "ELF32" ]; then
  echo "armhf.sh: $probe is not a 32-bit ARM program" >&2
  exit 1
fi

ctest --test-dir "$BUILD" --output-on-failure -j2 --timeout 600 "$@"
