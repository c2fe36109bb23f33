# What `cmake --install` lays down: headers, both libraries, the command with its manual page, and how to find them.
include(CMakePackageConfigHelpers)

file(RELATIVE_PATH libdir_from_bindir ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
if(TARGET vaultry_command)
    # The same in the build tree and installed, so that nothing has to be patched in between.
    set(rpath $ORIGIN/${libdir_from_bindir} $ORIGIN/../lib)
    list(REMOVE_DUPLICATES rpath)
    set_target_properties(vaultry_command PROPERTIES BUILD_WITH_INSTALL_RPATH ON INSTALL_RPATH "${rpath}")
    install(TARGETS vaultry_command)
    install(FILES docs/vaultry.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endif()
install(TARGETS vaultry vaultry_static EXPORT vaultry)
install(DIRECTORY include/vaultry TYPE INCLUDE FILES_MATCHING PATTERN "*.h" PATTERN "*.hpp")

# Relative to where the file lies, so that a tree that was moved as a whole still describes itself.
file(RELATIVE_PATH prefix_from_pkgconfig ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" prefix_from_pkgconfig ${prefix_from_pkgconfig})
configure_file(packaging/vaultry.pc.in vaultry.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/vaultry.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/vaultry)
install(EXPORT vaultry NAMESPACE vaultry:: FILE vaultry-config.cmake DESTINATION ${package_dir})
write_basic_package_version_file(vaultry-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/vaultry-config-version.cmake DESTINATION ${package_dir})
