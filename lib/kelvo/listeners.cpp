// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "kelvo/listeners.h"

#include "base/lock_order.h"

void Listeners::set_scan(Kelvo::scan_listener_t listener, void* data) {
  const std::lock_guard<Mutex> lock(lock_);
  scan_ = listener;
  scan_data_ = data;
}

void Listeners::set_device(Kelvo::device_listener_t listener, void* data) {
  const std::lock_guard<Mutex> lock(lock_);
  device_ = listener;
  device_data_ = data;
}

void Listeners::set_activity(const Activity_listener& listener) {
  const std::lock_guard<Mutex> lock(lock_);
  activity_ = listener;
}

void Listeners::tell(const Scan_end& end) const {
  Kelvo::scan_listener_t listener = nullptr;
  void* data = nullptr;
  {
    const std::lock_guard<Mutex> lock(lock_);
    listener = scan_;
    data = scan_data_;
  }
  // Without the lock: a listener may make requests, and may be exchanged meanwhile.
  lock_order::hold_none("scan listener");
  if (listener != nullptr)
    listener(data, end);
}

void Listeners::tell(const Device_event& event) const {
  Kelvo::device_listener_t listener = nullptr;
  void* data = nullptr;
  {
    const std::lock_guard<Mutex> lock(lock_);
    listener = device_;
    data = device_data_;
  }
  lock_order::hold_none("device listener");
  if (listener != nullptr)
    listener(data, event);
}

Activity_listener Listeners::activity() const {
  const std::lock_guard<Mutex> lock(lock_);
  return activity_;
}
