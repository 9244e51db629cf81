# The command-line tool as a user runs it, on each case's private store root.
if(TARGET kora-ssl-store)
  kora_add_gtest(test_cli SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_cli.cpp LIBS kora_certgen TIMEOUT 120 LABELS cli)
  # The tool against GnuTLS, a broker, a tunnel and curl (scripts/deps.sh set "interop").
  kora_add_gtest(test_peers SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_peers.cpp LIBS kora_certgen TIMEOUT 120
    LABELS interop)
  set(kora_cli_tests test_cli test_peers)
  # The tool on a root key in a private SoftHSM2 token.
  if(KORA_SOFTHSM2_MODULE)
    kora_add_gtest(test_cli_token SOURCES ${PROJECT_SOURCE_DIR}/tests/token/test_cli_token.cpp
      ${PROJECT_SOURCE_DIR}/tests/token/softhsm_token.cpp LIBS kora_certgen TIMEOUT 180 LABELS token)
    target_include_directories(test_cli_token PRIVATE ${PROJECT_SOURCE_DIR}/tests/token ${CMAKE_CURRENT_LIST_DIR})
    target_compile_definitions(test_cli_token PRIVATE KORA_SOFTHSM2_MODULE="${KORA_SOFTHSM2_MODULE}")
    list(APPEND kora_cli_tests test_cli_token)
  endif()
  foreach(test ${kora_cli_tests})
    target_compile_definitions(${test} PRIVATE KORA_CLI_PATH="$<TARGET_FILE:kora-ssl-store>")
    add_dependencies(${test} kora-ssl-store)
    # A cross-built tool runs under the same emulator as the tests.
    if(CMAKE_CROSSCOMPILING AND CMAKE_CROSSCOMPILING_EMULATOR)
      list(GET CMAKE_CROSSCOMPILING_EMULATOR 0 kora_cli_launcher)
      target_compile_definitions(${test} PRIVATE KORA_CLI_LAUNCHER="${kora_cli_launcher}")
    endif()
  endforeach()
endif()
# The installed package as another project uses it (skipped when cross-compiling).
if(TARGET kora-ssl-store AND NOT CMAKE_CROSSCOMPILING)
  add_test(NAME install_package_consumer
    COMMAND ${CMAKE_COMMAND} -DBUILD_DIR=${PROJECT_BINARY_DIR} -DSOURCE_DIR=${CMAKE_CURRENT_LIST_DIR}/install_consumer
      -DWORK_DIR=${CMAKE_CURRENT_BINARY_DIR}/install_consumer -DC_COMPILER=${CMAKE_C_COMPILER}
      "-DFLAGS=${CMAKE_C_FLAGS}" -P ${CMAKE_CURRENT_LIST_DIR}/install_consumer/check_install.cmake)
  set_tests_properties(install_package_consumer PROPERTIES TIMEOUT 120 LABELS cli)
endif()
