#!/bin/bash
# Installs the Debian 12 packages that the build, the tests and the CI stages need, and only
# those that are missing. Quiet when everything is there already; safe to run again.
#
#   scripts/deps.sh [SET...]
#
# Sets (default: build):
#   build     compiler, CMake, OpenSSL, GLib, json-glib, p11-kit, GoogleTest/GoogleMock, the openssl tool,
#             SoftHSM2 (the token the key service's PKCS#11 backend is tested on)
#   analysis  clang-format, clang-tidy, cppcheck
#   valgrind  valgrind
#   fuzz      clang (libFuzzer and the sanitizers)
#   bench     Google Benchmark
#   interop   the TLS peers the interop tests run: GnuTLS tools, an MQTT broker, a TLS
#             tunnel, curl
#   cross     the 32-bit ARM cross compiler and qemu-user (host packages)
#   guest     qemu-system-arm, cpio and jq for the ARM guest (scripts/system-armhf.sh)
#   armhf     the armhf development libraries, through dpkg multiarch (adds the armhf
#             architecture to dpkg when it is not there)
#   all       every set above except cross and armhf
#
# Exit status: 0 when every requested package is installed; 2 on a usage error; 3 when the
# armhf set cannot be installed (mirror out of sync, versions that differ between the two
# architectures); 1 on any other failure.
set -euo pipefail

usage() {
  sed -n '2,/^set -euo/p' "$0" | grep '^#' | sed 's/^# \{0,1\}//'
}

declare -A SETS=(
  [build]="cmake make g++ pkgconf libssl-dev openssl libglib2.0-dev libjson-glib-dev libp11-kit-dev p11-kit softhsm2 libgtest-dev libgmock-dev googletest"
  [analysis]="clang-format clang-tidy cppcheck"
  [valgrind]="valgrind"
  [fuzz]="clang"
  [bench]="libbenchmark-dev"
  [interop]="gnutls-bin mosquitto stunnel4 curl"
  [cross]="gcc-arm-linux-gnueabihf g++-arm-linux-gnueabihf qemu-user binutils-arm-linux-gnueabihf"
  [guest]="qemu-system-arm cpio jq"
  [armhf]="libssl-dev:armhf libglib2.0-dev:armhf libjson-glib-dev:armhf libp11-kit-dev:armhf libgtest-dev:armhf libgmock-dev:armhf libstdc++6:armhf pkgconf:armhf"
)

requested=()
for arg in "${@:-build}"; do
  case "$arg" in
    -h | --help) usage; exit 0 ;;
    all) requested+=(build analysis valgrind fuzz bench interop) ;;
    build | analysis | valgrind | fuzz | bench | interop | cross | guest | armhf) requested+=("$arg") ;;
    *) echo "deps.sh: unknown set '$arg'" >&2; usage >&2; exit 2 ;;
  esac
done

is_installed() {
  [ "$(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null)" = "installed" ]
}

# The armhf set is installed on its own, so that a mirror out of sync for armhf never keeps
# the host packages from being installed.
missing=()
missing_armhf=()
for set in "${requested[@]}"; do
  for pkg in ${SETS[$set]}; do
    if is_installed "$pkg"; then
      continue
    fi
    if [ "$set" = armhf ]; then
      missing_armhf+=("$pkg")
    else
      missing+=("$pkg")
    fi
  done
done
[ ${#missing[@]} -eq 0 ] && [ ${#missing_armhf[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
  echo "deps.sh: missing packages (${missing[*]} ${missing_armhf[*]}); run as root to install them" >&2
  exit 1
fi

export DEBIAN_FRONTEND=noninteractive
# Another apt run on the machine holds the dpkg lock: wait for it rather than failing.
APT=(apt-get -q -y -o DPkg::Lock::Timeout=900 -o Dpkg::Use-Pty=0)

if [ ${#missing_armhf[@]} -gt 0 ] && ! dpkg --print-foreign-architectures | grep -qx armhf; then
  dpkg --add-architecture armhf
fi

# apt-get update fails as a whole when one index of one architecture is mid-sync on the
# mirror; it is retried a few times, and what it could fetch is used either way.
update_indexes() {
  local attempt
  for attempt in 1 2 3; do
    if "${APT[@]}" update >/tmp/kora-deps-update.log 2>&1; then
      return 0
    fi
    [ "$attempt" -lt 3 ] || break
    echo "deps.sh: apt-get update failed (attempt $attempt of 3); retrying" >&2
    sleep $((attempt * 5))
  done
  grep -E '^(E|W):' /tmp/kora-deps-update.log | head -n 5 >&2 || true
  return 1
}

install_packages() {
  "${APT[@]}" install --no-install-recommends "$@" >/tmp/kora-deps-install.log 2>&1
}

# Installs the given packages, trying once more after a fresh update when the first attempt
# fails: a mirror that was mid-sync may have caught up.
install_with_retry() {
  if install_packages "$@"; then
    return 0
  fi
  sleep 10
  update_indexes || true
  if install_packages "$@"; then
    return 0
  fi
  grep -E '^( |E:)' /tmp/kora-deps-install.log | head -n 12 >&2 || true
  return 1
}

echo "deps.sh: installing ${missing[*]} ${missing_armhf[*]}"
update_indexes || echo "deps.sh: continuing with the package indexes apt has" >&2
if [ ${#missing[@]} -gt 0 ] && ! install_with_retry "${missing[@]}"; then
  echo "deps.sh: installation failed (see /tmp/kora-deps-install.log)" >&2
  exit 1
fi
if [ ${#missing_armhf[@]} -gt 0 ] && ! install_with_retry "${missing_armhf[@]}"; then
  echo "deps.sh: the armhf packages cannot be installed now (see /tmp/kora-deps-install.log)" >&2
  exit 3
fi
exit 0
