# Installs both libraries, their public headers under include/comm_module (the
# companion stand-in's under include/comm_module_companion), a
# CMake package (find_package(CommModule)) and a pkg-config file (CommModule);
# the Qt 6 build under its own names (include/comm_module_qt6, CommModuleQt6),
# so that both can be installed into one prefix.
#
# The companion stand-in, libModule, is installed in a folder of its own
# (COMM_COMPANION_LIBDIR, lib/comm_module), not in the library folder: the
# name libModule belongs to the real companion library, which can take the
# stand-in's place there or in the system's library folder. libComm_Module
# and commctl look in that folder first, through a run path relative to
# themselves; programs that link libModule get the folder as a run path from
# the CMake package and the pkg-config file.
include(CMakePackageConfigHelpers)

set(COMM_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/${COMM_PACKAGE_NAME})

file(RELATIVE_PATH COMM_COMPANION_FROM_LIBDIR "/p/${CMAKE_INSTALL_LIBDIR}" "/p/${COMM_COMPANION_LIBDIR}")
if(COMM_COMPANION_FROM_LIBDIR STREQUAL "")
    set(COMM_LIBRARY_RPATH "$ORIGIN")
else()
    set(COMM_LIBRARY_RPATH "$ORIGIN/${COMM_COMPANION_FROM_LIBDIR}")
endif()
set_target_properties(Comm_Module PROPERTIES INSTALL_RPATH "${COMM_LIBRARY_RPATH}")
install(TARGETS Comm_Module
    EXPORT CommModuleTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
    PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${COMM_INCLUDE_SUBDIR}
)
install(TARGETS Module
    EXPORT CommModuleTargets
    LIBRARY DESTINATION ${COMM_COMPANION_LIBDIR}
    ARCHIVE DESTINATION ${COMM_COMPANION_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
    PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${COMM_COMPANION_INCLUDE_SUBDIR}
)
install(EXPORT CommModuleTargets NAMESPACE ${COMM_PACKAGE_NAME}:: FILE ${COMM_PACKAGE_NAME}Targets.cmake
    DESTINATION ${COMM_CMAKE_DIR})

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/CommModuleConfig.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/${COMM_PACKAGE_NAME}Config.cmake
    INSTALL_DESTINATION ${COMM_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/${COMM_PACKAGE_NAME}ConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES
    ${CMAKE_CURRENT_BINARY_DIR}/${COMM_PACKAGE_NAME}Config.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/${COMM_PACKAGE_NAME}ConfigVersion.cmake
    DESTINATION ${COMM_CMAKE_DIR})

# The prefix is found from the .pc file's own place, so the tree works wherever
# it is installed (cmake --install --prefix ...).
file(RELATIVE_PATH COMM_PC_PREFIX_FROM_PCDIR "/p/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/p")
configure_file(${CMAKE_CURRENT_LIST_DIR}/CommModule.pc.in ${CMAKE_CURRENT_BINARY_DIR}/${COMM_PACKAGE_NAME}.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${COMM_PACKAGE_NAME}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
