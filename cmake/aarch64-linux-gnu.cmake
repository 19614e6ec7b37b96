# Cross build for 64-bit Arm Linux on a Debian x86_64 machine with the arm64
# architecture enabled (scripts/install-deps.sh installs the cross compiler,
# the :arm64 libraries and qemu-user). Tests run through qemu-aarch64, which
# finds the arm64 dynamic loader installed by libc6:arm64. Do not pass -L to
# qemu: with libc6:arm64 installed it makes threaded programs hang.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64)

# pkgconf:arm64 provides the target's pkg-config, so that OpenSSL and SQLite
# are found for the right architecture.
set(PKG_CONFIG_EXECUTABLE /usr/bin/aarch64-linux-gnu-pkg-config CACHE FILEPATH "")

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
