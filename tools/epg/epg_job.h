#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <kelvo/kelvo.h>

#include "tools/engine/device.h"

enum class Guide_state { COLLECTING, COMPLETE, NO_SCHEDULE };

struct Guide_progress {
  EIT_progress service{};
  Guide_state state = Guide_state::COLLECTING;
};

enum class Guide_outcome {
  WAITING,
  RUNNING,
  DONE,
  TIME_UP,
  NOTHING_NEW,
  NO_LOCK,
  NO_STREAM,
  NO_SERVICES,
  OUT_OF_RANGE,
  STOPPED
};

std::string outcome_text(Guide_outcome outcome);

struct Guide_multiplex {
  int freq = 0;
  Guide_outcome outcome = Guide_outcome::WAITING;
  std::vector<Guide_progress> services;
};

// The multiplexes whose guide is collected, shared by the adapters' threads and the one that shows them.
class Guide_work {
 public:
  using Clock = std::chrono::steady_clock;

  // `seconds` for everything, shared by the multiplexes.
  Guide_work(const std::vector<int>& freqs, int seconds, size_t adapters);

  // The place of a multiplex that nobody has taken and this frontend receives, now taken; -1 for none.
  int take(const Frontend_info& frontend);
  // Ends every multiplex that no frontend receives.
  void leave_out_unreceivable(const std::vector<Frontend_info>& frontends);
  int freq(int place) const;
  // When this multiplex must end so that the others get their share.
  Clock::time_point share_ends();
  void put(int place, const std::vector<Guide_progress>& services);
  void finish(int place, Guide_outcome outcome);
  void adapter_ended();
  void stop();

  bool stopped() const;
  // Waits so long, or until stop().
  void wait(std::chrono::milliseconds time);
  // Every adapter has ended its work.
  bool ended() const;
  std::vector<Guide_multiplex> multiplexes() const;

 private:
  Clock::time_point end_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Guide_multiplex> multiplexes_;
  size_t all_adapters_;
  size_t adapters_;
  bool stopped_ = false;
};

// One adapter: a Kelvo and the thread that takes it from multiplex to multiplex.
class Guide_adapter {
 public:
  Guide_adapter(int number, Frontend_info frontend, Sdbl* database, Guide_work* work);
  // Waits for the thread and for what the library is writing.
  ~Guide_adapter();
  Guide_adapter(const Guide_adapter&) = delete;
  Guide_adapter& operator=(const Guide_adapter&) = delete;
  void start();

 private:
  // One for each request until the Kelvo is gone: the library may answer a request twice.
  struct Request {
    std::mutex mutex;
    bool answered = false;
    int result = 0;
  };
  static void on_answer(void* data, int result);

  void run();
  Guide_outcome collect(int place);
  // False when the multiplex ended with `outcome`.
  bool scan(int freq, Guide_work::Clock::time_point end, Guide_outcome* outcome);
  void begin_again(int freq, int channel, Guide_work::Clock::time_point end);

  Frontend_info frontend_;
  Guide_work* work_;
  std::deque<Request> requests_;
  std::unique_ptr<Kelvo> kelvo_;
  std::thread thread_;
};
