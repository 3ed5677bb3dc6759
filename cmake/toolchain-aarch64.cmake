# Cross build for Linux on 64-bit Arm (aarch64) with Debian's cross toolchain
# (g++-aarch64-linux-gnu) and the target's libraries installed as multiarch
# packages (libcjson-dev:arm64, libssl-dev:arm64, libgtest-dev:arm64, ...)
# under /usr/lib/aarch64-linux-gnu. Test programs run under qemu-user.
#
#   cmake -S . -B /tmp/build-aarch64 \
#         -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-aarch64.cmake
#
# scripts/test-aarch64.sh installs what this needs and runs the whole suite.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(KOLT_TARGET_TRIPLE aarch64-linux-gnu)
set(CMAKE_LIBRARY_ARCHITECTURE ${KOLT_TARGET_TRIPLE})

find_program(KOLT_CROSS_CC  ${KOLT_TARGET_TRIPLE}-gcc REQUIRED)
find_program(KOLT_CROSS_CXX ${KOLT_TARGET_TRIPLE}-g++ REQUIRED)
set(CMAKE_C_COMPILER   ${KOLT_CROSS_CC})
set(CMAKE_CXX_COMPILER ${KOLT_CROSS_CXX})
# The target's binutils (ar, nm, readelf, ...) are found by CMake from the
# compiler's name prefix.

# Libraries and packages come from the cross sysroot and from the multiarch
# directories of the host root (/usr/lib/aarch64-linux-gnu); programs are
# the host's.
set(CMAKE_FIND_ROOT_PATH /usr/${KOLT_TARGET_TRIPLE} /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config must describe the target's libraries, not the host's.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/${KOLT_TARGET_TRIPLE}/pkgconfig:/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "")

# Test programs (and GoogleTest's test discovery) run under qemu-user. The
# target's C library, libstdc++ and the other run-time libraries are the
# multiarch packages (libc6:arm64, ...), found at their usual paths, so no
# -L prefix is given: the cross sysroot's C library must not be mixed with
# the multiarch one at run time. scripts/test-aarch64.sh passes its own
# emulator command (qemu-user with a preloaded helper for the legacy termio
# requests, which qemu-user does not translate).
if(NOT CMAKE_CROSSCOMPILING_EMULATOR)
  find_program(KOLT_QEMU NAMES qemu-aarch64-static qemu-aarch64)
  if(KOLT_QEMU)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${KOLT_QEMU} CACHE STRING "runs target programs")
  endif()
endif()
