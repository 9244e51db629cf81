# Store foundation and encryption at rest. Programs that inject failures compile fakes in; their
# symbols take the place of the host archive's members.
kora_add_gtest(test_ssl_store_files SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_ssl_store_files.cpp
  LIBS ${KORA_STORE_HOST_LIBS} LABELS foundation)
kora_add_gtest(test_ssl_store_init SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_ssl_store_init.cpp ${KORA_FAKES}/fake_km.cpp
  ${KORA_FAKES}/fake_shell.cpp ${KORA_FAKES}/fake_efs.cpp LIBS ${KORA_STORE_HOST_LIBS} LABELS foundation)
