# Debian packages, made by CPack: preset "package", scripts/package.
find_program(GZIP gzip REQUIRED)

set(CPACK_PACKAGE_NAME tesk-bam)
set(CPACK_PACKAGE_VENDOR "The tesk_bam developers")
set(CPACK_PACKAGE_CONTACT "The tesk_bam developers <tesk-bam@example.org>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE
    GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL library development tool)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)

set(so_version ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
set(library_package libtesk-bam${so_version})
set(description "sequence alignments between SAM, BAM and BAI")

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME ${library_package})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION "${description} (shared libraries)
 Holds alignments in memory, reads and writes SAM and BAM files with their BAI
 indexes, and turns the output of a basecaller into SAM text.")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/debian/triggers)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libtesk-bam-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "${library_package} (= ${PROJECT_VERSION}-1), libboost-dev, zlib1g-dev")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "${description} (development files)
 Headers, and what CMake and pkg-config need to find the libraries.")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME tesk-bam)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION science)
set(CPACK_DEBIAN_TOOL_DESCRIPTION "${description} (command-line tool)
 Converts, sorts, indexes and validates alignment files, prints regions, and
 makes unmapped records of a basecaller's reads.")

# The libraries that the tool is linked with come from the build, not from a package.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR} ${PROJECT_BINARY_DIR}/interop)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "${library_package} (= ${PROJECT_VERSION}-1)")

# Every package has its changes and its terms.
foreach(component library development tool)
    string(TOUPPER ${component} upper)
    set(package ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
    set(doc_dir ${PROJECT_BINARY_DIR}/packages/${package})
    configure_file(${CMAKE_CURRENT_LIST_DIR}/debian/changelog.in ${doc_dir}/changelog.Debian @ONLY)
    configure_file(${PROJECT_SOURCE_DIR}/CHANGELOG.md ${doc_dir}/changelog COPYONLY)
    execute_process(COMMAND ${GZIP} -9nf ${doc_dir}/changelog.Debian ${doc_dir}/changelog
        COMMAND_ERROR_IS_FATAL ANY)
    install(FILES ${doc_dir}/changelog.Debian.gz ${doc_dir}/changelog.gz
                  ${CMAKE_CURRENT_LIST_DIR}/debian/copyright
            DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component})
endforeach()
include(CPack)
