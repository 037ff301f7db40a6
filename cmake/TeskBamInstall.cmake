# Installs headers, library and tool, and what find_package(tesk_bam) reads.
include(CMakePackageConfigHelpers)

install(TARGETS tesk_bam EXPORT tesk_bam_targets)
install(FILES util/bam/bam_file.h util/bam/export.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/util/bam)
install(FILES data_wrappers/vec_view.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/data_wrappers)
if(TARGET tesk_interop)
    install(TARGETS tesk_interop EXPORT tesk_bam_targets)
    install(DIRECTORY interop/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/interop
            FILES_MATCHING PATTERN "*.h")
endif()
if(TESK_BAM_BUILD_TOOLS)
    install(TARGETS tesk-bam)
endif()

set(TESK_BAM_CONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/tesk_bam)
install(EXPORT tesk_bam_targets NAMESPACE tesk:: DESTINATION ${TESK_BAM_CONFIG_DIR})
configure_package_config_file(cmake/tesk_bam-config.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/tesk_bam-config.cmake INSTALL_DESTINATION ${TESK_BAM_CONFIG_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/tesk_bam-config-version.cmake
    COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tesk_bam-config.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/tesk_bam-config-version.cmake
        DESTINATION ${TESK_BAM_CONFIG_DIR})
