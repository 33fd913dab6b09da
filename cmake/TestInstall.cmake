# Installs kivra from a build tree into a fresh prefix, then configures, builds and runs
# the consumer project against it: cmake -DBUILD=<build tree> -DSOURCE=<source tree>
# -DWORK=<scratch directory> -P TestInstall.cmake
file(REMOVE_RECURSE "${WORK}")
set(_prefix "${WORK}/prefix")
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE _result)
  if(NOT _result EQUAL 0)
    message(FATAL_ERROR "failed (${_result}): ${ARGN}")
  endif()
endfunction()
run(${CMAKE_COMMAND} --install "${BUILD}" --prefix "${_prefix}")
# libkivra finds libbasalt beside itself: a program whose own run path does not reach
# libkivra's dependencies (a run path is not inherited) still starts.
file(GLOB _libraries "${_prefix}/lib*/libkivra.so.*.*")
execute_process(COMMAND objdump -p ${_libraries} OUTPUT_VARIABLE _headers RESULT_VARIABLE _result)
if(NOT _result EQUAL 0 OR NOT _headers MATCHES "R(UN)?PATH +\\$ORIGIN")
  message(FATAL_ERROR "the installed libkivra has no run path $ORIGIN")
endif()
run(${CMAKE_COMMAND} -S "${SOURCE}/examples/consumer" -B "${WORK}/consumer" -G Ninja
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_PREFIX_PATH=${_prefix} ${LAUNCHER})
run(${CMAKE_COMMAND} --build "${WORK}/consumer" -j2)
run("${WORK}/consumer/garden")
