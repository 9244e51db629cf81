# Included after project() in armhf cross builds (see toolchain-armhf.cmake).
#
# Under qemu-user on a 64-bit host, a 32-bit program's readdir() fails with EOVERFLOW on
# file systems that hand out 64-bit directory offsets (ext4's hashes): qemu cannot squeeze
# them into the 32-bit dirent. On the device, and on a 64-bit kernel's own 32-bit
# interface, the offsets fit. The test root lists the host's "/" to build the private
# namespace, so the test support library alone is built with large-file offsets here; the
# store and everything else keep the device's defaults.
cmake_language(DEFER CALL kora_armhf_emulation_fixups)

function(kora_armhf_emulation_fixups)
  if(TARGET kora_test_support)
    target_compile_definitions(kora_test_support PRIVATE _FILE_OFFSET_BITS=64)
  endif()
endfunction()
