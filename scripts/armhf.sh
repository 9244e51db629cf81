#!/bin/bash
# Cross-builds the project for 32-bit ARM (armhf) and runs the whole test suite under
# qemu-arm user-mode emulation.
#
#   sudo scripts/armhf.sh [ctest options...]
#
# The ARM libraries come from dpkg multiarch packages (scripts/deps.sh armhf). When those
# cannot be installed (a mirror mid-sync for one architecture makes the two architectures'
# versions differ), the same packages are downloaded and unpacked into a private sysroot,
# <build>-sysroot, which touches nothing on the host.
#
# Environment: KORA_ARMHF_BUILD_DIR (default <repo>/build-armhf), KORA_JOBS,
# KORA_ARMHF_MODE=multiarch|sysroot to force one way.
# Exit status: the suite's; 77 with one "armhf: SKIPPED (reason)" line when neither way can
# provide the packages.
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD=${KORA_ARMHF_BUILD_DIR:-$ROOT/build-armhf}
SYSROOT=$BUILD-sysroot
JOBS=${KORA_JOBS:-$(nproc)}
MODE=${KORA_ARMHF_MODE:-}

# What the sysroot holds: the libraries the project links and everything they need at run
# time, the C library included.
SYSROOT_PACKAGES="libc6 libc6-dev linux-libc-dev libcrypt1 libcrypt-dev libgcc-s1 libstdc++6 gcc-12-base
  libssl3 libssl-dev libglib2.0-0 libglib2.0-dev libjson-glib-1.0-0 libjson-glib-dev libpcre2-8-0 libpcre2-16-0 libpcre2-32-0 libpcre2-posix3
  libpcre2-dev libffi8 libffi-dev libmount1 libmount-dev libblkid1 libblkid-dev libselinux1 libselinux1-dev
  libsepol2 libsepol-dev zlib1g zlib1g-dev libuuid1 uuid-dev libgtest-dev libgmock-dev libp11-kit0 libp11-kit-dev"

skip() {
  echo "################################################################"
  echo "armhf: SKIPPED ($1)"
  echo "################################################################"
  exit 77
}

make_sysroot() {
  local stamp=$SYSROOT/.packages want
  want=$(echo "$SYSROOT_PACKAGES" | tr -s ' \n' ' ')
  if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$want" ]; then
    return 0
  fi
  rm -rf "$SYSROOT"
  mkdir -p "$SYSROOT/debs" "$SYSROOT/root"
  local pkgs=()
  for p in $want; do pkgs+=("$p:armhf"); done
  # apt-get download writes as the _apt user where it can; the directory is root's.
  if ! (cd "$SYSROOT/debs" && apt-get -q download "${pkgs[@]}" >"$SYSROOT/download.log" 2>&1); then
    tail -n 5 "$SYSROOT/download.log" >&2
    return 1
  fi
  local deb
  for deb in "$SYSROOT"/debs/*.deb; do
    dpkg-deb -x "$deb" "$SYSROOT/root"
  done
  echo "$want" >"$stamp"
}

if [ "$(id -u)" -ne 0 ]; then
  echo "armhf.sh: run as root: the tests make private mount namespaces" >&2
  exit 2
fi

"$ROOT/scripts/deps.sh" build cross interop || skip "the cross compiler or qemu-user cannot be installed"

sysroot_arg=()
if [ "$MODE" != sysroot ]; then
  rc=0
  "$ROOT/scripts/deps.sh" armhf || rc=$?
  case $rc in
    0) MODE=multiarch ;;
    3)
      [ "$MODE" = multiarch ] && skip "the armhf multiarch packages cannot be installed now; see /tmp/kora-deps-install.log"
      echo "armhf: the multiarch packages cannot be installed now (see /tmp/kora-deps-install.log);" \
        "using a private sysroot in $SYSROOT"
      MODE=sysroot
      ;;
    *) exit "$rc" ;;
  esac
fi
if [ "$MODE" = sysroot ]; then
  if ! dpkg --print-foreign-architectures | grep -qx armhf; then
    dpkg --add-architecture armhf
    apt-get -q update >/dev/null 2>&1 || true
  fi
  make_sysroot || skip "the armhf packages cannot be downloaded for a sysroot either; see $SYSROOT/download.log"
  sysroot_arg=(-DKORA_ARMHF_SYSROOT="$SYSROOT/root")
else
  sysroot_arg=(-DKORA_ARMHF_SYSROOT=)
fi
echo "armhf: ARM libraries from $MODE"

cmake -S "$ROOT" -B "$BUILD" -DCMAKE_TOOLCHAIN_FILE="$ROOT/cmake/toolchain-armhf.cmake" \
  -DCMAKE_BUILD_TYPE=Debug -DKORA_BUILD_TESTS=ON "${sysroot_arg[@]}" >/dev/null
cmake --build "$BUILD" -j"$JOBS"

# The programs must really be 32-bit ARM, or the run below proves nothing.
probe=$(find "$BUILD/tests" -maxdepth 1 -type f -name 'test_*' -perm -u+x | head -n 1)
if [ -z "$probe" ]; then
  echo "armhf.sh: no test program was built" >&2
  exit 1
fi
header=$(readelf -h "$probe")
machine=$(sed -n 's/^ *Machine: *//p' <<<"$header")
class=$(sed -n 's/^ *Class: *//p' <<<"$header")
echo "armhf: test programs are $class $machine"
if [ "$machine" != "ARM" ] || [ "$class" != "ELF32" ]; then
  echo "armhf.sh: $probe is not a 32-bit ARM program" >&2
  exit 1
fi

# What cannot run under user-mode emulation on this machine is listed, with reasons, in
# .ci/armhf.exclude.
excluded_args=$("$ROOT/.ci/ctest-exclusions" "$ROOT/.ci/armhf.exclude" "$BUILD")
excluded=()
if [ -n "$excluded_args" ]; then
  mapfile -t excluded <<<"$excluded_args"
fi
ctest --test-dir "$BUILD" --output-on-failure -j2 --timeout 600 "${excluded[@]}" "$@"
