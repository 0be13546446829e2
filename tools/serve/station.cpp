// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/serve/station.h"

#include <linux/dvb/frontend.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <ctime>

#include <fmt/format.h>

#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/database/channel_db.h"
#include "tools/database/open_database.h"
#include "tools/database/repair.h"
#include "tools/epg/guide_job.h"
#include "tools/scan/time_left.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds SAMPLE_INTERVAL{500};
constexpr seconds VISIT{300};            // at a multiplex, its guide included, where there are several
constexpr seconds RETRY{10};             // after nothing was received, or no adapter could be used
constexpr int GUIDE_TIME_S = 600;        // for each multiplex
constexpr seconds PROGRESS_IS_FRESH{3};  // what the library says of the guide is of this multiplex

bool is_done(const EIT_progress& service) {
  return service.done && (service.whole || service.events > 0);
}

}  // namespace

Station::Station(std::map<int, Frontend_info> frontends, std::string db, bool exists, std::vector<Tuning_request> what)
    : frontends_(std::move(frontends)),
      db_(std::move(db)),
      what_(std::move(what)),
      database_(open_database(db_, exists)),
      changed_fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      wake_fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (changed_fd_ < 0 || wake_fd_ < 0) {
    throw Failure("cannot make an event descriptor: too many open files?");
  }
  collect_all_guides(database_.get());
  for (const auto& [number, frontend] : frontends_) {
    state_.adapters[number].device = clean_text(frontend.name);
    (void)counters_[number];
  }
  thread_ = std::thread([this] { run(); });
}

Station::~Station() {
  stop();
  (void)close(changed_fd_);
  (void)close(wake_fd_);
}

void Station::stop() {
  stopping_ = true;
  wake();
  if (thread_.joinable()) {
    thread_.join();
  }
}

bool Station::start_scan() {
  {
    const std::lock_guard lock(mutex_);
    if (state_.scan.running || scan_wanted_) {
      return false;
    }
    state_.scan = {};
    state_.scan.running = true;
    state_.scan.begun = time(nullptr);
    state_.scan.total = what_.size();
  }
  scan_stopped_ = false;
  scan_wanted_ = true;
  wake();
  return true;
}

void Station::stop_scan() {
  scan_stopped_ = true;
  wake();
}

void Station::wake() const {
  (void)eventfd_write(wake_fd_, 1);
}

void Station::calm() const {
  eventfd_t count = 0;
  (void)eventfd_read(changed_fd_, &count);
}

Station_state Station::state() const {
  const std::lock_guard lock(mutex_);
  return state_;
}

std::vector<std::string> Station::take_news() {
  const std::lock_guard lock(mutex_);
  return std::exchange(news_, {});
}

// The same again is no news.
void Station::say(const std::string& line) {
  if (line == said_) {
    return;
  }
  said_ = line;
  const std::lock_guard lock(mutex_);
  news_.push_back(line);
  (void)eventfd_write(changed_fd_, 1);
}

void Station::run() {
  while (!stopping_) {
    const Clock::time_point begun = Clock::now();
    try {
      const bool scans = scan_wanted_;
      scans ? scan() : watch();
      check_written(database_.get(), db_);
      if (scans) {
        continue;
      }
    } catch (const Failure& failure) {
      say(failure.what());
      database_->forget_errors();
      const std::lock_guard lock(mutex_);
      if (state_.scan.running && !scan_wanted_) {
        state_.scan.running = false;
        state_.scan.end = failure.what();
      }
    }
    close_adapters();
    // Not again at once what has come to nothing, or what there is nothing for.
    for (pollfd wait{wake_fd_, POLLIN, 0}; !wanted_else() && Clock::now() - begun < RETRY;) {
      (void)poll(&wait, 1, static_cast<int>(milliseconds(SAMPLE_INTERVAL).count()));
      eventfd_t count = 0;
      (void)eventfd_read(wake_fd_, &count);
    }
  }
}

void Station::close_adapters() {
  const std::lock_guard lock(mutex_);
  ++read_;
  for (auto& [number, adapter] : state_.adapters) {
    adapter.open = false;
    adapter.freq = 0;
    adapter.signal = {};
  }
}

// Those with services that are still there come first; else all.
std::vector<int> Station::multiplexes() const {
  return multiplexes_with_guide(Channel_db(db_).services(false));
}

void Station::listen(const Engine& engine) {
  for (const auto& adapter : engine.adapters()) {
    Activity_listener listener;
    listener.data = &counters_[adapter->number()];
    listener.activity = [](void* counter, int kind, int value) {
      if (kind == ACTIVITY_READ_END && value > 0) {
        ++static_cast<Counter*>(counter)->sections;
      }
    };
    adapter->kelvo().set_activity_listener(listener);
  }
}

void Station::wait_for(const Engine& engine) const {
  std::array<pollfd, 2> waits{{{engine.fd(), POLLIN, 0}, {wake_fd_, POLLIN, 0}}};
  const int ms = wanted_else() ? Engine::STOP_INTERVAL_MS : static_cast<int>(SAMPLE_INTERVAL.count());
  (void)poll(waits.data(), waits.size(), ms);
  eventfd_t count = 0;
  (void)eventfd_read(wake_fd_, &count);
}

void Station::sample(const Engine& engine) {
  const Clock::time_point now = Clock::now();
  for (const auto& adapter : engine.adapters()) {
    const int number = adapter->number();
    const Tuning_result tuning = adapter->last_tuning();
    const Signal_readings signal = adapter->signal();
    const std::vector<EIT_progress> progress = adapter->guide_progress();
    uint64_t crc_errors = 0;
    uint64_t overflows = 0;
    for (const Lost_sections& lost : adapter->lost_sections()) {
      crc_errors += static_cast<uint64_t>(lost.crc_errors);
      overflows += static_cast<uint64_t>(lost.overflows);
    }
    const uint32_t sections = counters_[number].sections;
    Reading& last = readings_[number];
    if (tuning.key != last.freq) {
      last.freq = tuning.key;
      last.since = now;
    }
    const std::lock_guard lock(mutex_);
    Adapter_state& state = state_.adapters[number];
    state.open = !adapter->gone();
    state.freq = tuning.key;
    state.tuning = tuning;
    state.signal = signal;
    if (tuning.key != 0 && tuning.outcome == TUNING_LOCKED) {
      Multiplex_state& multiplex = state_.multiplexes[{number, tuning.key}];
      multiplex.sections += sections - last.sections;  // also where the counter began again
      // The library counts anew for each request.
      multiplex.crc_errors += crc_errors - (crc_errors < last.crc_errors ? 0 : last.crc_errors);
      multiplex.overflows += overflows - (overflows < last.overflows ? 0 : last.overflows);
      // Not what is read when it has gone on to the next one.
      if (signal.age_ms >= 0 && (signal.status & FE_HAS_LOCK) != 0) {
        multiplex.signal = signal;
        multiplex.seen = time(nullptr);
      }
      if (!progress.empty() && now - last.since >= PROGRESS_IS_FRESH) {
        multiplex.services = static_cast<int>(progress.size());
        multiplex.complete = static_cast<int>(std::count_if(progress.begin(), progress.end(), is_done));
        if (multiplex.complete == multiplex.services) {
          multiplex.completed = time(nullptr);
        }
      }
    }
    last.sections = sections;
    last.crc_errors = crc_errors;
    last.overflows = overflows;
  }
  ++read_;
}

// After its guide is there. One multiplex alone is read again and again from then on, so that changes are seen.
void Station::visit(Adapter& adapter, bool alone) const {
  const Tuning_result tuning = adapter.last_tuning();
  const bool received = tuning.outcome == TUNING_LOCKED;
  const Clock::time_point until = Clock::now() + (received ? VISIT : RETRY);
  bool again = false;
  while (!adapter.stopped() && !adapter.gone() && (Clock::now() < until || (alone && received))) {
    if (!again && Clock::now() >= until) {
      again = true;
      for (const Service& service : Channel_db(db_).services(false)) {
        if (service.freq == tuning.key) {
          adapter.kelvo().watch_again(service.freq, service.channel);
          break;
        }
      }
    }
    adapter.wait(SAMPLE_INTERVAL);
  }
}

void Station::watch() {
  const std::vector<int> freqs = multiplexes();
  if (freqs.empty()) {
    return;
  }
  Channel_db reader(db_);
  const int version = reader.version();
  std::unique_ptr<Guide_job> job;  // used by the engine
  Engine engine(frontends_, requests_for(freqs), database_.get());
  listen(engine);
  job = std::make_unique<Guide_job>(freqs, GUIDE_TIME_S * static_cast<int>(freqs.size()), &engine);
  said_.clear();
  engine.start([this, &job, &freqs](Adapter& adapter, const Tuning_request& request) {
    job->work(adapter, request);
    try {
      visit(adapter, freqs.size() == 1);
    } catch (const Failure&) {
      // The next round finds out what is wrong with the database.
    }
  });
  while (!engine.ended()) {
    wait_for(engine);
    engine.calm();
    sample(engine);
    if (wanted_else() || write_failed(database_.get())) {
      engine.stop();
    }
  }
  engine.join();
  for (const int adapter : engine.gone()) {
    say(fmt::format("adapter {} is gone; it is looked for again", adapter));
  }
  if (reader.version() != version) {
    keep_good_copy(database_.get(), db_);
  }
}

void Station::show_scan(Scan_run* run, Clock::time_point begun, std::optional<double> left,
                        const std::vector<Multiplex_line>& lines) {
  const std::vector<Engine::Under_way> under_way = run->engine().under_way();
  const std::lock_guard lock(mutex_);
  Scan_state& scan = state_.scan;
  const bool changed = !lines.empty();
  scan.lines.insert(scan.lines.end(), lines.begin(), lines.end());
  scan.done = run->lines().size();
  scan.total = run->total();
  scan.services = run->services();
  scan.left_s = left;
  scan.seconds = std::chrono::duration<double>(Clock::now() - begun).count();
  scan.under_way = under_way;
  if (changed) {
    (void)eventfd_write(changed_fd_, 1);
  }
}

void Station::scan() {
  scan_wanted_ = false;
  const Clock::time_point begun = Clock::now();
  const Channel_db reader(db_);
  const std::vector<Service> before = reader.services(false);
  Scan_run run(frontends_, what_, database_.get(), &reader);
  listen(run.engine());
  Time_left time_left;
  run.start(reader.stored_pipes(), false);
  Scan_stop stop = Scan_stop::NONE;
  for (bool ended = false; !ended;) {
    wait_for(run.engine());
    run.engine().calm();
    ended = run.engine().ended();
    sample(run.engine());
    if (stopping_ || scan_stopped_) {
      stop = Scan_stop::INTERRUPTED;
      run.engine().stop();
    } else if (write_failed(database_.get())) {
      run.engine().close();
    }
    const std::vector<Multiplex_line> lines = run.take_lines(stop);
    std::vector<double> seconds_of;
    for (const Multiplex_line& line : lines) {
      time_left.done(line.services > 0, line.result.seconds);
    }
    for (const Engine::Under_way& one : run.engine().under_way()) {
      seconds_of.push_back(one.seconds);
    }
    show_scan(&run, begun, time_left.left(run.engine().waiting(), seconds_of, run.engine().adapters().size()), lines);
  }
  (void)run.conclude(before, stop);
  run.release();
  check_written(database_.get(), db_);
  if (run.services() > 0) {
    keep_good_copy(database_.get(), db_);
  }
  const std::lock_guard lock(mutex_);
  state_.scan.running = false;
  state_.scan.under_way.clear();
  state_.scan.left_s.reset();
  state_.scan.seconds = std::chrono::duration<double>(Clock::now() - begun).count();
  state_.scan.lines = run.lines();
  state_.scan.done = run.lines().size();
  state_.scan.end = stop != Scan_stop::NONE ? "stopped" : run.gone().empty() ? "done" : "an adapter is gone";
  (void)eventfd_write(changed_fd_, 1);
}
