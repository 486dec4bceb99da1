# The Debian packages, made by `cpack` in the build folder: what Debian's own rules want of a library.
set(packaging ${CMAKE_CURRENT_LIST_DIR})
set(generated ${PROJECT_BINARY_DIR}/packaging)
set(revision 1~deb12)  # built for Debian 12, whose libraries it depends on
set(DEBIAN_VERSION ${PROJECT_VERSION}-${revision})

# Who is asked about the packages is who is told about vulnerabilities.
file(STRINGS ${PROJECT_SOURCE_DIR}/SECURITY.md address REGEX "<[^ <>]+@[^ <>]+>" LIMIT_COUNT 1)
string(REGEX REPLACE ".*<([^ <>]+@[^ <>]+)>.*" "\\1" address "${address}")
if(NOT address)
    message(FATAL_ERROR "SECURITY.md names no address, which is to be that of the packages' maintainers too")
endif()
set(DEBIAN_MAINTAINER "Maintainers of arkwell-rbac <${address}>")

# The day of the change that is packaged, so that the same sources make the same packages.
if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})
    execute_process(COMMAND git log -1 --format=%ct WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
        OUTPUT_VARIABLE committed OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
    set(ENV{SOURCE_DATE_EPOCH} ${committed})
endif()
set(SOURCE_DATE_EPOCH $ENV{SOURCE_DATE_EPOCH})
string(TIMESTAMP DEBIAN_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
string(TIMESTAMP DEBIAN_YEAR "%Y" UTC)

find_program(GZIP gzip REQUIRED)
configure_file(${packaging}/changelog.in ${generated}/changelog.Debian @ONLY)
configure_file(${packaging}/copyright.in ${generated}/copyright @ONLY)
configure_file(${PROJECT_SOURCE_DIR}/CHANGELOG.md ${generated}/changelog COPYONLY)
execute_process(COMMAND ${GZIP} --best --no-name --force --keep ${generated}/changelog.Debian ${generated}/changelog
    COMMAND_ERROR_IS_FATAL ANY)

# Debian has manual pages compressed.
install(CODE "
    file(GLOB pages \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_MANDIR}/man1/*.1\")
    if(pages)
        execute_process(COMMAND ${GZIP} --best --no-name --force \${pages} COMMAND_ERROR_IS_FATAL ANY)
    endif()" COMPONENT tools)

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each package has its own
set(CPACK_PACKAGE_CONTACT ${DEBIAN_MAINTAINER})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_OUTPUT_FILE_PREFIX ${PROJECT_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${revision})
set(CPACK_DEBIAN_PACKAGE_SOURCE arkwell-rbac)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PROJECT_CONFIG_FILE ${generated}/cpack-config.cmake)

set(about "arkwell-rbac tells the server programs of a data-protection product who may
do what: for one user and one operation, on which objects it is allowed. It
answers from files that the access-control service publishes.")

# arkwell_debian_package(COMPONENT PACKAGE SECTION SUMMARY DESCRIPTION)
macro(arkwell_debian_package COMPONENT PACKAGE SECTION SUMMARY DESCRIPTION)
    string(TOUPPER ${COMPONENT} upper)
    set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${PACKAGE})
    set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${SECTION})
    set(CPACK_DEBIAN_${upper}_DESCRIPTION "${SUMMARY}\n${about}\n\n${DESCRIPTION}")
    list(APPEND CPACK_COMPONENTS_ALL ${COMPONENT})
    install(FILES ${generated}/copyright ${generated}/changelog.gz ${generated}/changelog.Debian.gz
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${PACKAGE} COMPONENT ${COMPONENT})
endmacro()

# arkwell_debian_library(COMPONENT SUMMARY DESCRIPTION): the package of a shared library, with its soname in its name.
macro(arkwell_debian_library COMPONENT SUMMARY DESCRIPTION)
    set(package libarkwell-${COMPONENT}${PROJECT_VERSION_MAJOR})
    arkwell_debian_package(${COMPONENT} ${package} libs "${SUMMARY}" "${DESCRIPTION}")
    set(shlibs "libarkwell-${COMPONENT} ${PROJECT_VERSION_MAJOR} ${package} (>= ${PROJECT_VERSION})\n")
    file(WRITE ${generated}/${COMPONENT}/shlibs "${shlibs}")
    string(APPEND all_shlibs "${shlibs}")
    file(WRITE ${generated}/${COMPONENT}/triggers "activate-noawait ldconfig\n")
    set(CPACK_DEBIAN_${upper}_PACKAGE_CONTROL_EXTRA ${generated}/${COMPONENT}/shlibs ${generated}/${COMPONENT}/triggers)
    string(APPEND exactly "${package} (= ${DEBIAN_VERSION}), ")
endmacro()

set(CPACK_COMPONENTS_ALL)
arkwell_debian_library(platform "platform library beneath the access control library"
    "This package contains the platform library: logging, file locks, settings,
database connections and HTTPS requests.")
arkwell_debian_library(rbac "role-based access control for server programs"
    "This package contains the library that decides.")
arkwell_debian_package(development libarkwell-rbac-dev libdevel
    "role-based access control for server programs (development files)"
    "This package contains what is needed to build programs with the library: the
headers, the CMake package and the pkg-config files.")
arkwell_debian_package(tools arkwell-rbac-tools admin "look into access caches, and develop without the product"
    "This package contains the command rbac-cache, for operators: who may do what
and why, what a change does, and whether the files are sound; and the command
rbac-sandbox, for developers: a stand-in for the product's services.")
arkwell_debian_package(documentation arkwell-rbac-doc doc
    "role-based access control for server programs (documentation)"
    "This package contains the documentation and examples.")

set(CPACK_DEBIAN_RBAC_PACKAGE_SUGGESTS "arkwell-rbac-tools")
set(CPACK_DEBIAN_PLATFORM_PACKAGE_SUGGESTS "odbc-postgresql | libsqliteodbc")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${exactly}libboost-dev (>= 1.74)")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS "arkwell-rbac-doc, arkwell-rbac-tools")
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS "libsqliteodbc")
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_ARCHITECTURE all)

file(WRITE ${generated}/shlibs.local "${all_shlibs}")
file(WRITE ${generated}/debian/control "")
configure_file(${packaging}/cpack-config.cmake.in ${generated}/cpack-config.cmake @ONLY)

include(CPack)
