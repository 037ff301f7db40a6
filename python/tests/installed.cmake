# Installs the project under a prefix, and imports the Python package from there:
#   cmake -DBUILD_DIR=... -DPYTHON=... -DPACKAGES=... -DVERSION=... -DWORK_DIR=...
#         -P installed.cmake
# PACKAGES is the package's folder under the prefix. It must be one that this Python
# searches where the prefix is its own.
file(REMOVE_RECURSE ${WORK_DIR})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/prefix
    COMMAND_ERROR_IS_FATAL ANY OUTPUT_QUIET)
file(MAKE_DIRECTORY ${WORK_DIR}/elsewhere)
execute_process(COMMAND ${CMAKE_COMMAND} -E env PYTHONPATH=${WORK_DIR}/prefix/${PACKAGES}
    ${PYTHON} -c "
import pathlib, site, tesk_bam
folder = pathlib.Path(tesk_bam.__file__).parent
assert str(folder.parent) in site.getsitepackages(['${WORK_DIR}/prefix']), folder
names = sorted(file.name for file in folder.iterdir() if file.is_file())
assert names[0::2] == ['__init__.py', '_tesk_bam.pyi'], names
assert names[3:] == ['py.typed'], names
assert len(tesk_bam.BAMFileHandler()) == 0
print(tesk_bam.__version__, tesk_bam.make_unmapped_sam_line('r', 'A', 'I')[:5])
" WORKING_DIRECTORY ${WORK_DIR}/elsewhere OUTPUT_VARIABLE printed COMMAND_ERROR_IS_FATAL ANY)
if(NOT printed STREQUAL "${VERSION} r\t4\t*\n")
    message(FATAL_ERROR "printed: ${printed}")
endif()
file(REMOVE_RECURSE ${WORK_DIR})
