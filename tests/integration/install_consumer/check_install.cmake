# Installs the build tree into a scratch prefix, then builds consumer.c twice against it: with
# find_package(KoraSslStore) and with pkg-config. Run with -DBUILD_DIR, -DSOURCE_DIR,
# -DWORK_DIR, -DC_COMPILER, -DFLAGS (the build's own compile and link flags).
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
foreach(f include/kora/kora_net_ssl.h include/kora/ssl_store.h include/kora/ssl_util.h include/kora/msg_diag.h
    bin/kora-ssl-store lib/pkgconfig/kora-ssl-store.pc lib/cmake/KoraSslStore/KoraSslStoreConfig.cmake)
  if(NOT EXISTS ${prefix}/${f})
    message(FATAL_ERROR "not installed: ${f}")
  endif()
endforeach()

run(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/cmake-build -DCMAKE_PREFIX_PATH=${prefix}
  -DCMAKE_C_COMPILER=${C_COMPILER} "-DCMAKE_C_FLAGS=${FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${FLAGS}")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-build)
run(${WORK_DIR}/cmake-build/consumer)

set(ENV{PKG_CONFIG_PATH} ${prefix}/lib/pkgconfig)
execute_process(COMMAND pkg-config --cflags --libs kora-ssl-store RESULT_VARIABLE rc OUTPUT_VARIABLE pc
  OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "pkg-config does not know kora-ssl-store")
endif()
separate_arguments(pc UNIX_COMMAND "${pc}")
separate_arguments(flags UNIX_COMMAND "${FLAGS}")
run(${C_COMPILER} ${flags} ${SOURCE_DIR}/consumer.c -o ${WORK_DIR}/pc-consumer ${pc})
run(${WORK_DIR}/pc-consumer)
file(REMOVE_RECURSE ${WORK_DIR})
