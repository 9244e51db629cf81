# The SSL object layer: table and lookups, error drain, saved sessions over socket pairs.
foreach(area table error session)
  kora_add_gtest(test_ssl_util_${area} SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_ssl_util_${area}.cpp
    LIBS ${KORA_STORE_HOST_LIBS} kora_certgen LABELS objlayer)
endforeach()
target_link_options(test_ssl_util_table PRIVATE -Wl,--wrap=SSL_new)
