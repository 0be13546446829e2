#pragma once

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <kelvo/kelvo.h>

#include "tools/engine/device.h"

enum class Outcome {
  LOCKED,        // scanned to the end
  TIMED_OUT,     // some table that was waited for never came
  NO_STREAM,     // locked, but no MPEG stream
  NO_LOCK,       // no signal
  OUT_OF_RANGE,  // no adapter receives this frequency
  NOT_SCANNED,   // interrupted before or during the scan
};

struct Multiplex_result {
  int freq = 0;
  int adapter = -1;  // -1: none got to it
  Outcome outcome = Outcome::NOT_SCANNED;
  double seconds = 0;
};

// What the adapters tell the thread that shows it.
struct Scan_event {
  enum class Kind { STARTED, FINISHED, IDLE } kind = Kind::IDLE;
  Multiplex_result result;  // of FINISHED; of STARTED only `freq` and `adapter` are set
};

// Events from the adapters' threads for one reader, which waits for the descriptor to become readable.
class Event_queue {
 public:
  Event_queue();
  ~Event_queue();
  Event_queue(const Event_queue&) = delete;
  Event_queue& operator=(const Event_queue&) = delete;

  int fd() const { return fd_; }
  void push(const Scan_event& event);
  std::vector<Scan_event> take_all();

 private:
  int fd_;
  std::mutex mutex_;
  std::vector<Scan_event> events_;
};

// The frequencies that nobody has taken yet; all adapters take from it.
class Frequency_list {
 public:
  explicit Frequency_list(const std::vector<int>& freqs) : left_(freqs.begin(), freqs.end()) {}
  // The next frequency that this frontend receives.
  std::optional<int> take(const Frontend_info& frontend);
  // No more frequencies for anybody.
  void close();
  std::vector<int> left();

 private:
  std::mutex mutex_;
  std::deque<int> left_;
  bool closed_ = false;
};

// One adapter at work on the list: a Kelvo and the thread that asks it for one frequency after the other.
class Scan_adapter {
 public:
  Scan_adapter(int number, Frontend_info frontend, Sdbl* database, Frequency_list* list, Event_queue* events);
  // Waits for the thread; call stop() first unless the list is done.
  ~Scan_adapter();
  Scan_adapter(const Scan_adapter&) = delete;
  Scan_adapter& operator=(const Scan_adapter&) = delete;

  void start();
  // Takes no further frequency and gives up the one being scanned. A merge under way ends first.
  void stop();
  // Waits until the Kelvo is gone.
  void join();

  int number() const { return number_; }
  // Usually 0 to 100.
  float strength() const;

 private:
  // What the library hands back with its answer. It may answer a request twice (it does on DVB-H multiplexes, for
  // as long as they are tuned), so each request has one of its own until the Kelvo is gone.
  struct Request {
    Scan_adapter* owner;
    bool answered = false;
    int result = 0;
  };
  static void on_answer(void* data, int result);

  void run();
  Multiplex_result scan(int freq);

  int number_;
  Frontend_info frontend_;
  Frequency_list* list_;
  Event_queue* events_;
  mutable std::mutex mutex_;  // guards the requests, stopped_ and the life of kelvo_
  std::condition_variable changed_;
  std::deque<Request> requests_;
  bool stopped_ = false;
  std::unique_ptr<Kelvo> kelvo_;
  std::thread thread_;
};
