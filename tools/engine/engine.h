// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "tools/engine/adapter.h"

// Adapters at work on a list of frequencies: each has a thread, on which it takes the next frequency that it receives
// until none is left. The thread that made the engine waits for fd() and shows what the job has come to.
class Engine {
 public:
  // What an adapter does with one frequency, on the adapter's thread. Returns soon once the adapter is stopped.
  using Job = std::function<void(Adapter& adapter, int freq)>;

  // A frequency that an adapter is working on.
  struct Under_way {
    int freq;
    float strength;
  };

  // One adapter for each frontend, by number. Throws Failure when there are too many open files.
  Engine(const std::map<int, Frontend_info>& frontends, const std::vector<int>& freqs, Sdbl* database);
  // Stops, and waits for the adapters.
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  // Before start(), for what a job sets up on its adapters.
  const std::vector<std::unique_ptr<Adapter>>& adapters() const { return adapters_; }

  void start(Job job);

  // Readable after something changed: a frequency is done, or an adapter has ended. calm() makes it wait again.
  int fd() const { return wake_; }
  void calm();

  // Whether no adapter works any more; their Kelvos may still be on their way out, which join() waits for.
  bool ended() const;
  void join();

  // Lets nobody take another frequency.
  void close();
  // That, and every adapter is stopped.
  void stop();

  std::vector<Under_way> under_way() const;
  // How many frequencies wait for an adapter that receives them.
  size_t waiting() const;
  // The frequencies that nobody began, and among them those that no adapter receives.
  std::vector<int> left() const;
  std::vector<int> unreceivable() const;

 private:
  void run(Adapter& adapter);
  bool take(const Adapter& adapter, int* freq);
  bool receivable(int freq) const;
  void wake() const;

  int wake_;
  std::vector<std::unique_ptr<Adapter>> adapters_;
  Job job_;
  mutable std::mutex mutex_;  // guards what follows
  std::deque<int> left_;
  std::map<const Adapter*, int> taken_;  // the frequency that each is working on
  size_t working_;
  bool closed_ = false;
  std::vector<std::thread> threads_;  // used by the owner only
};
