# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

# Toolchain of the set-top box: 32-bit MIPS, little-endian.
set(architecture mipsel)
set(machine mipsel-linux-gnu)
include("${CMAKE_CURRENT_LIST_DIR}/cross.cmake")
