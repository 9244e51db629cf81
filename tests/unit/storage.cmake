# Storing, removing, PSK tables, listing and DER to PEM, against the host services.
kora_add_gtest(test_ssl_store_put SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/unit/test_ssl_store_put.cpp
  LIBS ${KORA_STORE_HOST_LIBS} LABELS storage)
kora_add_gtest(test_ssl_store_psk SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/unit/test_ssl_store_psk.cpp
  LIBS ${KORA_STORE_HOST_LIBS} LABELS storage)
kora_add_gtest(test_ssl_store_list SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/unit/test_ssl_store_list.cpp
  LIBS ${KORA_STORE_HOST_LIBS} LABELS storage)
kora_add_gtest(test_ssl_store_pem SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/unit/test_ssl_store_pem.cpp
  LIBS ${KORA_STORE_HOST_LIBS} kora_certgen LABELS storage)
