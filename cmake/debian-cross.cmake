# Shared part of the toolchain files toolchain-<triplet>.cmake, which set
# HX_TRIPLET (the GNU triplet of a Debian architecture), HX_QEMU (the qemu-user
# program for it) and CMAKE_SYSTEM_PROCESSOR, then include this file.
#
# Compiler: Debian's cross gcc (gcc-<triplet>, from crossbuild-essential-<arch>),
# which brings its own C library for compiling and linking
# (/usr/<triplet>, libc6-dev-<arch>-cross).
# Libraries: the target root HX_SYSROOT that scripts/install-cross-deps
# unpacks from Debian's packages for the architecture (libc6, libevent, json-c,
# gdbm, mbed TLS, libcrypt, GoogleTest; runtime and -dev), laid out as
# on a Debian system of that architecture (/usr/lib/<triplet>, /usr/include).
# Everything is found there, never on the host.
# Emulator: ctest runs every test program as HX_QEMU -L HX_SYSROOT PROGRAM, so
# the dynamic loader and every library come from the target root.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_CXX_COMPILER ${HX_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${HX_TRIPLET})

if(NOT HX_SYSROOT)
  if(DEFINED ENV{HX_SYSROOT_BASE})
    set(HX_SYSROOT "$ENV{HX_SYSROOT_BASE}/${HX_TRIPLET}")
  else()
    set(HX_SYSROOT "/opt/hxsrvd-sysroot/${HX_TRIPLET}")
  endif()
endif()
set(HX_SYSROOT "${HX_SYSROOT}" CACHE PATH "target root of ${HX_TRIPLET} (scripts/install-cross-deps)")
if(NOT EXISTS "${HX_SYSROOT}/usr/lib/${HX_TRIPLET}")
  message(FATAL_ERROR "no target root for ${HX_TRIPLET} in ${HX_SYSROOT}: run scripts/install-cross-deps")
endif()
# try_compile projects re-read this file; they get the same root.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES HX_SYSROOT)

set(CMAKE_SYSROOT "${HX_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${HX_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The host's pkg-config, reading only the target's multiarch .pc files; their
# -I/usr/include and -L/usr/lib/<triplet> are moved into the target root.
set(ENV{PKG_CONFIG_LIBDIR}
    "${HX_SYSROOT}/usr/lib/${HX_TRIPLET}/pkgconfig:${HX_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${HX_SYSROOT}")
unset(ENV{PKG_CONFIG_PATH})

set(CMAKE_CROSSCOMPILING_EMULATOR ${HX_QEMU} -L ${HX_SYSROOT})
