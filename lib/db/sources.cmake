list(APPEND KELVO_SOURCES
  db/errors.cpp
  db/guide_services.cpp
  db/sdbl.cpp
  db/sdbl_backup.cpp
  db/eit_scan_list.cpp
  db/sdbl_epg.cpp
  db/sdbl_files.cpp
  db/sdbl_merge.cpp
  db/sdbl_room.cpp
  db/sdbl_rows.cpp
  db/sdbl_scan.cpp
  db/sdbl_schema.cpp
  db/sdbl_sql.cpp
  db/sdbl_time.cpp
  db/sdbl_timezone.cpp
  db/sdbl_tuner.cpp
)
list(APPEND KELVO_PUBLIC_HEADERS
  db/ca_pid.h
  db/database_error.h
  db/epg_cache.h
  db/no_file_error.h
  db/pmt_subtxt_lang.h
  db/sdbl.h
  db/sql_cache.h
  db/sql_query.h
)
