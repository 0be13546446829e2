# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

# The part of a toolchain file that all foreign machines share: Debian's cross compiler for `machine`, and the libraries
# of its `architecture` that scripts/cross-root has unpacked. Its programs start as if they were this machine's own, by
# scripts/run-foreign; otherwise with qemu and the folder of libraries.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR "${architecture}")
set(CMAKE_C_COMPILER "${machine}-gcc")
set(CMAKE_CXX_COMPILER "${machine}-g++")
set(CMAKE_LIBRARY_ARCHITECTURE "${machine}")
get_filename_component(foreign_root "${CMAKE_CURRENT_LIST_DIR}/../build/${architecture}-root" ABSOLUTE)
set(CMAKE_FIND_ROOT_PATH "${foreign_root}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${foreign_root}")
set(ENV{PKG_CONFIG_LIBDIR} "${foreign_root}/usr/lib/${machine}/pkgconfig")
