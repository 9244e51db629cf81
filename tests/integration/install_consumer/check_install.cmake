# Installs the build tree into a scratch prefix, then builds consumer.c against it twice: with
# find_package(KoraSslStore) and with pkg-config. Run with -DBUILD_DIR, -DSOURCE_DIR, -DWORK_DIR,
# -DC_COMPILER, -DFLAGS (the build's own compile and link flags).
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(out "${out}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
if(NOT EXISTS ${prefix}/bin/kora-ssl-store)
  message(FATAL_ERROR "the tool was not installed")
endif()
run(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/cmake-build -DCMAKE_PREFIX_PATH=${prefix}
  -DCMAKE_C_COMPILER=${C_COMPILER} "-DCMAKE_C_FLAGS=${FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${FLAGS}")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-build)
run(${WORK_DIR}/cmake-build/consumer)
set(ENV{PKG_CONFIG_PATH} ${prefix}/lib/pkgconfig)
run(pkg-config --cflags --libs kora-ssl-store)
separate_arguments(pc UNIX_COMMAND "${out}")
separate_arguments(flags UNIX_COMMAND "${FLAGS}")
run(${C_COMPILER} ${flags} ${SOURCE_DIR}/consumer.c -o ${WORK_DIR}/pc-consumer ${pc})
run(${WORK_DIR}/pc-consumer)
file(REMOVE_RECURSE ${WORK_DIR})
