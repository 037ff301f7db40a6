# Installs libraries and tool, and what build systems, shells and man(1) read. Components:
# library (shared libraries), development, tool.
include(CMakePackageConfigHelpers)

set(libraries tesk_bam)
if(TARGET tesk_interop)
    list(APPEND libraries tesk_interop)
endif()
install(TARGETS ${libraries} EXPORT tesk_bam_targets
    LIBRARY COMPONENT library NAMELINK_COMPONENT development
    ARCHIVE COMPONENT development)

# In a folder of their own, which find_package and pkg-config name.
set(include_dir ${CMAKE_INSTALL_INCLUDEDIR}/tesk_bam)
install(FILES util/bam/bam_file.h util/bam/export.h DESTINATION ${include_dir}/util/bam
        COMPONENT development)
install(FILES data_wrappers/vec_view.h DESTINATION ${include_dir}/data_wrappers
        COMPONENT development)
if(TARGET tesk_interop)
    install(DIRECTORY interop/ DESTINATION ${include_dir}/interop COMPONENT development
            FILES_MATCHING PATTERN "*.h")
endif()

if(TESK_BAM_BUILD_TOOLS)
    install(TARGETS tesk-bam RUNTIME COMPONENT tool)
    install(FILES ${TESK_BAM_COMPLETION}
            DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tool)
    if(TESK_BAM_MAN_PAGE)
        install(FILES ${TESK_BAM_MAN_PAGE} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
                COMPONENT tool)
    endif()
endif()
if(BUILD_SHARED_LIBS)
    # The one library finds the other, and the tool finds both.
    file(RELATIVE_PATH path ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
    if(TARGET tesk_interop)
        set_target_properties(tesk_interop PROPERTIES INSTALL_RPATH "$ORIGIN")
    endif()
    if(TESK_BAM_BUILD_TOOLS)
        set_target_properties(tesk-bam PROPERTIES INSTALL_RPATH "$ORIGIN/${path}")
    endif()
endif()

set(TESK_BAM_CONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/tesk_bam)
install(EXPORT tesk_bam_targets NAMESPACE tesk:: DESTINATION ${TESK_BAM_CONFIG_DIR}
        COMPONENT development)
configure_package_config_file(cmake/tesk_bam-config.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/tesk_bam-config.cmake INSTALL_DESTINATION ${TESK_BAM_CONFIG_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/tesk_bam-config-version.cmake
    COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tesk_bam-config.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/tesk_bam-config-version.cmake
        DESTINATION ${TESK_BAM_CONFIG_DIR} COMPONENT development)

# pkg-config files find their prefix from their own place.
set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH TESK_BAM_PREFIX_FROM_PC /${pkgconfig_dir} /)
foreach(library IN LISTS libraries)
    configure_file(cmake/${library}.pc.in ${CMAKE_CURRENT_BINARY_DIR}/${library}.pc @ONLY)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${library}.pc DESTINATION ${pkgconfig_dir}
            COMPONENT development)
endforeach()
