list(APPEND KELVO_SOURCES
  kelvo/kelvo.cpp
  kelvo/main_thread.cpp
  kelvo/scan_loop.cpp
  kelvo/tuner_slot.cpp
)
list(APPEND KELVO_PUBLIC_HEADERS
  kelvo/kelvo.h
  kelvo/main_thread.h
  kelvo/scan_end.h
)
