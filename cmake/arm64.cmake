# Builds for Linux on ARM64 by Debian's cross compiler: cmake -DCMAKE_TOOLCHAIN_FILE=cmake/arm64.cmake. Programs that are
# to run here, tests among them, run in qemu-user.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

if(NOT DEFINED ENV{KALVRIN_ARM64_ROOT})  # once, not for every trial of the compiler
  execute_process(COMMAND ${CMAKE_CURRENT_LIST_DIR}/../scripts/arm64-root
                  OUTPUT_VARIABLE root OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  set(ENV{KALVRIN_ARM64_ROOT} ${root})
endif()
set(CMAKE_SYSROOT $ENV{KALVRIN_ARM64_ROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR} ${CMAKE_SYSROOT}/usr/lib/aarch64-linux-gnu/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)

find_program(emulator NAMES qemu-aarch64 qemu-aarch64-static)
if(emulator)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${emulator} -L ${CMAKE_SYSROOT})
endif()
