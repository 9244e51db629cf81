# kora-ssl-store: the command-line tool over the store's public calls.
file(GLOB KORA_CLI_SOURCES CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/kora-ssl-store/*.cpp)
add_executable(kora-ssl-store ${KORA_CLI_SOURCES})
target_link_libraries(kora-ssl-store PRIVATE kora_certgen kora_ssl_store kora_ssl_util kora_platform_host
  kora_internal_headers Threads::Threads)
set_target_properties(kora-ssl-store PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/tools)
kora_warnings(kora-ssl-store)
install(TARGETS kora-ssl-store RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

