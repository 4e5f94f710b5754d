# Installs the build tree into a scratch prefix, then builds and runs a consumer against it twice:
# once through find_package(CarrowPrivate CONFIG), once through pkg-config.

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "failed: ${ARGN}\n${out}\n${err}")
  endif()
  set(output "${out}" PARENT_SCOPE)
endfunction()

set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

# The installed tool finds the installed library by itself.
run(${prefix}/${BINDIR}/carrow --version)
if(NOT output MATCHES "^CarrowPrivate carrowd-1\n$")
  message(FATAL_ERROR "unexpected output of the installed tool: ${output}")
endif()

# CMake package.
run(${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/cmake-build -G Ninja
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-build)
run(${WORK_DIR}/cmake-build/consumer)
if(NOT output MATCHES "CarrowPrivate 1\\.0 ok")
  message(FATAL_ERROR "unexpected consumer output: ${output}")
endif()
foreach(component journal spdlog)
  if(EXISTS ${WORK_DIR}/cmake-build/${component}_consumer)
    run(${WORK_DIR}/cmake-build/${component}_consumer)
    if(NOT output STREQUAL "${component} ok\n")
      message(FATAL_ERROR "unexpected ${component} consumer output: ${output}")
    endif()
  endif()
endforeach()

# pkg-config.
set(ENV{PKG_CONFIG_PATH} ${prefix}/${LIBDIR}/pkgconfig)
run(pkg-config --cflags --libs CarrowPrivate)
string(STRIP "${output}" flags)
separate_arguments(flags UNIX_COMMAND "${flags}")
run(${CXX} ${CONSUMER_DIR}/main.cpp ${flags} -o ${WORK_DIR}/consumer-pc)
set(ENV{LD_LIBRARY_PATH} ${prefix}/${LIBDIR})
run(${WORK_DIR}/consumer-pc)
if(NOT output MATCHES "CarrowPrivate 1\\.0 ok")
  message(FATAL_ERROR "unexpected pkg-config consumer output: ${output}")
endif()
if(EXISTS ${prefix}/${LIBDIR}/pkgconfig/CarrowPrivateJournal.pc)
  run(pkg-config --cflags --libs CarrowPrivateJournal)
  string(STRIP "${output}" flags)
  separate_arguments(flags UNIX_COMMAND "${flags}")
  run(${CXX} ${CONSUMER_DIR}/journal_consumer.cpp ${flags} -o ${WORK_DIR}/journal-consumer-pc)
  run(${WORK_DIR}/journal-consumer-pc)
  if(NOT output STREQUAL "journal ok\n")
    message(FATAL_ERROR "unexpected pkg-config journal consumer output: ${output}")
  endif()
endif()
