# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

list(APPEND KELVO_SOURCES
  db/at_once.cpp
  db/channel_list.cpp
  db/connection.cpp
  db/eit_scan_list.cpp
  db/errors.cpp
  db/event_cache.cpp
  db/export_file.cpp
  db/exports.cpp
  db/file_check.cpp
  db/file_room.cpp
  db/guide.cpp
  db/guide_events.cpp
  db/guide_plan.cpp
  db/guide_room.cpp
  db/guide_section.cpp
  db/guide_services.cpp
  db/merge.cpp
  db/number_plan.cpp
  db/one_shot.cpp
  db/opening.cpp
  db/placement.cpp
  db/refresh.cpp
  db/scan_merge.cpp
  db/scan_tables.cpp
  db/schema.cpp
  db/scan_merger.cpp
  db/sdbl.cpp
  db/service_details.cpp
  db/shell_files.cpp
  db/statement_cache.cpp
  db/statements.cpp
  db/stream_details.cpp
  db/stream_merge.cpp
  db/times.cpp
  db/transaction.cpp
  db/tuner_table.cpp
  db/tuning_table.cpp
  db/zone.cpp
  db/zone_table.cpp
)
list(APPEND KELVO_PUBLIC_HEADERS
  db/ca_pid.h
  db/channel_change.h
  db/database_error.h
  db/durability.h
  db/epg_cache.h
  db/no_file_error.h
  db/pmt_subtxt_lang.h
  db/sdbl.h
  db/sql_cache.h
  db/sql_query.h
  db/stream_detail.h
)
