// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/engine/adapter.h"

#include <cerrno>
#include <utility>

Adapter::Adapter(int number, Frontend_info frontend, Sdbl* database)
    : number_(number),
      frontend_(std::move(frontend)),
      kelvo_(std::make_unique<Kelvo>(number, 0, 0, database, true, nullptr, frontend_.profile)) {
  check_frontend(number, kelvo_->frontend_state());
  kelvo_->set_scan_listener(on_scan_end, this);
  kelvo_->set_device_listener(on_device, this);
  kelvo_->set_time_listener(on_time, this);
}

// On the library's worker.
void Adapter::on_time(void* self, const Broadcast_time& time) {
  auto* adapter = static_cast<Adapter*>(self);
  const Time_news news(time);  // at once: it compares with the clock
  const std::lock_guard lock(adapter->mutex_);
  if (time.clock != CLOCK_RIGHT && !adapter->clock_news_) {
    adapter->clock_news_ = news;
  }
}

// On the library's worker.
void Adapter::on_device(void* self, const Device_event& event) {
  auto* adapter = static_cast<Adapter*>(self);
  const std::lock_guard lock(adapter->mutex_);
  adapter->gone_ = adapter->gone_ || event.kind == DEVICE_GONE;
  adapter->changed_.notify_all();
}

// On the library's worker, right before the answer to the same scan: kept until the answer takes it along.
void Adapter::on_scan_end(void* self, const Scan_end& end) {
  auto* adapter = static_cast<Adapter*>(self);
  const std::lock_guard lock(adapter->mutex_);
  adapter->last_end_ = end;
}

void Adapter::on_answer(void* data, int result) {
  auto* request = static_cast<Request*>(data);
  Adapter* owner = request->owner;
  const std::lock_guard lock(owner->mutex_);
  // A second answer to the same request is dropped: the caller may already be waiting for that to the next one.
  if (!request->answered) {
    request->answered = true;
    request->answer.kind = result == 0 ? Answer::Kind::SCANNED : Answer::Kind::NO_STREAM;
    request->answer.end = owner->last_end_;
    owner->changed_.notify_all();
  }
}

bool Adapter::tune(const Tuning_request& wanted) {
  Request* request = nullptr;
  {
    const std::lock_guard lock(mutex_);
    if (stopped_) {
      return false;
    }
    // A deque moves none of its elements, so the pointer that the library holds stays good while others are added.
    requests_.push_back({this});
    request = &requests_.back();
  }
  if (stopped() || gone()) {
    return false;
  }
  const bool tuned = kelvo_->tune_to(wanted, -1, request, on_answer) != 0;
  // The worker may be a moment behind with telling it.
  if (!tuned && kelvo_->frontend_state().error == ENODEV) {
    const std::lock_guard lock(mutex_);
    gone_ = true;
  }
  return tuned;
}

std::optional<Answer> Adapter::answer(std::optional<Clock::time_point> until) {
  std::unique_lock lock(mutex_);
  // An answer that came before the stop still counts: what was scanned is in the database.
  const auto over = [this] { return requests_.back().answered || stopped_ || gone_; };
  if (until) {
    (void)changed_.wait_until(lock, *until, over);
  } else {
    changed_.wait(lock, over);
  }
  const Request& request = requests_.back();
  return request.answered ? std::optional(request.answer) : std::nullopt;
}

Answer Adapter::scan(const Tuning_request& request, std::optional<Clock::time_point> until) {
  Answer out;
  if (tune(request)) {
    out = answer(until).value_or(Answer{});
  } else if (!stopped() && !gone()) {
    out.kind = Answer::Kind::NO_LOCK;
  }
  out.tuning = last_tuning();
  out.signal = signal();
  return out;
}

void Adapter::wait(std::chrono::milliseconds time) {
  std::unique_lock lock(mutex_);
  (void)changed_.wait_for(lock, time, [this] { return stopped_ || gone_; });
}

void Adapter::stop() {
  const std::lock_guard lock(mutex_);
  stopped_ = true;
  changed_.notify_all();
  if (kelvo_) {
    kelvo_->cancel_tuning();
  }
}

bool Adapter::stopped() const {
  const std::lock_guard lock(mutex_);
  return stopped_;
}

std::optional<Time_news> Adapter::clock_news() const {
  const std::lock_guard lock(mutex_);
  return clock_news_;
}

bool Adapter::gone() const {
  const std::lock_guard lock(mutex_);
  return gone_;
}

// The drawing thread may ask while the adapter's own thread is giving its Kelvo up.
Signal_readings Adapter::signal() const {
  const std::lock_guard lock(mutex_);
  return kelvo_ ? kelvo_->signal() : Signal_readings{};
}

Tuning_result Adapter::last_tuning() const {
  const std::lock_guard lock(mutex_);
  return kelvo_ ? kelvo_->last_tuning() : Tuning_result{};
}

std::vector<EIT_progress> Adapter::guide_progress() const {
  const std::lock_guard lock(mutex_);
  std::vector<EIT_progress> out;
  if (kelvo_) {
    kelvo_->eit_progress(&out);
  }
  return out;
}

std::vector<Lost_sections> Adapter::lost_sections() const {
  const std::lock_guard lock(mutex_);
  std::vector<Lost_sections> out;
  if (kelvo_) {
    kelvo_->lost_sections(&out);
  }
  return out;
}

void Adapter::release() {
  std::unique_ptr<Kelvo> last;  // deleted without the lock, which its last callbacks need
  {
    const std::lock_guard lock(mutex_);
    last = std::move(kelvo_);
  }
}
