list(APPEND KELVO_SOURCES
)
list(APPEND KELVO_PUBLIC_HEADERS
  trace/tdi_lookup.h
  trace/timedoc.h
)
