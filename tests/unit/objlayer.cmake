# The SSL object layer on its own: table, lookups, DER detection, error drain, connections
# and saved sessions over socket pairs. Host services for the log sink and the mutex shim.
foreach(area table der error session)
  kora_add_gtest(test_ssl_util_${area} SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_ssl_util_${area}.cpp
    LIBS ${KORA_STORE_HOST_LIBS} kora_certgen LABELS objlayer)
endforeach()
