// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/engine/engine.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "tools/cli/failure.h"

std::vector<Tuning_request> requests_for(const std::vector<int>& freqs) {
  std::vector<Tuning_request> out(freqs.size());
  for (size_t i = 0; i < freqs.size(); ++i) {
    out[i].freq = freqs[i];
  }
  return out;
}

Engine::Engine(const std::map<int, Frontend_info>& frontends, const std::vector<Tuning_request>& requests,
               Sdbl* database)
    : wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      left_(requests.begin(), requests.end()),
      working_(frontends.size()) {
  if (wake_ < 0) {
    throw Failure("cannot make an event descriptor: too many open files?");
  }
  for (const auto& [number, frontend] : frontends) {
    adapters_.push_back(std::make_unique<Adapter>(number, frontend, database));
  }
}

// Threads use the adapters and the list, so they end before either goes. The stop makes that a matter of one merge at
// most.
Engine::~Engine() {
  pollfd changed{wake_, POLLIN, 0};
  for (stop(); !ended(); stop()) {
    (void)poll(&changed, 1, STOP_INTERVAL_MS);
    calm();
  }
  join();
  (void)::close(wake_);
}

void Engine::start(Job job, bool grows) {
  job_ = std::move(job);
  grows_ = grows;
  for (const auto& adapter : adapters_) {
    threads_.emplace_back(&Engine::run, this, std::ref(*adapter));
  }
}

void Engine::run(Adapter& adapter) {
  for (Tuning_request request; take(adapter, &request);) {
    wake();
    job_(adapter, request);
    if (adapter.gone()) {
      give_back(adapter, request);
      break;
    }
  }
  {
    const std::lock_guard lock(mutex_);
    --working_;
  }
  // Said before the tear-down, so that a report does not wait for it.
  wake();
  adapter.release();
}

bool Engine::take(const Adapter& adapter, Tuning_request* request) {
  std::unique_lock lock(mutex_);
  taken_.erase(&adapter);
  changed_.notify_all();
  // The first one that this adapter receives, not the first of all: with frontends of different range none waits for a
  // frequency that only another one can take.
  auto next = left_.end();
  changed_.wait(lock, [&] {
    next = std::find_if(left_.begin(), left_.end(), [&](const auto& one) { return adapter.receives(one); });
    return closed_ || next != left_.end() || !grows_ || taken_.empty();
  });
  if (closed_ || next == left_.end()) {
    return false;
  }
  *request = *next;
  taken_[&adapter] = {next->freq, Adapter::Clock::now()};
  left_.erase(next);
  return true;
}

void Engine::give_back(const Adapter& adapter, const Tuning_request& request) {
  const std::lock_guard lock(mutex_);
  taken_.erase(&adapter);
  left_.push_front(request);
  changed_.notify_all();
}

void Engine::add(const std::vector<Tuning_request>& requests) {
  const std::lock_guard lock(mutex_);
  left_.insert(left_.end(), requests.begin(), requests.end());
  changed_.notify_all();
}

void Engine::wake() const {
  (void)eventfd_write(wake_, 1);  // Fails only when it is readable anyway.
}

// Called before the state is looked at, so that a change that comes in between wakes the caller once more and is not
// missed.
void Engine::calm() {
  eventfd_t count = 0;
  (void)eventfd_read(wake_, &count);
}

bool Engine::ended() const {
  const std::lock_guard lock(mutex_);
  return working_ == 0;
}

void Engine::join() {
  for (std::thread& thread : threads_) {
    thread.join();
  }
  threads_.clear();
}

void Engine::close() {
  const std::lock_guard lock(mutex_);
  closed_ = true;
  changed_.notify_all();
}

void Engine::stop() {
  close();
  for (const auto& adapter : adapters_) {
    adapter->stop();
  }
}

std::vector<Engine::Under_way> Engine::under_way() const {
  std::vector<Under_way> out;
  for (const auto& adapter : adapters_) {
    // Asked before the lock is taken, because the adapter takes one of its own for it.
    const Signal_value strength = adapter->signal().strength;
    const std::lock_guard lock(mutex_);
    if (const auto taken = taken_.find(adapter.get()); taken != taken_.end()) {
      const std::chrono::duration<double> seconds = Adapter::Clock::now() - taken->second.since;
      out.push_back({taken->second.freq, strength, seconds.count()});
    }
  }
  return out;
}

bool Engine::receivable(const Tuning_request& request) const {
  return std::any_of(adapters_.begin(), adapters_.end(),
                     [&request](const auto& adapter) { return adapter->receives(request); });
}

size_t Engine::waiting() const {
  const std::lock_guard lock(mutex_);
  return static_cast<size_t>(
      std::count_if(left_.begin(), left_.end(), [this](const auto& one) { return receivable(one); }));
}

std::vector<int> Engine::gone() const {
  std::vector<int> out;
  for (const auto& adapter : adapters_) {
    if (adapter->gone()) {
      out.push_back(adapter->number());
    }
  }
  return out;
}

std::vector<Tuning_request> Engine::left() const {
  const std::lock_guard lock(mutex_);
  return {left_.begin(), left_.end()};
}

std::vector<int> Engine::unreceivable() const {
  std::vector<int> out;
  for (const Tuning_request& request : left()) {
    if (!receivable(request)) {
      out.push_back(request.freq);
    }
  }
  return out;
}
