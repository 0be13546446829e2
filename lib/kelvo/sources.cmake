# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

list(APPEND KELVO_SOURCES
  kelvo/channel_lookup.cpp
  kelvo/kelvo.cpp
  kelvo/listeners.cpp
  kelvo/main_thread.cpp
  kelvo/now_and_next.cpp
  kelvo/request_box.cpp
  kelvo/scan_loop.cpp
  kelvo/scan_loop_end.cpp
  kelvo/stored_text.cpp
  kelvo/tuner_slot.cpp
)
list(APPEND KELVO_PUBLIC_HEADERS
  kelvo/channel_lookup.h
  kelvo/device_event.h
  kelvo/kelvo.h
  kelvo/main_thread.h
  kelvo/now_and_next.h
  kelvo/receiver_profile.h
  kelvo/scan_end.h
)
