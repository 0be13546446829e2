list(APPEND KELVO_SOURCES
)
list(APPEND KELVO_PUBLIC_HEADERS
  filter/dvb_filter_desc.h
  filter/section_filter.h
)
