# The device: MIPS32 little-endian (Debian's mipsel, o32 ABI, mips32r2).
#   cmake -S . -B build-mipsel --toolchain cmake/toolchain-mipsel-linux-gnu.cmake
# scripts/build-device does this; see README "Building for the device".
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(HX_TRIPLET mipsel-linux-gnu)
set(HX_QEMU qemu-mipsel)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
