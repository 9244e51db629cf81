# The command-line tool as a user runs it: each case spawns kora-ssl-store, which inherits the
# case's private store root.
if(TARGET kora-ssl-store)
  kora_add_gtest(test_cli SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_cli.cpp
    LIBS kora_certgen OpenSSL::Crypto TIMEOUT 120 LABELS cli)
  target_compile_definitions(test_cli PRIVATE KORA_CLI_PATH="$<TARGET_FILE:kora-ssl-store>")
  add_dependencies(test_cli kora-ssl-store)
endif()
