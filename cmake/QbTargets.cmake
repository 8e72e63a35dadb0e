# Helpers shared by every target of the project.

include(GNUInstallDirs)

# Warnings and sanitizer flags for one target.
function(qb_target_defaults target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic)
    if(QB_SANITIZE)
        target_compile_options(${target} PRIVATE -fsanitize=${QB_SANITIZE} -fno-omit-frame-pointer
                                                 -fno-sanitize-recover=all)
        target_link_options(${target} PRIVATE -fsanitize=${QB_SANITIZE})
    endif()
endfunction()

# qb_library(<name> DEPS <libs...>): a library built from every source file of the calling
# directory, static or shared as BUILD_SHARED_LIBS says. Its headers are included as
# "<dir>/<Class>.h", from the repository root in the build tree and from the include directory
# of an installed tree, where they are installed under <dir>/. Each library is exported as
# qbcantp::<name> (the name consumers of the installed package use; qb::<name> is the same
# target inside this build) and listed in the global property QB_LIBRARIES for the package
# files.
function(qb_library name)
    cmake_parse_arguments(ARG "" "" "DEPS" ${ARGN})
    file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
    file(GLOB headers CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
    get_filename_component(dir ${CMAKE_CURRENT_SOURCE_DIR} NAME)
    if(NOT sources)
        # Headers only (so far): an interface library keeps the dependency graph intact.
        add_library(${name} INTERFACE)
        target_include_directories(${name} INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
                                                     $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
        target_link_libraries(${name} INTERFACE ${ARG_DEPS} Threads::Threads)
    else()
        add_library(${name} ${sources} ${headers})
        target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
                                                  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
        target_link_libraries(${name} PUBLIC ${ARG_DEPS} Threads::Threads)
        # The interface may change with every minor version while the major version is 0.
        if(PROJECT_VERSION_MAJOR EQUAL 0)
            set(soversion ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
        else()
            set(soversion ${PROJECT_VERSION_MAJOR})
        endif()
        set_target_properties(${name} PROPERTIES
            VERSION ${PROJECT_VERSION}
            SOVERSION ${soversion}
            POSITION_INDEPENDENT_CODE ON)
        qb_target_defaults(${name})
    endif()
    add_library(qb::${name} ALIAS ${name})
    add_library(qbcantp::${name} ALIAS ${name})
    set_property(GLOBAL APPEND PROPERTY QB_LIBRARIES ${name})
    install(TARGETS ${name} EXPORT qbcantpTargets COMPONENT qbcantp
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
    install(FILES ${headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${dir} COMPONENT qbcantp)
endfunction()
