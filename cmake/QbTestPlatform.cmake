# What the test support needs to know about the platform the tests run on (docs/armv7.md).
#
# QB_TEST_TIME_SCALE: the factor by which tests stretch the time limits of their timing checks
# (tests/common/Wait.h, qbtest::scaled()). 1 on the build machine, so that the native suites
# check the real tolerances; larger for a slow target such as user-mode emulation (the armv7
# preset sets it), where every instruction costs several times what it costs natively.
set(QB_TEST_TIME_SCALE 1 CACHE STRING
    "Factor for the time limits of timing tests on slow targets (1: native, unchanged)")
if(NOT QB_TEST_TIME_SCALE MATCHES "^[0-9]+$" OR QB_TEST_TIME_SCALE LESS 1)
    message(FATAL_ERROR "QB_TEST_TIME_SCALE must be a whole number >= 1, not '${QB_TEST_TIME_SCALE}'")
endif()
# CTest's limit for one test (it kills a test that takes longer), stretched the same way.
math(EXPR QB_TEST_TIMEOUT "120 * ${QB_TEST_TIME_SCALE}")

# qb_test_platform(<target>): gives the test support library <target>
#  - QB_TEST_TIME_SCALE, to every test that links it;
#  - QB_TEST_EMULATOR, in a cross build that runs its tests under an emulator: the emulator's
#    command line as a list of string literals, which tests/common/Subprocess puts in front of
#    every child program built for the target (CTest already runs the test programs themselves
#    through CMAKE_CROSSCOMPILING_EMULATOR).
function(qb_test_platform target)
    target_compile_definitions(${target} PUBLIC QB_TEST_TIME_SCALE=${QB_TEST_TIME_SCALE})
    if(CMAKE_CROSSCOMPILING AND CMAKE_CROSSCOMPILING_EMULATOR)
        set(literals "")
        foreach(word IN LISTS CMAKE_CROSSCOMPILING_EMULATOR)
            list(APPEND literals "\"${word}\"")
        endforeach()
        list(JOIN literals "," initialiser)
        target_compile_definitions(${target} PUBLIC "QB_TEST_EMULATOR=${initialiser}")
    endif()
endfunction()
