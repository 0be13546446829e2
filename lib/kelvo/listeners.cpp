#include "kelvo/listeners.h"

void Listeners::set_scan(Kelvo::scan_listener_t listener, void* data) {
  const std::lock_guard<std::mutex> lock(lock_);
  scan_ = {listener, data};
}

void Listeners::set_time(Kelvo::time_listener_t listener, void* data) {
  const std::lock_guard<std::mutex> lock(lock_);
  time_ = {listener, data};
}

void Listeners::set_activity(const Activity_listener& listener) {
  const std::lock_guard<std::mutex> lock(lock_);
  activity_ = listener;
}

void Listeners::tell(const Scan_end& end) const {
  Listener<Kelvo::scan_listener_t> listener;
  {
    const std::lock_guard<std::mutex> lock(lock_);
    listener = scan_;
  }
  // Without the lock: a listener may make requests, and may be exchanged meanwhile.
  if (listener.call != nullptr)
    listener.call(listener.data, end);
}

void Listeners::tell(const Broadcast_time& time) const {
  Listener<Kelvo::time_listener_t> listener;
  {
    const std::lock_guard<std::mutex> lock(lock_);
    listener = time_;
  }
  if (listener.call != nullptr)
    listener.call(listener.data, time);
}

Activity_listener Listeners::activity() const {
  const std::lock_guard<std::mutex> lock(lock_);
  return activity_;
}
