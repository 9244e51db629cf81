# kora-ssl-store: the command-line tool over the store's public calls.
pkg_check_modules(JSON_GLIB REQUIRED IMPORTED_TARGET json-glib-1.0)
file(GLOB KORA_CLI_SOURCES CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/kora-ssl-store/*.cpp)
add_executable(kora-ssl-store ${KORA_CLI_SOURCES})
target_link_libraries(kora-ssl-store PRIVATE kora_certgen kora_ssl_store kora_ssl_util kora_platform_host
  kora_internal_headers Threads::Threads PkgConfig::JSON_GLIB)
target_compile_definitions(kora-ssl-store PRIVATE KORA_VERSION="${PROJECT_VERSION}")
set_target_properties(kora-ssl-store PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/tools)
kora_warnings(kora-ssl-store)
install(TARGETS kora-ssl-store RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${PROJECT_SOURCE_DIR}/docs/kora-ssl-store.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/kora-ssl-store/completion.bash
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions RENAME kora-ssl-store)
