list(APPEND KELVO_SOURCES
)
list(APPEND KELVO_PUBLIC_HEADERS
  si/eit_lang.h
  si/siparse.h
)
