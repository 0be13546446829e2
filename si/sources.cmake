list(APPEND KELVO_SOURCES
  si/section_guard.cpp
)
list(APPEND KELVO_PUBLIC_HEADERS
  si/eit_lang.h
  si/siparse.h
)
