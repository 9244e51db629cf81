# Host platform services, each tested against the real system: threads, processes, tmpfs.
foreach(service services km)
  kora_add_gtest(test_host_${service} SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_host_${service}.cpp
    LIBS kora_platform_host OpenSSL::Crypto LABELS platform)
  target_include_directories(test_host_${service} PRIVATE ${PROJECT_SOURCE_DIR}/platform/host)
endforeach()
# The key service's PKCS#11 backend on a private SoftHSM2 token: the same source, built with
# the token's cases, and a module in front of SoftHSM2 that misbehaves on demand.
if(KORA_SOFTHSM2_MODULE)
  add_library(kora_fake_pkcs11 MODULE ${KORA_FAKES}/fake_pkcs11_module.cpp)
  target_compile_definitions(kora_fake_pkcs11 PRIVATE KORA_SOFTHSM2_MODULE="${KORA_SOFTHSM2_MODULE}")
  target_link_libraries(kora_fake_pkcs11 PRIVATE PkgConfig::P11KIT ${CMAKE_DL_LIBS})
  kora_warnings(kora_fake_pkcs11)
  kora_add_gtest(test_host_km_token SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_host_km.cpp
    ${PROJECT_SOURCE_DIR}/tests/token/softhsm_token.cpp
    LIBS kora_platform_host OpenSSL::Crypto LABELS token PREFIX token.)
  target_include_directories(test_host_km_token PRIVATE ${PROJECT_SOURCE_DIR}/platform/host
    ${PROJECT_SOURCE_DIR}/tests/token)
  target_compile_definitions(test_host_km_token PRIVATE KORA_KM_TOKEN_TESTS
    KORA_SOFTHSM2_MODULE="${KORA_SOFTHSM2_MODULE}" KORA_FAKE_PKCS11="$<TARGET_FILE:kora_fake_pkcs11>")
  add_dependencies(test_host_km_token kora_fake_pkcs11)
endif()
