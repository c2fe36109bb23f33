# What `cmake --install` lays down: headers, libraries, the command with its manual page, its timers, schemas and
# completions, and how to find them.
include(CMakePackageConfigHelpers)

# A tree that is moved as a whole still works and still describes itself. A directory of the system is never moved: the
# loader looks there by itself, and compilers know the path only as it stands.
cmake_path(SET prefix NORMALIZE ${CMAKE_INSTALL_PREFIX})
foreach(directory BINDIR LIBDIR INCLUDEDIR)
    cmake_path(SET ${directory} NORMALIZE ${CMAKE_INSTALL_FULL_${directory}})
    cmake_path(IS_PREFIX prefix ${${directory}} ${directory}_movable)
    # As vaultry.pc says it.
    set(pc_${directory} ${${directory}})
    if(${directory}_movable)
        file(RELATIVE_PATH below ${prefix} ${${directory}})
        set(pc_${directory} \${prefix}/${below})
    endif()
endforeach()
set(of_system OFF)
if(LIBDIR IN_LIST CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES AND LIBDIR MATCHES "^(/usr)?/lib")
    set(of_system ON)
    set(LIBDIR_movable OFF)
endif()

if(TARGET vaultry_command)
    if(TARGET vaultry AND NOT of_system AND NOT DEFINED CMAKE_INSTALL_RPATH)
        set(rpath ${LIBDIR})
        if(LIBDIR_movable AND BINDIR_movable)
            file(RELATIVE_PATH rpath ${BINDIR} ${LIBDIR})
            set(rpath $ORIGIN/${rpath})
        endif()
        set_target_properties(vaultry_command PROPERTIES INSTALL_RPATH ${rpath})
    endif()
    install(TARGETS vaultry_command)
    install(FILES docs/vaultry.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
    # Users' service managers look below lib, wherever libraries go.
    install(DIRECTORY packaging/systemd/ DESTINATION lib/systemd/user)
    install(DIRECTORY docs/schemas DESTINATION ${CMAKE_INSTALL_DATADIR}/vaultry)
    if(NOT CMAKE_CROSSCOMPILING OR CMAKE_CROSSCOMPILING_EMULATOR)
        set(share ${CMAKE_INSTALL_DATADIR})
        install(FILES ${PROJECT_BINARY_DIR}/completion.bash DESTINATION ${share}/bash-completion/completions
            RENAME vaultry)
        install(FILES ${PROJECT_BINARY_DIR}/completion.zsh DESTINATION ${share}/zsh/site-functions RENAME _vaultry)
        install(FILES ${PROJECT_BINARY_DIR}/completion.fish DESTINATION ${share}/fish/vendor_completions.d
            RENAME vaultry.fish)
    endif()
endif()
install(TARGETS ${libraries} EXPORT vaultry)
install(DIRECTORY include/vaultry TYPE INCLUDE FILES_MATCHING PATTERN "*.h" PATTERN "*.hpp")

set(pc_prefix ${prefix})
if(LIBDIR_movable)
    file(RELATIVE_PATH pc_prefix ${LIBDIR}/pkgconfig ${prefix})
    set(pc_prefix \${pcfiledir}/${pc_prefix})
endif()
string(REGEX REPLACE "/$" "" pc_prefix ${pc_prefix})
set(pc_private_needs "")
foreach(need ${static_needs})
    string(REGEX REPLACE "^-l" "" need ${need})
    string(APPEND pc_private_needs " -l${need}")
endforeach()
set(pc_needs "")
if(NOT TARGET vaultry) # nobody asks for --static where there is nothing else
    set(pc_needs ${pc_private_needs})
    set(pc_private_needs "")
endif()
configure_file(packaging/vaultry.pc.in vaultry.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/vaultry.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/vaultry)
install(EXPORT vaultry NAMESPACE vaultry:: FILE vaultry-targets.cmake DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/vaultry-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES packaging/vaultry-config.cmake ${PROJECT_BINARY_DIR}/vaultry-config-version.cmake
    DESTINATION ${package_dir})
