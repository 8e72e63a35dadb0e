# Helpers shared by every target of the project.

# Warnings and sanitizer flags for one target.
function(qb_target_defaults target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic)
    if(QB_SANITIZE)
        target_compile_options(${target} PRIVATE -fsanitize=${QB_SANITIZE} -fno-omit-frame-pointer
                                                 -fno-sanitize-recover=all)
        target_link_options(${target} PRIVATE -fsanitize=${QB_SANITIZE})
    endif()
endfunction()

# qb_library(<name> DEPS <libs...>): a static library built from every source file of the
# calling directory; its headers are included as "<dir>/<Class>.h" from the repository root.
function(qb_library name)
    cmake_parse_arguments(ARG "" "" "DEPS" ${ARGN})
    file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
    file(GLOB headers CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
    if(NOT sources)
        # Headers only (so far): an interface library keeps the dependency graph intact.
        add_library(${name} INTERFACE)
        target_include_directories(${name} INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
        target_link_libraries(${name} INTERFACE ${ARG_DEPS} Threads::Threads)
        add_library(qb::${name} ALIAS ${name})
        return()
    endif()
    add_library(${name} STATIC ${sources} ${headers})
    add_library(qb::${name} ALIAS ${name})
    target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
    target_link_libraries(${name} PUBLIC ${ARG_DEPS} Threads::Threads)
    qb_target_defaults(${name})
endfunction()
