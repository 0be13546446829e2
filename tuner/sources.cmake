list(APPEND KELVO_SOURCES
)
list(APPEND KELVO_PUBLIC_HEADERS
  tuner/monitor_thread.h
  tuner/tuner.h
)
