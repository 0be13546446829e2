# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

list(APPEND KELVO_SOURCES
  tuner/device.cpp
  tuner/driver_readings.cpp
  tuner/exact_lock.cpp
  tuner/frontend_probe.cpp
  tuner/pat_probe.cpp
  tuner/property_frontend.cpp
  tuner/search_plan.cpp
  tuner/signal_monitor.cpp
  tuner/statistics_readings.cpp
  tuner/status_lock.cpp
  tuner/tuner.cpp
  tuner/tuner_parts.cpp
  tuner/tuner_quality.cpp
  tuner/tuning_search.cpp
  tuner/version3_frontend.cpp
)
list(APPEND KELVO_PUBLIC_HEADERS
  tuner/monitor_thread.h
  tuner/reception.h
  tuner/tuner.h
)
