# Installation: the libraries, their headers, the CMake package, the pkg-config files, the commands and the documents. All
# of it is relocatable. Each component is a Debian package; what names none belongs to development.
include(CMakePackageConfigHelpers)

set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME development)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/ArkwellRbac)

foreach(name platform rbac)
    install(TARGETS arkwell-${name} EXPORT ArkwellRbacTargets
        LIBRARY COMPONENT ${name} NAMELINK_COMPONENT development)
endforeach()
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

set(ARKWELL_INSTALL_DOCDIR ${CMAKE_INSTALL_DATADIR}/doc/arkwell-rbac-doc)
install(FILES README.md ARCHITECTURE.md SECURITY.md DESTINATION ${ARKWELL_INSTALL_DOCDIR} COMPONENT documentation)
install(DIRECTORY docs examples DESTINATION ${ARKWELL_INSTALL_DOCDIR} USE_SOURCE_PERMISSIONS COMPONENT documentation
    PATTERN docs/site EXCLUDE PATTERN docs/record-demo EXCLUDE)
install(DIRECTORY ${PROJECT_BINARY_DIR}/site/html DESTINATION ${ARKWELL_INSTALL_DOCDIR} COMPONENT documentation OPTIONAL)

if(ARKWELL_DEBIAN_PACKAGES)
    include(packaging/DebianPackages)
endif()
