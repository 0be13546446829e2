# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

# Toolchain of a machine whose numbers are big-endian: 64-bit, the only such one that Debian 12 has.
set(architecture s390x)
set(machine s390x-linux-gnu)
include("${CMAKE_CURRENT_LIST_DIR}/cross.cmake")
