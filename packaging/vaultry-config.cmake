include(${CMAKE_CURRENT_LIST_DIR}/vaultry-targets.cmake)
# Where there is no shared library, the static one answers to the name that clients ask for.
if(NOT TARGET vaultry::vaultry)
    add_library(vaultry::vaultry INTERFACE IMPORTED)
    set_target_properties(vaultry::vaultry PROPERTIES INTERFACE_LINK_LIBRARIES vaultry::static)
endif()
