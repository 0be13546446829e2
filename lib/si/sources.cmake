list(APPEND KELVO_SOURCES
  si/section_guard.cpp
  si/siparse.cpp
  si/siparse_descriptors.cpp
  si/siparse_dispatch.cpp
  si/siparse_eit.cpp
  si/siparse_event_descriptors.cpp
  si/siparse_nit.cpp
  si/siparse_nit_descriptors.cpp
  si/siparse_psi.cpp
  si/siparse_sdt.cpp
  si/siparse_stream_descriptors.cpp
  si/siparse_text.cpp
  si/siparse_text_test.cpp
  si/siparse_time.cpp
)
list(APPEND KELVO_PUBLIC_HEADERS
  si/broadcast_time.h
  si/eit_lang.h
  si/eit_progress.h
  si/siparse.h
)
