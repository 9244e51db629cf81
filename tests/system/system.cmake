# Programs for the ARM guest (scripts/system-armhf.sh), not cases of their own: they need a
# kernel of the device's kind with a flash file system.
add_executable(kora_power_cut ${CMAKE_CURRENT_LIST_DIR}/power_cut.cpp)
target_link_libraries(kora_power_cut PRIVATE ${KORA_STORE_HOST_LIBS} kora_certgen kora_test_support)
target_include_directories(kora_power_cut PRIVATE ${CMAKE_CURRENT_LIST_DIR}/../unit)
kora_warnings(kora_power_cut)
