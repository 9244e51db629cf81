# Store foundation and encryption at rest. Programs that inject failures compile fakes in; their
# symbols take the place of the host archive's members.
foreach(area paths files)
  kora_add_gtest(test_ssl_store_${area} SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_ssl_store_${area}.cpp
    LIBS ${KORA_STORE_HOST_LIBS} LABELS foundation)
endforeach()
kora_add_gtest(test_ssl_store_init SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_ssl_store_init.cpp ${KORA_FAKES}/fake_km.cpp
  ${KORA_FAKES}/fake_shell.cpp ${KORA_FAKES}/fake_efs.cpp LIBS ${KORA_STORE_HOST_LIBS} LABELS foundation)
