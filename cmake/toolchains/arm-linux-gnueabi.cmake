# Cross build for 32-bit little-endian ARM Linux (glibc) with software
# floating point (armel), the ABI of processors without an FPU, with
# Debian's g++-arm-linux-gnueabi:
#
#   cmake -S . -B build-armel \
#     -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/arm-linux-gnueabi.cmake
#
# Every floating-point operation becomes a call into the compiler's run-time
# library (__aeabi_fadd, __aeabi_dmul, ...), which makes floating point in a
# per-sample or per-pixel path visible in the disassembly.
set(TRAVIK_CROSS_TRIPLET arm-linux-gnueabi)
include(${CMAKE_CURRENT_LIST_DIR}/arm-linux.cmake)
