# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

list(APPEND KELVO_SOURCES
  filter/crc32.cpp
  filter/demux.cpp
  filter/filter_turns.cpp
  filter/section_filter.cpp
  filter/section_filter_demux.cpp
  filter/section_filter_read.cpp
)
list(APPEND KELVO_PUBLIC_HEADERS
  filter/dvb_filter_desc.h
  filter/lost_sections.h
  filter/section_filter.h
)
