# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

list(APPEND KELVO_SOURCES
  base/lock_order.cpp
  base/log.cpp
  base/polled_timer.cpp
  base/receiver_profile.cpp
  base/thread.cpp
)
list(APPEND KELVO_PUBLIC_HEADERS
  base/activity.h
  base/export.h
  base/ids.h
  base/messages.h
  base/receiver_profile.h
  base/thread.h
  base/types.h
)
