# Install rules shared by the whole family, the exported CMake package `qbcantp`, the pkg-config
# file and the Debian package (CPack). Included once, at the end of the top-level CMakeLists.txt,
# when every library has registered itself through qb_library().

include(CMakePackageConfigHelpers)

set(QB_CMAKE_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/qbcantp)

install(EXPORT qbcantpTargets
    NAMESPACE qbcantp::
    DESTINATION ${QB_CMAKE_PACKAGE_DIR}
    COMPONENT qbcantp)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/qbcantpConfig.cmake.in
    ${PROJECT_BINARY_DIR}/qbcantpConfig.cmake
    INSTALL_DESTINATION ${QB_CMAKE_PACKAGE_DIR})
# 0.x releases make no promise of compatibility between minor versions.
if(PROJECT_VERSION_MAJOR EQUAL 0)
    set(qb_compatibility SameMinorVersion)
else()
    set(qb_compatibility SameMajorVersion)
endif()
write_basic_package_version_file(${PROJECT_BINARY_DIR}/qbcantpConfigVersion.cmake
    VERSION ${PROJECT_VERSION}
    COMPATIBILITY ${qb_compatibility})
install(FILES ${PROJECT_BINARY_DIR}/qbcantpConfig.cmake
              ${PROJECT_BINARY_DIR}/qbcantpConfigVersion.cmake
        DESTINATION ${QB_CMAKE_PACKAGE_DIR}
        COMPONENT qbcantp)

# pkg-config: one file for the family; libraries in link order (users before what they use).
get_property(qb_libraries GLOBAL PROPERTY QB_LIBRARIES)
set(QB_PC_LIBS "")
list(REVERSE qb_libraries)
foreach(lib IN LISTS qb_libraries)
    get_target_property(type ${lib} TYPE)
    if(NOT type STREQUAL "INTERFACE_LIBRARY")
        string(APPEND QB_PC_LIBS " -l${lib}")
    endif()
endforeach()
# The prefix is found from the file's own place, so that an installed tree may be moved (a package
# unpacked into a scratch root, a board image staged in a folder).
file(RELATIVE_PATH QB_PC_PREFIX_FROM_PCDIR
     /qb/${CMAKE_INSTALL_LIBDIR}/pkgconfig /qb)
configure_file(${PROJECT_SOURCE_DIR}/cmake/qbcantp.pc.in ${PROJECT_BINARY_DIR}/qbcantp.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qbcantp.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT qbcantp)

# Documentation and the manual page of cantp.
file(GLOB qb_docs ${PROJECT_SOURCE_DIR}/docs/*.md)
install(FILES ${qb_docs} ${PROJECT_SOURCE_DIR}/README.md
        DESTINATION ${CMAKE_INSTALL_DOCDIR}
        COMPONENT qbcantp)
if(QB_BUILD_TOOLS)
    install(FILES ${PROJECT_SOURCE_DIR}/docs/cantp.1
            DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
            COMPONENT qbcantp)
endif()

# The Debian package: `cpack` in a build configured with the `package` preset. Only for this
# project as the top level: a consumer that adds it with add_subdirectory() packages itself.
if(NOT PROJECT_IS_TOP_LEVEL)
    return()
endif()
set(CPACK_PACKAGE_NAME qbcantp)
set(CPACK_PACKAGE_VENDOR "qbcantp maintainers")
set(CPACK_PACKAGE_CONTACT "qbcantp maintainers <maintainers@users.noreply.c-seed-007a84ce.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_DESCRIPTION
    "A C++17 library family and the cantp tool for a segmented CAN transport protocol: payloads
of up to 4095 bytes over classic 8-byte CAN frames, one endpoint run as a worker thread
behind two pipes, a simulated CAN bus, and the support libraries (log lines, threads,
trace messages).")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL qbcantp)
# The Python module, when built, is a second package of the same build.
if(QB_BUILD_PYTHON)
    list(APPEND CPACK_COMPONENTS_ALL python)
    set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-qbcantp)
    set(CPACK_DEBIAN_PYTHON_FILE_NAME DEB-DEFAULT)
    set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
    set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS
        "qbcantp (= ${PROJECT_VERSION}), python3 (>= ${Python3_VERSION_MAJOR}.${Python3_VERSION_MINOR})")
    set(CPACK_DEBIAN_PYTHON_PACKAGE_RECOMMENDS "python3-can")
    # The module links the family's shared libraries, which the qbcantp package provides (an
    # explicit dependency above): dpkg-shlibdeps finds them in the build tree.
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS)
    foreach(lib IN LISTS qb_libraries)
        get_target_property(type ${lib} TYPE)
        if(type STREQUAL "SHARED_LIBRARY")
            get_target_property(dir ${lib} BINARY_DIR)
            list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${dir})
        endif()
    endforeach()
    set(CPACK_COMPONENT_PYTHON_DESCRIPTION
        "Python module qbcantp: the CAN transport endpoint from Python, on any python-can bus")
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_QBCANTP_PACKAGE_NAME qbcantp)
set(CPACK_DEBIAN_QBCANTP_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_QBCANTP_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
include(CPack)
