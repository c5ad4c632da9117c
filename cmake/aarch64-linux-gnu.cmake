# SPDX-License-Identifier: Apache-2.0
# The cross compiler that Debian calls aarch64-linux-gnu-g++. Headers and libraries are those of
# Debian's packages for arm64 ("scripts/deps arm64"), or with -DCMAKE_SYSROOT=FOLDER a board's own.
# Programs of the build run under qemu, which finds Debian's libraries by itself.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
if(CMAKE_SYSROOT)
  set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
  set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
  set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
else()
  set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static)
  # Headers and programs of this machine serve; libraries of it do not.
  set(CMAKE_FIND_ROOT_PATH /usr/lib/aarch64-linux-gnu /usr)
  set(CMAKE_IGNORE_PATH /usr/lib/x86_64-linux-gnu /usr/lib/x86_64-linux-gnu/cmake)
endif()
