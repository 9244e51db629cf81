# Real handshakes between the layer's objects, loaded from the store, and the openssl tool, on
# 127.0.0.1 only.
foreach(area client server)
  kora_add_gtest(test_interop_${area} SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_interop_${area}.cpp
    LIBS ${KORA_STORE_HOST_LIBS} kora_certgen TIMEOUT 60 LABELS interop)
  target_include_directories(test_interop_${area} PRIVATE ${CMAKE_CURRENT_LIST_DIR})
endforeach()
