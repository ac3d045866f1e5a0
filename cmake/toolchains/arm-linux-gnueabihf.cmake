# Cross build for 32-bit little-endian ARM Linux (glibc), hardware floating
# point (armhf), with Debian's g++-arm-linux-gnueabihf:
#
#   cmake -S . -B build-arm \
#     -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/arm-linux-gnueabihf.cmake
set(TRAVIK_CROSS_TRIPLET arm-linux-gnueabihf)
include(${CMAKE_CURRENT_LIST_DIR}/arm-linux.cmake)
