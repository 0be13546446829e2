# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

# The section and descriptor classes of <dvbsi++/...>: our own; the system's libdvbsi++ (system), or that where there is
# one (auto). Sets KELVO_DVBSI_SYSTEM and defines kelvo_dvbsi, to be linked by whoever includes those headers, and
# kelvo_dvbsi_classes, to be linked by whoever makes objects of the classes without being part of the library.
set(KELVO_DVBSI_SYSTEM OFF)
if(NOT KELVO_DVBSI STREQUAL "own")
  pkg_check_modules(DVBSI IMPORTED_TARGET libdvbsi++)
  if(DVBSI_FOUND)
    set(KELVO_DVBSI_SYSTEM ON)
  elseif(KELVO_DVBSI STREQUAL "system")
    message(FATAL_ERROR "KELVO_DVBSI=system, but pkg-config does not know libdvbsi++. Install it, or use auto or own.")
  endif()
endif()

if(KELVO_DVBSI_SYSTEM)
  message(STATUS "libdvbsi++: the system's, ${DVBSI_VERSION}")
  add_library(kelvo_dvbsi INTERFACE)
  target_link_libraries(kelvo_dvbsi INTERFACE PkgConfig::DVBSI)
  target_compile_definitions(kelvo_dvbsi INTERFACE KELVO_DVBSI_SYSTEM)  # the parser then hands over safe copies
  add_library(kelvo_dvbsi_classes ALIAS kelvo_dvbsi)
else()
  message(STATUS "libdvbsi++: our own, in lib/dvbsi/")
  add_subdirectory(lib/dvbsi)
endif()
