# Loading credentials onto SSL objects on the real store, host services and object layer; the
# identity test records every release of the host mutex shim to see the double release.
foreach(area load psk_load)
  kora_add_gtest(test_ssl_store_${area} SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_ssl_store_${area}.cpp
    LIBS ${KORA_STORE_HOST_LIBS} kora_certgen LABELS loading)
endforeach()
kora_add_gtest(test_ssl_store_identity SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_ssl_store_identity.cpp
  ${KORA_FAKES}/fake_mutex_calls.cpp LIBS ${KORA_STORE_HOST_LIBS} kora_certgen LABELS loading)
target_link_options(test_ssl_store_identity PRIVATE -Wl,--wrap=ivra_mutex_unlock)
