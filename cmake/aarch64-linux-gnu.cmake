# Cross-compiles for 64-bit Arm Linux with Debian's aarch64-linux-gnu
# toolchain. The dependencies are Debian's arm64 multiarch packages, which
# live beside the host's in /usr (headers in /usr/include, libraries and
# their CMake and pkg-config files in /usr/lib/aarch64-linux-gnu).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# Search the arm64 multiarch directories and never the host's, so that a
# host library of the same name cannot be linked by mistake.
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_IGNORE_PATH /usr/lib/x86_64-linux-gnu /lib/x86_64-linux-gnu
    /usr/lib/x86_64-linux-gnu/cmake /usr/lib/x86_64-linux-gnu/pkgconfig)
# Programs (pkg-config, the emulator) are the host's.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)

# pkg-config has no arm64 wrapper here: point it at the arm64 .pc files.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# Test programs run under user-mode emulation; ctest and gtest's test
# discovery both go through this. The prefix holds the cross toolchain's
# loader and C++ runtime; everything else falls through to the arm64
# multiarch libraries on the host.
find_program(DTL_QEMU_AARCH64 NAMES qemu-aarch64-static qemu-aarch64)
if(DTL_QEMU_AARCH64)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${DTL_QEMU_AARCH64};-L;/usr/aarch64-linux-gnu")
endif()
