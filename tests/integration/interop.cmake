# Real handshakes between the layer's objects, loaded from the store, and the openssl tool, on
# 127.0.0.1 only.
kora_add_gtest(test_interop SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_interop.cpp
  LIBS ${KORA_STORE_HOST_LIBS} kora_certgen TIMEOUT 60 LABELS interop)
# The loading tests' fixture starts the store.
target_include_directories(test_interop PRIVATE ${CMAKE_CURRENT_LIST_DIR}/../unit)
