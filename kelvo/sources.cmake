list(APPEND KELVO_SOURCES
)
list(APPEND KELVO_PUBLIC_HEADERS
  kelvo/kelvo.h
  kelvo/main_thread.h
  kelvo/thread.h
)
