#!/bin/sh
# shellcheck shell=dash
# The init of the ARM guest that scripts/system-armhf.sh boots (busybox sh, PID 1). Runs
# every case of /kora/cases once per store file system named by kora.passes= on the kernel
# command line (tmpfs, ubifs, jffs2), then, with kora.cuts=N > 0, the power-cut program on
# UBIFS. Prints "PASS name" / "FAIL name" per case, a summary per pass and, last,
# "kora-guest: result N" (0: all passed), then powers the guest off.
#
# The flash is a 128 MiB NAND simulated by nandsim (2 KiB pages, 128 KiB blocks). UBIFS lives
# on a UBI volume "data" over it; JFFS2 on the erased device itself.
export PATH=/bin:/sbin:/usr/bin:/usr/sbin
/bin/busybox --install -s /bin
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
# /tmp stays on the initramfs: a build made under /tmp keeps its programs there.
chmod 1777 /tmp
mount -t debugfs debugfs /sys/kernel/debug
ip link set lo up
param() { tr ' ' '\n' </proc/cmdline | sed -n "s/^kora\.$1=//p" | tr ',' ' '; }
PASSES=$(param passes)
CUTS=$(param cuts)
status=0

say() { echo "kora-guest: $*"; }

read -r modules </kora/modules/order
for mod in $modules; do
  args=
  [ "$mod" = nandsim ] && args="id_bytes=0xec,0xf1,0x00,0x15"
  # shellcheck disable=SC2086
  insmod "/kora/modules/$mod.ko" $args || { say "insmod $mod failed"; status=1; }
done

# flash_up FS [AT]: an empty file system of that kind mounted at AT (default /flash).
flash_up() {
  at=${2:-/flash}
  case $1 in
    ubifs)
      flash_erase -q /dev/mtd0 0 0 && ubiattach -m 0 >/dev/null && ubimkvol /dev/ubi0 -N data -m >/dev/null &&
        mount -t ubifs ubi0:data "$at"
      ;;
    jffs2) flash_erase -q -j /dev/mtd0 0 0 && mount -t jffs2 mtd0 "$at" ;;
  esac
}

# flash_down FS [AT]: unmounts it and detaches UBI.
flash_down() {
  case $1 in
    ubifs) umount "${2:-/flash}" && ubidetach -m 0 ;;
    jffs2) umount "${2:-/flash}" ;;
  esac
}

# run_case NAME TIMEOUT WORKDIR [VAR=VALUE...] -- PROGRAM ARGS...  (the lines of /kora/cases)
run_case() {
  name=$1
  (
    limit=$2 dir=$3
    shift 3
    while [ "$1" != -- ]; do
      export "${1?}"
      shift
    done
    shift
    mkdir -p "$dir" && cd "$dir" && exec timeout "$limit" "$@"
  ) >"$log" 2>&1
  rc=$?
  if [ "$rc" -eq 0 ]; then
    echo "PASS $name"
  else
    echo "FAIL $name (exit $rc)"
    tail -n 40 "$log"
    echo "$name" >>/tmp/failed
  fi
  [ -z "${KORA_TEST_STORE_MOUNT:-}" ] || rm -rf "$KORA_TEST_STORE_MOUNT"/store-*
}

# worker N: runs every other case (N = 0 or 1), on flash with its stores in a directory of its
# own under $store_mount.
worker() {
  log=/tmp/case.$1.log
  if [ -n "$store_mount" ]; then
    export KORA_TEST_STORE_MOUNT="$store_mount/worker$1"
    mkdir -p "$KORA_TEST_STORE_MOUNT"
  fi
  awk -v w="$1" 'NR % 2 == w' /kora/cases >"/tmp/cases.$1"
  while IFS= read -r line; do
    eval "$line"
  done <"/tmp/cases.$1"
}

for pass in $PASSES; do
  start=$(date +%s)
  : >/tmp/failed
  store_mount=
  if [ "$pass" != tmpfs ]; then
    if ! flash_up "$pass"; then
      say "pass $pass: the flash file system cannot be made"
      status=1
      continue
    fi
    store_mount=/flash
  fi
  say "pass $pass: stores on $(if [ "$pass" = tmpfs ]; then echo tmpfs; else grep ' /flash ' /proc/mounts; fi)"
  # Two workers, one per CPU.
  worker 0 &
  worker 1 &
  wait
  [ "$pass" = tmpfs ] || flash_down "$pass" || status=1
  failed=$(wc -l </tmp/failed)
  say "pass $pass: $(($(wc -l </kora/cases) - failed)) passed, $failed failed in $(($(date +%s) - start)) s"
  [ "$failed" -eq 0 ] || status=1
done

if [ "${CUTS:-0}" -gt 0 ]; then
  start=$(date +%s)
  if flash_up ubifs /data && umount /data; then
    # The store's own messages (refusals of torn files among them) go to a log, not the console.
    /kora/power_cut "$CUTS" 2>/tmp/power-cut.log || { tail -n 40 /tmp/power-cut.log; status=1; }
    ubidetach -m 0
  else
    say "power cut: UBIFS cannot be made"
    status=1
  fi
  say "power cut: $(($(date +%s) - start)) s"
fi

say "result $status"
sync
poweroff -f
