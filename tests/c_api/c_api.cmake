# The public headers as a plain C11 program sees them; all checks happen at compile time.
add_executable(test_c_api ${CMAKE_CURRENT_LIST_DIR}/test_c_api.c)
set_target_properties(test_c_api PROPERTIES C_STANDARD 11 C_STANDARD_REQUIRED ON C_EXTENSIONS OFF)
target_include_directories(test_c_api PRIVATE ${PROJECT_SOURCE_DIR}/porting_layer/inc
  $<TARGET_PROPERTY:OpenSSL::SSL,INTERFACE_INCLUDE_DIRECTORIES>)
target_compile_options(test_c_api PRIVATE -Wpedantic)
kora_warnings(test_c_api)
add_test(NAME c_api_headers COMMAND test_c_api)
set_tests_properties(c_api_headers PROPERTIES LABELS "c_api")
