# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

list(APPEND KELVO_SOURCES
  tuner/frontend.cpp
  tuner/readings.cpp
  tuner/signal_monitor.cpp
  tuner/tuner.cpp
  tuner/tuner_quality.cpp
)
list(APPEND KELVO_PUBLIC_HEADERS
  tuner/monitor_thread.h
  tuner/reception.h
  tuner/tuner.h
)
