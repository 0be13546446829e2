# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

list(APPEND KELVO_SOURCES
  si/channel_numbers.cpp
  si/countries.cpp
  si/descriptors.cpp
  si/descriptors_event.cpp
  si/descriptors_event_details.cpp
  si/descriptors_network.cpp
  si/descriptors_service.cpp
  si/descriptors_stream.cpp
  si/descriptors_time.cpp
  si/dispatch.cpp
  si/dvb_text.cpp
  si/eit.cpp
  si/guide_round.cpp
  si/iconv_decoder.cpp
  si/iso_6937.cpp
  si/local_offsets.cpp
  si/network_found.cpp
  si/nit.cpp
  si/other.cpp
  si/other_tables.cpp
  si/pat.cpp
  si/plain_text.cpp
  si/pmt.cpp
  si/scan_rows.cpp
  si/sdt.cpp
  si/section_guard.cpp
  si/services_found.cpp
  si/siparse.cpp
  si/stream_names.cpp
  si/standard_text.cpp
  si/system_clock.cpp
  si/table_watch.cpp
  si/text_samples.cpp
  si/time.cpp
  si/visible_events.cpp
  si/whole_guide.cpp
  si/whole_guide_reader.cpp
  si/whole_tables.cpp
)
list(APPEND KELVO_PUBLIC_HEADERS
  si/announced_multiplex.h
  si/broadcast_time.h
  si/eit_lang.h
  si/eit_progress.h
  si/guide_change.h
  si/siparse.h
)
