# Cross build for the 32-bit ARM target (Debian armhf) on a Debian 12 host with multiarch
# armhf libraries (dpkg --add-architecture armhf; scripts/deps.sh armhf):
#
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake
#
# Programs that run at build or test time (test discovery, ctest) go through qemu-arm. It is
# called plainly: the ARM dynamic loader and libraries come from the multiarch packages.
# Passing "-L /usr/arm-linux-gnueabihf" would pick the cross toolchain's own C library, which
# does not match libc6:armhf, and crash once a thread starts. time_t stays 32 bits, as on the
# device.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(KORA_ARMHF_TRIPLE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${KORA_ARMHF_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${KORA_ARMHF_TRIPLE}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${KORA_ARMHF_TRIPLE})

# Multiarch: the ARM libraries live in /usr/lib/arm-linux-gnueabihf of the host's own root.
set(CMAKE_FIND_ROOT_PATH / /usr/${KORA_ARMHF_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config that answers for the armhf .pc files (package pkgconf:armhf).
set(PKG_CONFIG_EXECUTABLE ${KORA_ARMHF_TRIPLE}-pkg-config CACHE FILEPATH "pkg-config for armhf")

find_program(KORA_QEMU_ARM qemu-arm REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${KORA_QEMU_ARM})
