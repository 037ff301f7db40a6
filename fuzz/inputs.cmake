# Lays out the inputs of all fuzz targets in folders: INPUTS/TARGET/... Seeds come from
# the program MAKE_SEEDS, what fuzzing has found from the archives CORPUS/TARGET.tar.gz.
file(REMOVE_RECURSE "${INPUTS}")
execute_process(COMMAND "${MAKE_SEEDS}" "${INPUTS}" COMMAND_ERROR_IS_FATAL ANY)
file(GLOB archives "${CORPUS}/*.tar.gz")
foreach(archive IN LISTS archives)
    file(ARCHIVE_EXTRACT INPUT "${archive}" DESTINATION "${INPUTS}")
endforeach()
