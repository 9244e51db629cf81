# Store foundation and encryption at rest. Programs that inject failures compile a fake
# service in; its symbols take the place of the host archive's member.
set(KORA_FAKES ${CMAKE_CURRENT_LIST_DIR}/../fakes)

kora_add_gtest(test_ssl_store_paths
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_ssl_store_paths.cpp
  LIBS ${KORA_STORE_HOST_LIBS} LABELS foundation)

kora_add_gtest(test_ssl_store_files
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_ssl_store_files.cpp
  LIBS ${KORA_STORE_HOST_LIBS} LABELS foundation)

kora_add_gtest(test_ssl_store_init
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_ssl_store_init.cpp ${KORA_FAKES}/fake_shell.cpp ${KORA_FAKES}/fake_km.cpp
  LIBS ${KORA_STORE_HOST_LIBS} LABELS foundation)

kora_add_gtest(test_ssl_store_keyblob
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_ssl_store_keyblob.cpp ${KORA_FAKES}/fake_km.cpp
    ${KORA_FAKES}/fake_efs.cpp ${KORA_FAKES}/fake_random.cpp
  LIBS ${KORA_STORE_HOST_LIBS} LABELS foundation)

kora_add_gtest(test_ssl_store_seal
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_ssl_store_seal.cpp
  LIBS ${KORA_STORE_HOST_LIBS} LABELS foundation)

kora_add_gtest(test_ssl_store_seal_faults
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_ssl_store_seal_faults.cpp ${KORA_FAKES}/fake_km.cpp
  LIBS ${KORA_STORE_HOST_LIBS} LABELS foundation)
