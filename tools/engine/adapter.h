// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <tuner/reception.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include <kelvo/kelvo.h>

#include "tools/engine/device.h"
#include "tools/watch/time_texts.h"

// How the library answered a request for a frequency.
struct Answer {
  enum class Kind {
    SCANNED,    // `end` says how completely
    NO_STREAM,  // a lock, but no MPEG stream
    NO_LOCK,    // `tuning` says why
    GIVEN_UP,   // not answered: stopped, or the time was up
  } kind = Kind::GIVEN_UP;
  Scan_end end;            // of SCANNED and NO_STREAM
  Tuning_result tuning;    // how the frequency was tuned to
  Signal_readings signal;  // read last
};

// An adapter that is asked for one frequency after the other: a Kelvo, and its answers as values. One thread asks;
// stop(), stopped(), gone() and readings are for any.
class Adapter {
 public:
  using Clock = std::chrono::steady_clock;

  // `database` is not owned and outlives this object. Throws Failure when the library cannot open the frontend.
  Adapter(int number, Frontend_info frontend, Sdbl* database);
  Adapter(const Adapter&) = delete;
  Adapter& operator=(const Adapter&) = delete;

  int number() const { return number_; }
  bool receives(const Tuning_request& request) const { return frontend_.receives(request); }
  // For everything that is no request without a channel. REQUIRES: release() has not been called.
  Kelvo& kelvo() { return *kelvo_; }

  // Requests the frequency, which may take seconds; false when there is no lock, or none with a stream.
  bool tune(const Tuning_request& request);
  // Waits for the answer to the last request that had a lock. Empty when it is stopped or `until` comes first; no
  // `until` waits for ever.
  std::optional<Answer> answer(std::optional<Clock::time_point> until = std::nullopt);
  // Both, one after the other.
  Answer scan(const Tuning_request& request, std::optional<Clock::time_point> until = std::nullopt);

  // Waits so long, or until it is stopped or the device has gone.
  void wait(std::chrono::milliseconds time);
  // Ends all waiting, now and later, for a lock as well. A merge under way in the library ends first. A tuning that
  // begins at the same moment may miss it; another call ends that.
  void stop();
  bool stopped() const;
  // Whether the device has gone. It is not used again.
  bool gone() const;

  // The readings of its monitor, and how the last tuning ended; empty values behind release().
  Signal_readings signal() const;
  Tuning_result last_tuning() const;
  // How far the guides of its multiplex are, and what was lost of it; likewise.
  std::vector<EIT_progress> guide_progress() const;
  std::vector<Lost_sections> lost_sections() const;

  // The first time table that found the clock wrong, and what became of it.
  std::optional<Time_news> clock_news() const;

  // Deletes the Kelvo, after what it is writing has been written.
  void release();

 private:
  // What the library hands back with its answer. It may answer a request twice (it does on DVB-H multiplexes, for as
  // long as they are tuned), so each request has one of its own until the Kelvo is gone.
  struct Request {
    Adapter* owner;
    bool answered = false;
    Answer answer{};
  };
  static void on_scan_end(void* self, const Scan_end& end);
  static void on_device(void* self, const Device_event& event);
  static void on_time(void* self, const Broadcast_time& time);
  static void on_answer(void* request, int result);

  int number_;
  Frontend_info frontend_;
  mutable std::mutex mutex_;  // guards what follows
  std::condition_variable changed_;
  std::deque<Request> requests_;
  Scan_end last_end_;  // told on the worker right before the answer to the same scan
  bool stopped_ = false;
  bool gone_ = false;
  std::optional<Time_news> clock_news_;
  std::unique_ptr<Kelvo> kelvo_;
};
