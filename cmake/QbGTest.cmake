# GoogleTest for the test suites.
#
# A native build uses the installed package (Debian: libgtest-dev). A cross build (see
# cmake/toolchains/) looks for GoogleTest in the target's sysroot first; Debian ships no
# GoogleTest for the target architecture, so when none is found it is compiled for the target
# from its sources (Debian: package googletest, in /usr/src/googletest) as part of this build.
# Both ways give the same targets, GTest::gtest and GTest::gtest_main.

set(QB_GTEST_SOURCE_DIR /usr/src/googletest
    CACHE PATH "GoogleTest sources, compiled for the target when cross-compiling")

if(CMAKE_CROSSCOMPILING)
    find_package(GTest QUIET)
    if(NOT GTest_FOUND)
        if(NOT EXISTS ${QB_GTEST_SOURCE_DIR}/CMakeLists.txt)
            message(FATAL_ERROR "No GoogleTest for the target and no sources in "
                                "QB_GTEST_SOURCE_DIR (${QB_GTEST_SOURCE_DIR}); "
                                "install the package googletest")
        endif()
        message(STATUS "GoogleTest: compiled for the target from ${QB_GTEST_SOURCE_DIR}")
        set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
        set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
        add_subdirectory(${QB_GTEST_SOURCE_DIR} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
    endif()
else()
    find_package(GTest REQUIRED)
endif()
