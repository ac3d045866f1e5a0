# Shared part of the 32-bit little-endian ARM Linux (glibc) cross builds with
# Debian's cross compilers. Not used directly: arm-linux-gnueabihf.cmake
# (hardware floating point, package g++-arm-linux-gnueabihf) and
# arm-linux-gnueabi.cmake (software floating point for processors without an
# FPU, package g++-arm-linux-gnueabi) set TRAVIK_CROSS_TRIPLET and include it.
#
# Test programs run through qemu-user (package qemu-user) when it is
# installed, so ctest and the GoogleTest discovery work on the build machine.
# Benchmarks, fuzz targets and applications are not built. Optional
# third-party libraries (ALSA, SDL2, libpng, ...) are looked up only in the
# target's multiarch directories; plugins whose library is missing there are
# skipped.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(CMAKE_C_COMPILER ${TRAVIK_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${TRAVIK_CROSS_TRIPLET}-g++)

# Headers and libraries of the target come from the cross sysroot and the
# target's multiarch directories only; programs (cmake, pkg-config) from the host.
set(CMAKE_FIND_ROOT_PATH /usr/${TRAVIK_CROSS_TRIPLET})
set(CMAKE_LIBRARY_ARCHITECTURE ${TRAVIK_CROSS_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# pkg-config must not hand out the build machine's x86_64 libraries.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${TRAVIK_CROSS_TRIPLET}/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

find_program(TRAVIK_QEMU_ARM qemu-arm)
if(TRAVIK_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${TRAVIK_QEMU_ARM} -L /usr/${TRAVIK_CROSS_TRIPLET})
endif()

set(TRAVIK_BUILD_BENCH OFF CACHE BOOL "" FORCE)
set(TRAVIK_BUILD_FUZZ OFF CACHE BOOL "" FORCE)
set(TRAVIK_BUILD_APPS OFF CACHE BOOL "" FORCE)
