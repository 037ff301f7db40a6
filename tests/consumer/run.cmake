# Builds and runs the consumer project:
#   cmake -DMODE=installed|subdirectory|system -DSOURCE_DIR=... -DBUILD_DIR=... -DCXX=...
#         -DWORK_DIR=... -P run.cmake
# "system" takes what is installed where CMake looks of itself.
function(run)
    execute_process(COMMAND ${ARGN} COMMAND_ERROR_IS_FATAL ANY OUTPUT_QUIET)
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
set(arguments -S ${CMAKE_CURRENT_LIST_DIR} -B ${WORK_DIR}/build -G Ninja
    -DCMAKE_CXX_COMPILER=${CXX})
if(MODE STREQUAL installed)
    run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/prefix)
    list(APPEND arguments -DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix)
elseif(MODE STREQUAL subdirectory)
    # The installed libraries are static, unless they were asked to be otherwise.
    list(APPEND arguments -DTESK_BAM_SOURCE_DIR=${SOURCE_DIR} -DBUILD_SHARED_LIBS=ON)
endif()
run(${CMAKE_COMMAND} ${arguments})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
set(expected "@SQ\tSN:chr1\tLN:1000\nr1\t0\tchr1\t1\t9\t3M\t*\t0\t0\tACG\tIII\n")
foreach(consumer consumer interop_consumer consumer_20 interop_consumer_20)
    execute_process(COMMAND ${WORK_DIR}/build/${consumer}
        COMMAND_ERROR_IS_FATAL ANY OUTPUT_VARIABLE printed WORKING_DIRECTORY ${WORK_DIR})
    if(NOT printed STREQUAL expected)
        message(FATAL_ERROR "${consumer} printed: ${printed}")
    endif()
endforeach()
file(REMOVE_RECURSE ${WORK_DIR})
