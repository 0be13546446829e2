// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "tools/engine/adapter.h"

// Requests for frequencies of which nothing more is known.
std::vector<Tuning_request> requests_for(const std::vector<int>& freqs);

// Adapters at work on a list of frequencies: each has a thread, on which it takes the next frequency that it receives
// until none is left and no adapter can add one. The thread that made the engine waits for fd() and shows what the job
// has come to.
class Engine {
 public:
  // What an adapter does with one frequency, on the adapter's thread. Returns soon once the adapter is stopped.
  using Job = std::function<void(Adapter& adapter, const Tuning_request& request)>;

  // A frequency that an adapter is working on.
  struct Under_way {
    int freq;
    Signal_value strength;
    double seconds;  // since it was taken
  };

  // One adapter for each frontend, by number. Throws Failure when there are too many open files.
  Engine(const std::map<int, Frontend_info>& frontends, const std::vector<Tuning_request>& requests, Sdbl* database);
  // Stops, and waits for the adapters.
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  // Before start(), for what a job sets up on its adapters.
  const std::vector<std::unique_ptr<Adapter>>& adapters() const { return adapters_; }

  // With `grows` adapters that have nothing left wait for those that are at work, which may add() something.
  void start(Job job, bool grows = false);

  // More frequencies, from a job of an engine that grows.
  void add(const std::vector<Tuning_request>& requests);

  // Readable after something changed: a frequency is done, or an adapter has ended. calm() makes it wait again.
  int fd() const { return wake_; }
  void calm();

  // Whether no adapter works any more; their Kelvos may still be on their way out, which join() waits for.
  bool ended() const;
  void join();

  // Lets nobody take another frequency.
  void close();
  // That, and every adapter is stopped. Called again each STOP_INTERVAL_MS until all have ended, it ends what began
  // meanwhile.
  static constexpr int STOP_INTERVAL_MS = 100;
  void stop();

  std::vector<Under_way> under_way() const;
  // How many frequencies wait for an adapter that receives them.
  size_t waiting() const;
  // The adapters whose device has gone. What they were at is given back, for others.
  std::vector<int> gone() const;
  // The frequencies that nobody began, or that were given back, and among them those that no adapter receives.
  std::vector<Tuning_request> left() const;
  std::vector<int> unreceivable() const;
  bool receivable(const Tuning_request& request) const;

 private:
  void run(Adapter& adapter);
  bool take(const Adapter& adapter, Tuning_request* request);
  void give_back(const Adapter& adapter, const Tuning_request& request);
  void wake() const;

  int wake_;
  std::vector<std::unique_ptr<Adapter>> adapters_;
  Job job_;
  bool grows_ = false;
  struct Taken {
    int freq;
    Adapter::Clock::time_point since;
  };
  mutable std::mutex mutex_;  // guards what follows
  std::condition_variable changed_;
  std::deque<Tuning_request> left_;
  std::map<const Adapter*, Taken> taken_;  // what each is working on
  size_t working_;
  bool closed_ = false;
  std::vector<std::thread> threads_;  // used by the owner only
};
