# Installation: the libraries, their headers, the CMake package and the pkg-config files. All of it is relocatable.
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/ArkwellRbac)

install(TARGETS arkwell-platform arkwell-rbac EXPORT ArkwellRbacTargets)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")

install(EXPORT ArkwellRbacTargets NAMESPACE Arkwell:: DESTINATION ${package_dir})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/ArkwellRbacConfig.cmake.in
    ${PROJECT_BINARY_DIR}/ArkwellRbacConfig.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ArkwellRbacConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ArkwellRbacConfig.cmake ${PROJECT_BINARY_DIR}/ArkwellRbacConfigVersion.cmake
    DESTINATION ${package_dir})

# The prefix is told from where the file lies, so that the installation can be moved.
file(RELATIVE_PATH PC_PREFIX_FROM_HERE /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
foreach(name arkwell-platform arkwell-rbac)
    configure_file(${PROJECT_SOURCE_DIR}/cmake/${name}.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
