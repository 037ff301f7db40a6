# Runs the quick start on a file with an awkward name and a byte that is no UTF-8,
# and on names that it must refuse.
set(folder "${WORK_DIR}/own files")
file(REMOVE_RECURSE ${folder})
file(MAKE_DIRECTORY ${folder})
file(READ ${ROOT}/examples/quickstart.sam text)
file(WRITE "${folder}/-my reads.sam" "${text}")
execute_process(
    COMMAND printf "r\\t4\\t*\\t0\\t0\\t*\\t*\\t0\\t0\\tA\\tI\\tXZ:Z:caf\\351\\n"
    COMMAND tee -a -- "${folder}/-my reads.sam"
    OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)

execute_process(COMMAND ${ROOT}/scripts/quickstart "./-my reads.sam" WORKING_DIRECTORY ${folder}
    OUTPUT_VARIABLE printed COMMAND_ERROR_IS_FATAL ANY)
if(NOT printed MATCHES "all 17 alignment lines are the same")
    message(FATAL_ERROR "${printed}")
endif()
foreach(result ".sorted.bam" ".sorted.bam.bai" ".again.sam")
    if(NOT EXISTS "${folder}/-my reads${result}")
        message(FATAL_ERROR "not made: ${result}")
    endif()
endforeach()

foreach(name "" "missing.sam" "reads.fastq")
    execute_process(COMMAND ${ROOT}/scripts/quickstart "${name}" WORKING_DIRECTORY ${folder}
        RESULT_VARIABLE status OUTPUT_QUIET ERROR_QUIET)
    if(NOT status EQUAL 2)
        message(FATAL_ERROR "exit status ${status} for '${name}'")
    endif()
endforeach()
file(REMOVE_RECURSE ${folder})
