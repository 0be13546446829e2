#pragma once

#include <mutex>

#include "kelvo/kelvo.h"

// Who is told what the worker of a Kelvo does. Any-thread. No lock is held while a listener runs.
class Listeners {
 public:
  void set_scan(Kelvo::scan_listener_t listener, void* data);
  void set_time(Kelvo::time_listener_t listener, void* data);
  void set_activity(const Activity_listener& listener);

  void tell(const Scan_end& end) const;
  void tell(const Broadcast_time& time) const;

  // A copy, to be asked for once a pass.
  Activity_listener activity() const;

 private:
  template <typename Function>
  struct Listener {
    Function call = nullptr;
    void* data = nullptr;  // not owned
  };

  mutable std::mutex lock_;  // guards everything; a leaf
  Listener<Kelvo::scan_listener_t> scan_;
  Listener<Kelvo::time_listener_t> time_;
  Activity_listener activity_;
};
