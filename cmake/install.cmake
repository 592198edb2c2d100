# What `cmake --install` puts where, and the packages built from it (CPack).
#
# Components:
#   runtime      the shared library, the tools tandro and tandro-sim, the man page;
#   development  the public headers (include/tandro/), the static library, the shared library's link name,
#                tandro.pc and the CMake package (find_package(Tandro) gives Tandro::tandro and
#                Tandro::tandro_static);
#   zelsim       the simulated reader's in-process interface for application tests: zelsim.h, its static
#                library libtandro-zelsim.a, tandro-zelsim.pc and the target Tandro::zelsim
#                (find_package(Tandro COMPONENTS zelsim)).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(ZEL_CMAKE_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Tandro)
set(ZEL_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The exported names.
set_target_properties(tandro_static PROPERTIES EXPORT_NAME tandro_static)
# The static libraries are C++ inside: a C program that links one also needs the C++ run-time library, which
# CMake names itself only for a project that enables C++.
foreach(lib tandro_static zelsim)
  target_link_libraries(${lib} INTERFACE "$<INSTALL_INTERFACE:stdc++>" "$<INSTALL_INTERFACE:m>")
endforeach()

install(TARGETS tandro EXPORT TandroTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tandro ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS tandro_static EXPORT TandroTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tandro ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tandro
        COMPONENT development FILES_MATCHING PATTERN "*.h")
install(EXPORT TandroTargets NAMESPACE Tandro:: DESTINATION ${ZEL_CMAKE_PACKAGE_DIR} COMPONENT development)

install(TARGETS tandro-tool tandro-sim RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)

# The simulated reader's library and header.
install(TARGETS zelsim EXPORT TandroZelsimTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT zelsim
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tandro ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_SOURCE_DIR}/sim/zelsim.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tandro COMPONENT zelsim)
install(EXPORT TandroZelsimTargets NAMESPACE Tandro:: DESTINATION ${ZEL_CMAKE_PACKAGE_DIR} COMPONENT zelsim)

# The manual page of the tool, where its target tandro_man writes it.
install(FILES ${CMAKE_BINARY_DIR}/man/tandro.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT runtime)

# The CMake package: its configuration file finds the dependencies of the static libraries and loads the
# zelsim targets when they are installed.
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/package/TandroConfig.cmake.in
                              ${CMAKE_BINARY_DIR}/package/TandroConfig.cmake
                              INSTALL_DESTINATION ${ZEL_CMAKE_PACKAGE_DIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/package/TandroConfigVersion.cmake
                                 VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/package/TandroConfig.cmake ${CMAKE_BINARY_DIR}/package/TandroConfigVersion.cmake
        DESTINATION ${ZEL_CMAKE_PACKAGE_DIR} COMPONENT development)

# The pkg-config files name the prefix the files are installed under, which `cmake --install --prefix`
# may choose after the configuration: they are written at install time.
foreach(pc tandro:development tandro-zelsim:zelsim)
  string(REPLACE ":" ";" pc "${pc}")
  list(GET pc 0 pc_name)
  list(GET pc 1 pc_component)
  set(pc_in ${CMAKE_CURRENT_LIST_DIR}/package/${pc_name}.pc.in)
  set(pc_out ${CMAKE_BINARY_DIR}/package/${pc_name}.pc)
  install(CODE "
    set(ZEL_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
    set(ZEL_PC_LIBDIR \"${CMAKE_INSTALL_LIBDIR}\")
    set(ZEL_PC_INCLUDEDIR \"${CMAKE_INSTALL_INCLUDEDIR}\")
    set(ZEL_PC_VERSION \"${PROJECT_VERSION}\")
    configure_file(\"${pc_in}\" \"${pc_out}\" @ONLY)" COMPONENT ${pc_component})
  install(FILES ${pc_out} DESTINATION ${ZEL_PKGCONFIG_DIR} COMPONENT ${pc_component})
endforeach()

# Debian packages, one per component: `cmake --build build --target package` (or cpack in the build tree).
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tandro)
set(CPACK_PACKAGE_VENDOR "Tandro")
set(CPACK_PACKAGE_CONTACT "Tandro developers <dev@tandro.invalid>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Host library and tools for the Zel NFC and RFID readers")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME tandro)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME tandro-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libssl-dev, zlib1g-dev, libjpeg62-turbo-dev")
set(CPACK_DEBIAN_ZELSIM_PACKAGE_NAME tandro-zelsim-dev)
set(CPACK_DEBIAN_ZELSIM_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_ZELSIM_PACKAGE_DEPENDS "libssl-dev, zlib1g-dev")
set(CPACK_COMPONENTS_ALL runtime development zelsim)
include(CPack)
cpack_add_component(runtime DISPLAY_NAME "Library and tools"
                    DESCRIPTION "The shared library, the tandro tool and the simulated reader tandro-sim")
cpack_add_component(development DISPLAY_NAME "Development files" DEPENDS runtime
                    DESCRIPTION "Headers, the static library, pkg-config and CMake package files")
cpack_add_component(zelsim DISPLAY_NAME "Simulated reader for application tests" DEPENDS development
                    DESCRIPTION "The simulated reader's in-process library and header, to test applications")
