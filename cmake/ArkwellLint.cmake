# The target `lint`: clang-tidy over every source of the project, each again only when it or a header has changed.
find_program(CLANG_TIDY clang-tidy)
if(NOT CLANG_TIDY)
    return()
endif()

file(GLOB_RECURSE lint_sources CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR}
    platform/*.cpp rbac/*.cpp jwt/*.cpp sandbox/*.cpp tools/*.cpp examples/*.cpp tests/*.cpp bench/*.cpp)
list(FILTER lint_sources EXCLUDE REGEX "^tests/install/")
file(GLOB_RECURSE lint_headers CONFIGURE_DEPENDS
    include/*.h platform/*.h rbac/*.h jwt/*.h sandbox/*.h tools/*.h tests/*.h)
file(GLOB_RECURSE lint_settings CONFIGURE_DEPENDS tests/.clang-tidy sandbox/.clang-tidy tools/.clang-tidy)
list(APPEND lint_settings ${PROJECT_SOURCE_DIR}/.clang-tidy)

set(lint_stamps)
foreach(source ${lint_sources})
    set(stamp ${PROJECT_BINARY_DIR}/lint/${source}.ok)
    get_filename_component(stamp_dir ${stamp} DIRECTORY)
    file(MAKE_DIRECTORY ${stamp_dir})
    add_custom_command(OUTPUT ${stamp}
        COMMAND ${CLANG_TIDY} --quiet -p ${PROJECT_BINARY_DIR} --extra-arg=-Wno-unknown-warning-option --extra-arg=-DFUZZ_DATA=\"\"
                ${PROJECT_SOURCE_DIR}/${source}
        COMMAND ${CMAKE_COMMAND} -E touch ${stamp}
        DEPENDS ${PROJECT_SOURCE_DIR}/${source} ${lint_headers} ${lint_settings}
        COMMENT "Linting ${source}"
        VERBATIM)
    list(APPEND lint_stamps ${stamp})
endforeach()
add_custom_target(lint DEPENDS ${lint_stamps})
