# 32-bit ARM with hardware floating point, Debian's cross compiler. scripts/cross-armhf makes the sysroot:
# SQLite, GoogleTest, CLI11 and the JSON library; the C and C++ libraries are the compiler's own.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

set(TAVIRN_SYSROOT "" CACHE PATH "Where the target's packages are unpacked")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TAVIRN_SYSROOT)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH ${TAVIRN_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# All of it is built by one compiler: how older ones passed arguments is no matter.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
# As on the device: small.
set(CMAKE_CXX_FLAGS_MINSIZEREL_INIT "-Os -DNDEBUG")
# The emulator refuses a program that wants to adopt its orphans: this machine's own one asks for it.
set(CMAKE_CROSSCOMPILING_EMULATOR ${TAVIRN_SYSROOT}/adopting qemu-arm -L /usr/arm-linux-gnueabihf)
