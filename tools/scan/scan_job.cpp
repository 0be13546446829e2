#include "tools/scan/scan_job.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "tools/cli/failure.h"

namespace {

// The library gives a multiplex 40 seconds and answers "done" then, too. What took this long was not complete.
constexpr double TIMED_OUT_AFTER_S = 38.5;

bool receives(const Frontend_info& frontend, int freq) {
  const auto hz = static_cast<unsigned>(freq);
  return (frontend.lowest_hz == 0 || hz >= frontend.lowest_hz) &&
         (frontend.highest_hz == 0 || hz <= frontend.highest_hz);
}

}  // namespace

Event_queue::Event_queue() : fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (fd_ < 0) {
    throw Failure("cannot make an event descriptor: too many open files?");
  }
}

Event_queue::~Event_queue() {
  (void)close(fd_);
}

void Event_queue::push(const Scan_event& event) {
  const std::lock_guard lock(mutex_);
  events_.push_back(event);
  (void)eventfd_write(fd_, 1);  // Fails only when it is readable anyway.
}

std::vector<Scan_event> Event_queue::take_all() {
  const std::lock_guard lock(mutex_);
  eventfd_t count = 0;
  (void)eventfd_read(fd_, &count);
  return std::exchange(events_, {});
}

std::optional<int> Frequency_list::take(const Frontend_info& frontend) {
  const std::lock_guard lock(mutex_);
  const auto next = std::find_if(left_.begin(), left_.end(), [&](int freq) { return receives(frontend, freq); });
  if (closed_ || next == left_.end()) {
    return std::nullopt;
  }
  const int freq = *next;
  left_.erase(next);
  return freq;
}

void Frequency_list::close() {
  const std::lock_guard lock(mutex_);
  closed_ = true;
}

std::vector<int> Frequency_list::left() {
  const std::lock_guard lock(mutex_);
  return {left_.begin(), left_.end()};
}

Scan_adapter::Scan_adapter(int number, Frontend_info frontend, Sdbl* database, Frequency_list* list,
                           Event_queue* events)
    : number_(number),
      frontend_(std::move(frontend)),
      list_(list),
      events_(events),
      kelvo_(std::make_unique<Kelvo>(number, 0, 0, database, true, nullptr)) {}

Scan_adapter::~Scan_adapter() {
  join();
}

void Scan_adapter::start() {
  thread_ = std::thread(&Scan_adapter::run, this);
}

void Scan_adapter::stop() {
  const std::lock_guard lock(mutex_);
  stopped_ = true;
  changed_.notify_all();
}

void Scan_adapter::join() {
  if (thread_.joinable()) {
    thread_.join();
  }
}

float Scan_adapter::strength() const {
  const std::lock_guard lock(mutex_);
  return kelvo_ ? kelvo_->fe_strength() : 0;
}

void Scan_adapter::on_answer(void* data, int result) {
  auto* request = static_cast<Request*>(data);
  const std::lock_guard lock(request->owner->mutex_);
  if (!request->answered) {
    request->answered = true;
    request->result = result;
    request->owner->changed_.notify_all();
  }
}

void Scan_adapter::run() {
  while (const std::optional<int> freq = list_->take(frontend_)) {
    events_->push({Scan_event::Kind::STARTED, {*freq, number_}});
    events_->push({Scan_event::Kind::FINISHED, scan(*freq)});
  }
  // Said before the tear-down, so that the report does not wait for it.
  events_->push({Scan_event::Kind::IDLE, {0, number_}});
  std::unique_ptr<Kelvo> last;
  {
    const std::lock_guard lock(mutex_);
    last = std::move(kelvo_);
  }
}

Multiplex_result Scan_adapter::scan(int freq) {
  const auto begin = std::chrono::steady_clock::now();
  Multiplex_result out{freq, number_};
  Request* request = nullptr;
  {
    const std::lock_guard lock(mutex_);
    requests_.push_back({this});
    request = &requests_.back();
  }
  if (kelvo_->tune_to_freq(freq, request, on_answer) == 0) {
    out.outcome = Outcome::NO_LOCK;
  } else {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return request->answered || stopped_; });
    if (request->answered) {
      out.outcome = request->result == 0 ? Outcome::LOCKED : Outcome::NO_STREAM;
    }
  }
  out.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  if (out.outcome == Outcome::LOCKED && out.seconds >= TIMED_OUT_AFTER_S) {
    out.outcome = Outcome::TIMED_OUT;
  }
  return out;
}
