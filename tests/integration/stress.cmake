# Many threads on the store at once: real threads, real files on tmpfs, the host services.
kora_add_gtest(test_stress SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_stress.cpp
  LIBS ${KORA_STORE_HOST_LIBS} kora_certgen TIMEOUT 600 LABELS concurrency)
# The loading tests' fixture starts the store and builds PSK tables.
target_include_directories(test_stress PRIVATE ${CMAKE_CURRENT_LIST_DIR}/../unit)
