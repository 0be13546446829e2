# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

list(APPEND KELVO_SOURCES
  trace/timedoc.cpp
  trace/timedoc_convert.cpp
)
list(APPEND KELVO_PUBLIC_HEADERS
  trace/tdi_lookup.h
  trace/timedoc.h
)
