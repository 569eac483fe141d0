# A big-endian 64-bit target that Debian 12 supports (s390x), so that byte-order
# mistakes show up in the unit tests.
#   cmake -S . -B build-s390x --toolchain cmake/toolchain-s390x-linux-gnu.cmake
# scripts/build-device --arch s390x does this; see README "Building for the device".
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(HX_TRIPLET s390x-linux-gnu)
set(HX_QEMU qemu-s390x)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
