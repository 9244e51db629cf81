# Storing, removing, PSK tables and listing, against the host services.
foreach(area put psk)
  kora_add_gtest(test_ssl_store_${area} SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_ssl_store_${area}.cpp
    LIBS ${KORA_STORE_HOST_LIBS} kora_certgen LABELS storage)
endforeach()
