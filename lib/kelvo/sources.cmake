# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

list(APPEND KELVO_SOURCES
  kelvo/kelvo.cpp
  kelvo/listeners.cpp
  kelvo/main_thread.cpp
  kelvo/request_box.cpp
  kelvo/scan_loop.cpp
  kelvo/scan_loop_end.cpp
  kelvo/tuner_slot.cpp
)
list(APPEND KELVO_PUBLIC_HEADERS
  kelvo/device_event.h
  kelvo/kelvo.h
  kelvo/main_thread.h
  kelvo/receiver_profile.h
  kelvo/scan_end.h
)
