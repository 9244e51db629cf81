# Cross build for the 32-bit ARM target (Debian armhf) on a Debian 12 host:
#
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake
#
# Two ways to find the ARM libraries:
# - multiarch (default): the armhf -dev packages installed on the host itself
#   (dpkg --add-architecture armhf; scripts/deps.sh armhf), in /usr/lib/arm-linux-gnueabihf;
# - a private sysroot: KORA_ARMHF_SYSROOT (cache variable or environment) names a directory
#   holding the unpacked armhf packages (scripts/armhf.sh makes one when multiarch
#   packages cannot be installed, e.g. while the mirror's armhf index is out of sync).
#
# Programs that run at build or test time (test discovery, ctest) go through qemu-arm. In
# multiarch mode it is called plainly: the ARM loader and libraries are the multiarch
# packages. Passing "-L /usr/arm-linux-gnueabihf" there would pick the cross toolchain's own
# C library, which does not match libc6:armhf, and crash once a thread starts. With a
# sysroot, qemu-arm is called plainly too: "-L" would also redirect the programs' own look
# at "/" (the test root is built from the top-level entries it lists) into the sysroot.
# Instead the programs name the sysroot's loader as their interpreter and carry an RPATH
# (inherited by every library they load) into its library directories. time_t stays 32
# bits, as on the device.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(KORA_ARMHF_TRIPLE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${KORA_ARMHF_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${KORA_ARMHF_TRIPLE}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${KORA_ARMHF_TRIPLE})

if(NOT KORA_ARMHF_SYSROOT AND DEFINED ENV{KORA_ARMHF_SYSROOT})
  set(KORA_ARMHF_SYSROOT "$ENV{KORA_ARMHF_SYSROOT}")
endif()
set(KORA_ARMHF_SYSROOT "${KORA_ARMHF_SYSROOT}" CACHE PATH "Unpacked armhf packages (empty: multiarch)")
# try_compile projects read this file again and need the same choice.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KORA_ARMHF_SYSROOT)

find_program(KORA_QEMU_ARM qemu-arm REQUIRED)
# Adjustments that only running under emulation needs.
set(CMAKE_PROJECT_INCLUDE ${CMAKE_CURRENT_LIST_DIR}/armhf-emulation.cmake)

if(KORA_ARMHF_SYSROOT)
  set(CMAKE_SYSROOT ${KORA_ARMHF_SYSROOT})
  set(CMAKE_FIND_ROOT_PATH ${KORA_ARMHF_SYSROOT} /usr/${KORA_ARMHF_TRIPLE})
  # The host's pkg-config, answering from the sysroot's .pc files.
  set(ENV{PKG_CONFIG_SYSROOT_DIR} ${KORA_ARMHF_SYSROOT})
  set(ENV{PKG_CONFIG_LIBDIR}
      "${KORA_ARMHF_SYSROOT}/usr/lib/${KORA_ARMHF_TRIPLE}/pkgconfig:${KORA_ARMHF_SYSROOT}/usr/share/pkgconfig")
  set(PKG_CONFIG_EXECUTABLE pkg-config CACHE FILEPATH "pkg-config for armhf")
  set(KORA_ARMHF_LIBDIRS
      "${KORA_ARMHF_SYSROOT}/lib/${KORA_ARMHF_TRIPLE}:${KORA_ARMHF_SYSROOT}/usr/lib/${KORA_ARMHF_TRIPLE}")
  set(CMAKE_EXE_LINKER_FLAGS_INIT
      "-Wl,--dynamic-linker=${KORA_ARMHF_SYSROOT}/lib/ld-linux-armhf.so.3 -Wl,--disable-new-dtags -Wl,-rpath,${KORA_ARMHF_LIBDIRS}")
  set(CMAKE_CROSSCOMPILING_EMULATOR ${KORA_QEMU_ARM})
else()
  # Multiarch: the ARM libraries live in /usr/lib/arm-linux-gnueabihf of the host's own root.
  set(CMAKE_FIND_ROOT_PATH / /usr/${KORA_ARMHF_TRIPLE})
  # pkg-config that answers for the armhf .pc files (package pkgconf:armhf).
  set(PKG_CONFIG_EXECUTABLE ${KORA_ARMHF_TRIPLE}-pkg-config CACHE FILEPATH "pkg-config for armhf")
  set(CMAKE_CROSSCOMPILING_EMULATOR ${KORA_QEMU_ARM})
endif()

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
