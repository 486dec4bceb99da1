# How every target of this project is compiled and linked, in one place.

add_library(arkwell-build-options INTERFACE)
target_compile_options(arkwell-build-options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion
    $<$<BOOL:${ARKWELL_WARNINGS_AS_ERRORS}>:-Werror>)
if(ARKWELL_SANITIZE)
    include(CheckCXXSourceCompiles)
    set(CMAKE_REQUIRED_FLAGS "-fsanitize=${ARKWELL_SANITIZE}")
    check_cxx_source_compiles("int main() { return 0; }" ARKWELL_SANITIZER_WORKS)
    unset(CMAKE_REQUIRED_FLAGS)
    if(NOT ARKWELL_SANITIZER_WORKS)
        message(FATAL_ERROR "The compiler cannot build with -fsanitize=${ARKWELL_SANITIZE}")
    endif()
    set(sanitize_flags -fsanitize=${ARKWELL_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    # The compiler takes up to nine times as long to optimise what the address sanitizer has instrumented, and the tests
    # little longer without.
    if(ARKWELL_SANITIZE STREQUAL "thread")
        list(APPEND sanitize_flags -O1)
    endif()
    # Their reports name functions and lines, for which the short debug information is enough.
    target_compile_options(arkwell-build-options INTERFACE ${sanitize_flags} -g1)
    target_link_options(arkwell-build-options INTERFACE ${sanitize_flags})
endif()
if(ARKWELL_COVERAGE)
    target_compile_options(arkwell-build-options
        INTERFACE "$<$<NOT:$<BOOL:$<TARGET_PROPERTY:ARKWELL_TEST>>>:--coverage;-fprofile-update=atomic>")
    target_link_options(arkwell-build-options INTERFACE --coverage)
endif()
# The tests' own code is not optimised and has only what backtraces need: the compiler would take up to three times as
# long over it, and what is tested is optimised in any case.
target_compile_options(arkwell-build-options INTERFACE "$<$<BOOL:$<TARGET_PROPERTY:ARKWELL_TEST>>:-O0;-g1>")

configure_file(${PROJECT_SOURCE_DIR}/cmake/InstallationPaths.h.in
               ${PROJECT_BINARY_DIR}/generated/InstallationPaths.h @ONLY)

# arkwell_add_library(NAME name EXPORT_NAME name SYMBOLS file SOURCES ... PUBLIC_LINK ... PRIVATE_LINK ...)
#
# Compiles the sources once, as the object library <name>-objects, and links them into the shared library <name>.
# White-box tests link <name>-objects, everything else the shared library.
function(arkwell_add_library)
    cmake_parse_arguments(ARG "" "NAME;EXPORT_NAME;SYMBOLS" "SOURCES;PUBLIC_LINK;PRIVATE_LINK" ${ARGN})
    add_library(${ARG_NAME}-objects OBJECT ${ARG_SOURCES})
    target_include_directories(${ARG_NAME}-objects
        PUBLIC ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}
        PRIVATE ${PROJECT_BINARY_DIR}/generated)
    target_link_libraries(${ARG_NAME}-objects
        PUBLIC ${ARG_PUBLIC_LINK} PRIVATE arkwell-build-options ${ARG_PRIVATE_LINK})

    add_library(${ARG_NAME} SHARED)
    add_library(Arkwell::${ARG_EXPORT_NAME} ALIAS ${ARG_NAME})
    target_link_libraries(${ARG_NAME}
        PUBLIC ${ARG_PUBLIC_LINK} PRIVATE ${ARG_NAME}-objects arkwell-build-options ${ARG_PRIVATE_LINK})
    target_include_directories(${ARG_NAME} INTERFACE
        $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
    target_compile_features(${ARG_NAME} INTERFACE cxx_std_17)
    target_link_options(${ARG_NAME} PRIVATE LINKER:--version-script=${ARG_SYMBOLS} LINKER:--as-needed)
    if(NOT ARKWELL_SANITIZE)
        target_link_options(${ARG_NAME} PRIVATE LINKER:--no-undefined)
    endif()
    set_target_properties(${ARG_NAME} PROPERTIES
        EXPORT_NAME ${ARG_EXPORT_NAME}
        INSTALL_RPATH "$ORIGIN"
        VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
        LINK_DEPENDS ${ARG_SYMBOLS})
endfunction()

# arkwell_install_command(NAME): with its manual page. Wherever the installation is moved to, it finds its libraries.
function(arkwell_install_command NAME)
    file(RELATIVE_PATH library_dir /prefix/${CMAKE_INSTALL_BINDIR} /prefix/${CMAKE_INSTALL_LIBDIR})
    set_target_properties(${NAME} PROPERTIES INSTALL_RPATH "$ORIGIN/${library_dir}")
    install(TARGETS ${NAME} COMPONENT tools)
    install(FILES ${NAME}.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
endfunction()
