# Installs the build tree into a fresh prefix, then configures, builds and runs the consumer
# project against it. -D BUILD_DIR, SOURCE_DIR, WORK_DIR, SANITIZE.
file(REMOVE_RECURSE ${WORK_DIR})
# A sanitized library needs its runtime first in the host's initial libraries.
set(flags "")
if(SANITIZE)
  set(sanitize "-fsanitize=address,undefined")
  set(flags "-DCMAKE_C_FLAGS=${sanitize};-DCMAKE_CXX_FLAGS=${sanitize};-DCMAKE_EXE_LINKER_FLAGS=${sanitize}")
endif()
foreach(step
    "${CMAKE_COMMAND};--install;${BUILD_DIR};--prefix;${WORK_DIR}/prefix"
    "${CMAKE_COMMAND};-S;${SOURCE_DIR};-B;${WORK_DIR}/build;-G;Ninja;-DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix;${flags}"
    "${CMAKE_COMMAND};--build;${WORK_DIR}/build"
    "${WORK_DIR}/build/consumer")
  execute_process(COMMAND ${step} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${step} failed (${result}):\n${out}")
  endif()
endforeach()
message(STATUS "install-consumer: ${out}")
file(REMOVE_RECURSE ${WORK_DIR})
