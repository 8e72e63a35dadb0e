# Cross build for 32-bit ARM Linux (ARMv7, hard-float ABI) with Debian's cross compiler
# (package g++-arm-linux-gnueabihf). Tests run under user-mode QEMU (package qemu-user-static):
# CTest starts every test program through CMAKE_CROSSCOMPILING_EMULATOR, and the tests that
# start a child process (tests/common/Subprocess) start it through the same emulator.
#
# Usage: cmake --preset armv7   (or: cmake -DCMAKE_TOOLCHAIN_FILE=<this file> ...)
# See docs/armv7.md.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)

set(QB_ARM_TRIPLE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${QB_ARM_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${QB_ARM_TRIPLE}-g++)

# Libraries, headers and packages for the target come from the cross sysroot only; programs run
# at build time (none so far) come from the build machine.
set(CMAKE_FIND_ROOT_PATH /usr/${QB_ARM_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# -L: the target's dynamic loader and shared libraries (libstdc++, libc) live in the cross
# sysroot, not in / of the build machine.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static;-L;/usr/${QB_ARM_TRIPLE})
