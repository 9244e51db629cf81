# Installs the three libraries, the public headers, a CMake package (find_package(KoraSslStore)
# gives kora::kora_ssl_store, kora::kora_ssl_util and kora::kora_platform_host) and a
# pkg-config file (kora-ssl-store.pc).
include(CMakePackageConfigHelpers)

set(KORA_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/kora)
set(KORA_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/KoraSslStore)

# The private header and log targets are linked as build-interface only: neither is installed
# nor named in the export.
install(TARGETS kora_ssl_store kora_ssl_util kora_platform_host
  EXPORT KoraSslStoreTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${KORA_INSTALL_INCLUDEDIR})

file(GLOB KORA_PUBLIC_HEADERS ${PROJECT_SOURCE_DIR}/porting_layer/inc/*.h
  ${PROJECT_SOURCE_DIR}/platform/host/include/*.h)
install(FILES ${KORA_PUBLIC_HEADERS} DESTINATION ${KORA_INSTALL_INCLUDEDIR})

install(EXPORT KoraSslStoreTargets NAMESPACE kora:: DESTINATION ${KORA_INSTALL_CMAKEDIR})

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/KoraSslStoreConfig.cmake.in
  ${PROJECT_BINARY_DIR}/KoraSslStoreConfig.cmake INSTALL_DESTINATION ${KORA_INSTALL_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/KoraSslStoreConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/KoraSslStoreConfig.cmake ${PROJECT_BINARY_DIR}/KoraSslStoreConfigVersion.cmake
  DESTINATION ${KORA_INSTALL_CMAKEDIR})

# The prefix is found relative to the .pc file, so `cmake --install --prefix DIR` works too.
file(RELATIVE_PATH KORA_PC_TO_PREFIX "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
configure_file(${CMAKE_CURRENT_LIST_DIR}/kora-ssl-store.pc.in ${PROJECT_BINARY_DIR}/kora-ssl-store.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kora-ssl-store.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
