# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

# Toolchain of the set-top box: 32-bit MIPS, little-endian. Debian's cross compiler, and libraries that
# scripts/mipsel-root has unpacked.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(CMAKE_C_COMPILER mipsel-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER mipsel-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE mipsel-linux-gnu)
get_filename_component(mipsel_root "${CMAKE_CURRENT_LIST_DIR}/../build/mipsel-root" ABSOLUTE)
set(CMAKE_FIND_ROOT_PATH "${mipsel_root}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${mipsel_root}")
set(ENV{PKG_CONFIG_LIBDIR} "${mipsel_root}/usr/lib/mipsel-linux-gnu/pkgconfig")
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-mipsel)
