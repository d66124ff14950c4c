# 32-bit ARM with hardware floating point, by Debian's cross compiler. The result runs on the target
# or, as the tests do, under qemu's user emulation with the build machine's ARM C library.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# No notes on what differs from compilers before GCC 7.1. Tables also for functions that throw nothing:
# a call stack ends at a function without.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi -funwind-tables")
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm)

# The build machine's own libraries and headers are not the target's.
set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)  # also packages in a prefix of their own
