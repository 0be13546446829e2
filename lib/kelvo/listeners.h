// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "base/mutex.h"
#include "kelvo/kelvo.h"

// Who is told what the worker of a Kelvo does. Any-thread. No lock is held while a listener runs.
class Listeners {
 public:
  void set_scan(Kelvo::scan_listener_t listener, void* data);
  void set_device(Kelvo::device_listener_t listener, void* data);
  void set_activity(const Activity_listener& listener);

  void tell(const Scan_end& end) const;
  void tell(const Device_event& event) const;

  // A copy, to be asked for once a pass.
  Activity_listener activity() const;

 private:
  mutable Mutex lock_{Lock_rank::ALONE, "listeners"};  // guards everything; a leaf
  Kelvo::scan_listener_t scan_ = nullptr;
  void* scan_data_ = nullptr;  // not owned
  Kelvo::device_listener_t device_ = nullptr;
  void* device_data_ = nullptr;  // not owned
  Activity_listener activity_;
};
