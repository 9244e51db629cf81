# Real faults under the store: full and read-only file systems, broken directories, damaged
# sealed files and key material, garbage credentials.
kora_add_gtest(test_faults SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_faults.cpp
  LIBS ${KORA_STORE_HOST_LIBS} kora_certgen TIMEOUT 600 LABELS faults)
# The loading tests' fixture header builds PSK tables.
target_include_directories(test_faults PRIVATE ${CMAKE_CURRENT_LIST_DIR}/../unit)
