list(APPEND KELVO_SOURCES
  trace/timedoc.cpp
  trace/timedoc_convert.cpp
)
list(APPEND KELVO_PUBLIC_HEADERS
  trace/tdi_lookup.h
  trace/timedoc.h
)
