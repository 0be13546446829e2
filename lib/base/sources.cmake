list(APPEND KELVO_SOURCES
  base/log.cpp
)
list(APPEND KELVO_PUBLIC_HEADERS
  base/export.h
  base/log.h
  base/types.h
)
