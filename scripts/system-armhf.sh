#!/bin/bash
# Runs the armhf build's test suite on a real 32-bit ARM kernel: Debian's armmp-lpae kernel
# boots under qemu-system-arm (no network, no KVM) with an initramfs that holds busybox, the
# test programs, the tool, the armhf openssl binary and the libraries they need. Inside, the
# suite runs once per store file system (tmpfs, UBIFS on a simulated NAND, JFFS2 on the same
# NAND), then the power-cut program cuts power under a store workload on UBIFS.
#
#   sudo scripts/system-armhf.sh
#
# Builds through scripts/armhf.sh (same build directory, same fallbacks for the ARM
# libraries). Everything in the guest comes from the build or from Debian packages fetched
# with apt-get download. Every case prints "PASS name" or "FAIL name" on the console; the
# guest's init ends with one "kora-guest: result N" line, which is the verdict.
# Cases that cannot run in the guest are listed, with reasons, in .ci/system-armhf.exclude
# (on top of .ci/armhf.exclude).
#
# Environment: KORA_ARMHF_BUILD_DIR (default <repo>/build-armhf), KORA_JOBS,
#   KORA_GUEST_PASSES   store file systems to run the suite on (default "tmpfs ubifs jffs2")
#   KORA_GUEST_CUTS     power cuts on UBIFS (default 60; 0 leaves the power-cut run out)
#   KORA_GUEST_TIMEOUT  seconds before the guest is stopped and the run fails (default 1500)
# Exit status: 0 when every case and the power-cut run passed; 77 with one SKIPPED line when
# the packages cannot be had.
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD=${KORA_ARMHF_BUILD_DIR:-$ROOT/build-armhf}
GUEST=$BUILD-guest
PASSES=${KORA_GUEST_PASSES:-tmpfs ubifs jffs2}
CUTS=${KORA_GUEST_CUTS:-60}
TIMEOUT=${KORA_GUEST_TIMEOUT:-1500}
TRIPLE=arm-linux-gnueabihf

# Debian packages unpacked for the guest: kernel (resolved from the meta package), busybox,
# openssl, the UBI tools and the libraries of those last two that the build does not link.
GUEST_PACKAGES="busybox-static openssl mtd-utils libiniparser1 liblzo2-2 libzstd1 libuuid1 libselinux1
  libpcre2-8-0 zlib1g"
# Kernel modules loaded in the guest, in an order that meets each one's depends=; the
# compressors are the ones UBIFS asks the crypto layer for when it mounts.
GUEST_MODULES="nandsim ubi crc16 zstd_compress zstd deflate ubifs jffs2"

skip() {
  echo "################################################################"
  echo "system-armhf: SKIPPED ($1)"
  echo "################################################################"
  exit 77
}

if [ "$(id -u)" -ne 0 ]; then
  echo "system-armhf.sh: run as root: the tests make private mount namespaces" >&2
  exit 2
fi

"$ROOT/scripts/deps.sh" guest || skip "qemu-system-arm, cpio or jq cannot be installed"
# The build, its fallbacks and its checks are armhf.sh's; -N only lists the cases.
KORA_ARMHF_BUILD_DIR=$BUILD "$ROOT/scripts/armhf.sh" -N >/dev/null || {
  rc=$?
  [ "$rc" -eq 77 ] && skip "the armhf build cannot be made here"
  exit "$rc"
}
sysroot=$(sed -n 's/^KORA_ARMHF_SYSROOT:PATH=//p' "$BUILD/CMakeCache.txt")
emulator=$(sed -n 's/^KORA_QEMU_ARM:FILEPATH=//p' "$BUILD/CMakeCache.txt")

# Downloads and unpacks the guest's packages once per package list.
fetch_packages() {
  local want stamp=$GUEST/pkgroot/.packages kernel
  kernel=$(apt-cache depends "linux-image-armmp-lpae:armhf" 2>/dev/null |
    sed -n 's/^ *Depends: \(linux-image-[^ ]*\)$/\1/p' | head -n 1)
  [ -n "$kernel" ] || return 1
  want=$(echo "${kernel%:armhf} $GUEST_PACKAGES" | tr -s ' \n' ' ')
  if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$want" ]; then
    return 0
  fi
  rm -rf "$GUEST/debs" "$GUEST/pkgroot"
  mkdir -p "$GUEST/debs" "$GUEST/pkgroot"
  local pkgs=() p deb
  for p in $want; do pkgs+=("$p:armhf"); done
  if ! (cd "$GUEST/debs" && apt-get -q download "${pkgs[@]}" >"$GUEST/download.log" 2>&1); then
    tail -n 5 "$GUEST/download.log" >&2
    return 1
  fi
  for deb in "$GUEST"/debs/*.deb; do
    dpkg-deb -x "$deb" "$GUEST/pkgroot"
  done
  echo "$want" >"$stamp"
}
fetch_packages || skip "the guest's armhf packages cannot be downloaded; see $GUEST/download.log"

STAGE=$GUEST/root
rm -rf "$STAGE"
mkdir -p "$STAGE"/{bin,sbin,dev,etc,proc,sys,tmp,data,flash,kora/modules,lib/$TRIPLE}
# The users and groups a device has: root, and nobody for the cases that hand a file to
# another user.
printf 'root:x:0:0:root:/root:/bin/sh\nnobody:x:65534:65534:nobody:/nonexistent:/bin/false\n' >"$STAGE/etc/passwd"
printf 'root:x:0:\nnogroup:x:65534:\n' >"$STAGE/etc/group"

# Copies an ARM program or library to the same path in the guest, without debug sections.
put_elf() {
  mkdir -p "$STAGE$(dirname "$2")"
  "$TRIPLE-strip" --strip-debug -o "$STAGE$2" "$1"
}

# Library lookup: the build's own ARM libraries first, then the guest packages.
libroot=${sysroot:-}
LIBDIRS=("$libroot/lib/$TRIPLE" "$libroot/usr/lib/$TRIPLE" "$GUEST/pkgroot/lib/$TRIPLE"
  "$GUEST/pkgroot/usr/lib/$TRIPLE")
declare -A HAVE_LIB=()
add_libraries() {
  local lib dir
  for lib in $(readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
    [ -z "${HAVE_LIB[$lib]:-}" ] || continue
    HAVE_LIB[$lib]=1
    for dir in "${LIBDIRS[@]}"; do
      if [ -e "$dir/$lib" ]; then
        put_elf "$(readlink -f "$dir/$lib")" "/lib/$TRIPLE/$lib"
        add_libraries "$dir/$lib"
        continue 2
      fi
    done
    echo "system-armhf.sh: $lib (needed by $1) not found" >&2
    return 1
  done
}

# The build's programs keep their paths: the cases name them, and test_cli runs the tool at
# its built path through the emulator's path, which in the guest only executes its arguments.
while IFS= read -r prog; do
  put_elf "$prog" "$prog"
  add_libraries "$prog"
done < <(find "$BUILD/tests" "$BUILD/tools" -path '*/CMakeFiles' -prune -o -type f -perm -u+x -print |
  while read -r f; do [ "$(head -c 4 "$f" | od -An -tx1 | tr -d ' ')" = 7f454c46 ] && echo "$f"; done)
mkdir -p "$STAGE$(dirname "$emulator")"
printf '#!/bin/sh\nexec "$@"\n' >"$STAGE$emulator"
chmod 755 "$STAGE$emulator"
for prog in bin/busybox usr/bin/openssl usr/sbin/ubiattach usr/sbin/ubidetach usr/sbin/ubimkvol \
  usr/sbin/flash_erase; do
  put_elf "$GUEST/pkgroot/$prog" "/$prog"
  add_libraries "$GUEST/pkgroot/$prog"
done
put_elf "$(readlink -f "${libroot}/lib/ld-linux-armhf.so.3")" /lib/ld-linux-armhf.so.3
ln -s busybox "$STAGE/bin/sh"
# OpenSSL's legacy provider, which the cases with old PKCS#12 ciphers load.
for dir in "$libroot/usr/lib/$TRIPLE/ossl-modules" "$GUEST/pkgroot/usr/lib/$TRIPLE/ossl-modules"; do
  if [ -e "$dir/legacy.so" ]; then
    put_elf "$(readlink -f "$dir/legacy.so")" "/usr/lib/$TRIPLE/ossl-modules/legacy.so"
    add_libraries "$dir/legacy.so"
    break
  fi
done
# The openssl tool reads its configuration from its package's place (the key-form cases run it).
mkdir -p "$STAGE/etc/ssl" "$STAGE/usr/lib/ssl"
cp "$GUEST/pkgroot/etc/ssl/openssl.cnf" "$STAGE/etc/ssl/openssl.cnf"
ln -s /etc/ssl/openssl.cnf "$STAGE/usr/lib/ssl/openssl.cnf"
ln -s "$BUILD/tests/kora_power_cut" "$STAGE/kora/power_cut"
if [ -n "$libroot" ]; then
  # Programs built against the sysroot look for their loader and libraries under its path.
  mkdir -p "$STAGE$(dirname "$libroot")"
  ln -s / "$STAGE$libroot"
fi

# Kernel modules, in load order.
kver=$(basename "$(ls -d "$GUEST"/pkgroot/lib/modules/*)")
for mod in $GUEST_MODULES; do
  path=$(find "$GUEST/pkgroot/lib/modules/$kver" -name "$mod.ko" | head -n 1)
  [ -n "$path" ] || { echo "system-armhf.sh: module $mod not in the kernel package" >&2; exit 1; }
  cp "$path" "$STAGE/kora/modules/"
done
echo "$GUEST_MODULES" >"$STAGE/kora/modules/order"

# The cases: what ctest would run in the armhf build, minus both exclusion files, one shell
# line each: run_case NAME TIMEOUT WORKDIR [VAR=VALUE...] -- PROGRAM ARGS...
excluded=()
for list in "$ROOT/.ci/armhf.exclude" "$ROOT/.ci/system-armhf.exclude"; do
  text=$("$ROOT/.ci/ctest-exclusions" "$list" "$BUILD")
  [ -z "$text" ] || mapfile -t -O "${#excluded[@]}" excluded <<<"$text"
done
ctest --test-dir "$BUILD" --show-only=json-v1 "${excluded[@]}" >"$GUEST/cases.json"
jq -r --arg emu "$emulator" '.tests[] |
  (.properties // []) as $p |
  ([$p[] | select(.name == "TIMEOUT") | .value][0] // 600) as $t |
  ([$p[] | select(.name == "WORKING_DIRECTORY") | .value][0] // "/") as $wd |
  ([$p[] | select(.name == "ENVIRONMENT") | .value[]]) as $env |
  (if .command[0] == $emu then .command[1:] else .command end) as $cmd |
  (["run_case", .name, ($t | tostring), $wd] + $env + ["--"] + $cmd) | @sh' \
  "$GUEST/cases.json" >"$STAGE/kora/cases"
count=$(wc -l <"$STAGE/kora/cases")
[ "$count" -gt 0 ] || { echo "system-armhf.sh: no case to run" >&2; exit 1; }

cp "$ROOT/scripts/system-armhf-init.sh" "$STAGE/init"
chmod 755 "$STAGE/init"
(cd "$STAGE" && find . | cpio -o -H newc --owner=0:0 --quiet | gzip -1) >"$GUEST/initrd.gz"
echo "system-armhf: kernel $kver, $count cases, passes: $PASSES, power cuts: $CUTS," \
  "initramfs $(du -m "$GUEST/initrd.gz" | cut -f1) MiB"

start=$(date +%s)
rc=0
timeout --foreground "$TIMEOUT" qemu-system-arm -M virt -cpu cortex-a15 -smp 2 -m 1536 -nographic -nic none \
  -no-reboot -kernel "$GUEST/pkgroot/boot/vmlinuz-$kver" -initrd "$GUEST/initrd.gz" \
  -append "console=ttyAMA0 panic=-1 quiet kora.passes=${PASSES// /,} kora.cuts=$CUTS" \
  </dev/null | tee "$GUEST/console.log" || rc=$?
echo "system-armhf: guest ran $(($(date +%s) - start)) s (console in $GUEST/console.log)"
[ "$rc" -ne 124 ] || { echo "system-armhf: the guest did not finish within $TIMEOUT s" >&2; exit 1; }
verdict=$(tr -d '\r' <"$GUEST/console.log" | sed -n 's/^kora-guest: result \([0-9]*\)$/\1/p' | tail -n 1)
[ -n "$verdict" ] || { echo "system-armhf: the guest ended without a result line" >&2; exit 1; }
exit "$verdict"
