# Storing, removing, PSK tables, listing and DER to PEM, against the host services.
foreach(area put psk pem)
  kora_add_gtest(test_ssl_store_${area} SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_ssl_store_${area}.cpp
    LIBS ${KORA_STORE_HOST_LIBS} kora_certgen LABELS storage)
endforeach()
