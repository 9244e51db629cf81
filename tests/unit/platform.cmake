# Host platform services, each tested against the real system: threads, processes, tmpfs.
foreach(service msg efs shell mutex km)
  kora_add_gtest(test_host_${service} SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_host_${service}.cpp
    LIBS kora_platform_host OpenSSL::Crypto LABELS platform)
  target_include_directories(test_host_${service} PRIVATE ${PROJECT_SOURCE_DIR}/platform/host)
endforeach()
