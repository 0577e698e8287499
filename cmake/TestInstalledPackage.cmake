# Installs the build into a scratch prefix, then builds examples/consumer
# against it twice, through find_package and through pkg-config, and runs
# both. Invoked by CTest with -DBUILD_DIR, -DSOURCE_DIR, -DWORK_DIR.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  message(STATUS "${out}")
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
foreach(f include/vexaudiodsp/buffering/AudioBuffer.h include/vexcore/Flags.h lib/pkgconfig/vexaudiodsp.pc
          lib/cmake/vexaudiodsp/vexaudiodspConfig.cmake)
  if(NOT EXISTS ${prefix}/${f})
    message(FATAL_ERROR "not installed: ${f}")
  endif()
endforeach()

run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/examples/consumer -B ${WORK_DIR}/cmake-build
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Release)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-build)
run(${WORK_DIR}/cmake-build/consumer)

# The pkg-config route, with the compiler the project was built with.
set(ENV{PKG_CONFIG_PATH} ${prefix}/lib/pkgconfig)
execute_process(COMMAND pkg-config --cflags --libs vexaudiodsp OUTPUT_VARIABLE flags RESULT_VARIABLE rc
                OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "pkg-config does not find vexaudiodsp")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
run(${CXX} -std=c++17 ${SOURCE_DIR}/examples/consumer/main.cpp ${flags} -Wl,-rpath,${prefix}/lib
    -o ${WORK_DIR}/consumer-pc)
run(${WORK_DIR}/consumer-pc)

# The Python module, where it was built: imported from the install tree
# alone, it finds the library through its relative RPATH.
if(PYTHON AND PYTHON_DIR)
  set(ENV{PYTHONPATH} ${prefix}/${PYTHON_DIR})
  run(${PYTHON} -c "import vexaudiodsp, numpy; assert abs(vexaudiodsp.Effect('gain', db=-6).process(numpy.ones(4, numpy.float32), 48000)[0] - 0.501187) < 1e-5; print(vexaudiodsp.__file__)")
endif()
