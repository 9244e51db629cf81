# Loading credentials onto SSL objects on the real store, host services and object layer; the
# identity cases record every release of the host mutex shim to see the double release.
kora_add_gtest(test_ssl_store_load SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_ssl_store_load.cpp
  ${KORA_FAKES}/fake_mutex_calls.cpp LIBS ${KORA_STORE_HOST_LIBS} kora_certgen LABELS loading)
target_link_options(test_ssl_store_load PRIVATE -Wl,--wrap=ivra_mutex_unlock)
