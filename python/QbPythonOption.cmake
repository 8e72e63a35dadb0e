# The option QB_BUILD_PYTHON: the Python module qbcantp (python/), built with pybind11 for the
# interpreter Python3_EXECUTABLE (default /usr/bin/python3, the interpreter Debian's python3-*
# packages belong to; a python3 found first on PATH may be another one).
#
# On by default when that interpreter's development files and pybind11 are found, when no
# sanitizer is configured (a sanitized extension cannot be loaded into an interpreter that was
# not started with the sanitizer runtime) and when not cross-compiling (the build machine's
# interpreter cannot load a module built for the target).

if(NOT DEFINED Python3_EXECUTABLE AND EXISTS /usr/bin/python3)
    set(Python3_EXECUTABLE /usr/bin/python3 CACHE FILEPATH "Interpreter the Python module is built for")
endif()

find_package(Python3 COMPONENTS Interpreter Development.Module QUIET)
set(PYBIND11_FINDPYTHON ON)
find_package(pybind11 CONFIG QUIET)

set(qb_python_default OFF)
if(Python3_FOUND AND pybind11_FOUND AND NOT QB_SANITIZE AND NOT CMAKE_CROSSCOMPILING)
    set(qb_python_default ON)
endif()
option(QB_BUILD_PYTHON "Build the Python module qbcantp (needs pybind11 and Python 3 development files)"
       ${qb_python_default})

if(QB_BUILD_PYTHON AND NOT (Python3_FOUND AND pybind11_FOUND))
    message(FATAL_ERROR "QB_BUILD_PYTHON is ON but the Python 3 development files (${Python3_EXECUTABLE}) "
                        "or pybind11 were not found: install python3-dev python3-pybind11 pybind11-dev")
endif()
