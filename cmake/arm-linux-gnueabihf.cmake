# Cross build for 32-bit ARM boards (Debian armhf) with Debian's
# arm-linux-gnueabihf compilers and a sysroot from scripts/armhf-sysroot:
#
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake
#
# The sysroot is LUMBRA_ARMHF_SYSROOT (cache variable or environment), else
# the script's default below its cache directory.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# GCC notes on every std::vector of structs that their passing changed in GCC
# 7.1; nothing here links against code built before that, and the notes
# would bury the warnings that matter.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

if(NOT LUMBRA_ARMHF_SYSROOT)
  if(DEFINED ENV{LUMBRA_ARMHF_SYSROOT})
    set(LUMBRA_ARMHF_SYSROOT "$ENV{LUMBRA_ARMHF_SYSROOT}")
  elseif(DEFINED ENV{LUMBRA_ARMHF_CACHE})
    set(LUMBRA_ARMHF_SYSROOT "$ENV{LUMBRA_ARMHF_CACHE}/sysroot")
  elseif(DEFINED ENV{XDG_CACHE_HOME})
    set(LUMBRA_ARMHF_SYSROOT "$ENV{XDG_CACHE_HOME}/lumbra-armhf/sysroot")
  else()
    set(LUMBRA_ARMHF_SYSROOT "$ENV{HOME}/.cache/lumbra-armhf/sysroot")
  endif()
endif()
set(LUMBRA_ARMHF_SYSROOT "${LUMBRA_ARMHF_SYSROOT}" CACHE PATH "armhf sysroot (scripts/armhf-sysroot)")
if(NOT EXISTS "${LUMBRA_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf")
  message(FATAL_ERROR "no armhf sysroot at ${LUMBRA_ARMHF_SYSROOT}: run scripts/armhf-sysroot")
endif()
# try_compile projects read this file again without the cache.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES LUMBRA_ARMHF_SYSROOT)

set(CMAKE_SYSROOT "${LUMBRA_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${LUMBRA_ARMHF_SYSROOT}")
# Libraries, headers and CMake packages from the sysroot; programs run during
# the build (moc, rcc) from the host.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(ENV{PKG_CONFIG_SYSROOT_DIR} "${LUMBRA_ARMHF_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${LUMBRA_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${LUMBRA_ARMHF_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# Test discovery and ctest run the ARM binaries under qemu-arm; the wrapper
# keeps each program's own name on the process (pidof finds it, as on a box).
set(CMAKE_CROSSCOMPILING_EMULATOR
    "${CMAKE_CURRENT_LIST_DIR}/../scripts/armhf-run;-L;${LUMBRA_ARMHF_SYSROOT}")
