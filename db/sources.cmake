list(APPEND KELVO_SOURCES
)
list(APPEND KELVO_PUBLIC_HEADERS
  db/ca_pid.h
  db/epg_cache.h
  db/no_file_error.h
  db/pmt_subtxt_lang.h
  db/sdbl.h
  db/sql_cache.h
  db/sql_query.h
)
