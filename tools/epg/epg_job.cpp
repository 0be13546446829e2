#include "tools/epg/epg_job.h"

#include <algorithm>
#include <utility>

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds LOOK_INTERVAL{200};
// Schedules of the next days come every 10 s, later ones every 30 s (TR 101 211, 4.4): what has not been announced by
// then is not sent.
constexpr seconds ANNOUNCED_AFTER{35};
// The library waits 180 s for a service that began and went silent; when nothing at all has changed for longer, nobody
// sends the table that it waits for.
constexpr seconds STUCK_AFTER{200};

// The library gives the scan of a multiplex 40 seconds and then takes what there is.
constexpr milliseconds SCAN_GIVEN_UP_AFTER{38500};

constexpr int FIRST_SCHEDULE = 0x50;
constexpr int CHANNEL_WIDTH_HZ = 8'000'000;

bool receives(const Frontend_info& frontend, int freq) {
  const auto hz = static_cast<unsigned>(freq);
  return (frontend.lowest_hz == 0 || hz >= frontend.lowest_hz) &&
         (frontend.highest_hz == 0 || hz <= frontend.highest_hz);
}

Guide_state state_of(const EIT_progress& service, bool announced) {
  if (service.last_table != 0 &&
      (service.table > service.last_table || (service.table == service.last_table && service.done))) {
    return Guide_state::COMPLETE;
  }
  if (service.last_table == 0 && (announced || service.table > FIRST_SCHEDULE)) {
    return Guide_state::NO_SCHEDULE;
  }
  return Guide_state::COLLECTING;
}

bool begun(const std::vector<EIT_progress>& progress) {
  return std::any_of(progress.begin(), progress.end(), [](const EIT_progress& service) { return service.table != 0; });
}

bool same(const std::vector<EIT_progress>& a, const std::vector<EIT_progress>& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const EIT_progress& one, const EIT_progress& other) {
    return one.service_id == other.service_id && one.table == other.table && one.last_table == other.last_table &&
           one.active == other.active && one.done == other.done && one.events == other.events;
  });
}

}  // namespace

std::string outcome_text(Guide_outcome outcome) {
  switch (outcome) {
    case Guide_outcome::WAITING:
      return "not begun";
    case Guide_outcome::RUNNING:
    case Guide_outcome::STOPPED:
      return "interrupted";
    case Guide_outcome::DONE:
      return "done";
    case Guide_outcome::TIME_UP:
      return "time is up";
    case Guide_outcome::NOTHING_NEW:
      return "the rest is not sent";
    case Guide_outcome::NO_LOCK:
      return "no lock";
    case Guide_outcome::NO_STREAM:
      return "no MPEG stream";
    case Guide_outcome::NO_SERVICES:
      return "no services";
    case Guide_outcome::OUT_OF_RANGE:
      return "out of the frontend's range";
  }
  return "";
}

Guide_work::Guide_work(const std::vector<int>& freqs, int seconds_given, size_t adapters)
    : end_(Clock::now() + seconds(seconds_given)), all_adapters_(adapters), adapters_(adapters) {
  for (const int freq : freqs) {
    multiplexes_.push_back({freq, Guide_outcome::WAITING, {}});
  }
}

int Guide_work::take(const Frontend_info& frontend) {
  const std::lock_guard lock(mutex_);
  for (size_t i = 0; i < multiplexes_.size() && !stopped_ && Clock::now() < end_; ++i) {
    if (multiplexes_[i].outcome == Guide_outcome::WAITING && receives(frontend, multiplexes_[i].freq)) {
      multiplexes_[i].outcome = Guide_outcome::RUNNING;
      return static_cast<int>(i);
    }
  }
  return -1;
}

void Guide_work::leave_out_unreceivable(const std::vector<Frontend_info>& frontends) {
  const std::lock_guard lock(mutex_);
  for (Guide_multiplex& multiplex : multiplexes_) {
    if (std::none_of(frontends.begin(), frontends.end(),
                     [&multiplex](const Frontend_info& frontend) { return receives(frontend, multiplex.freq); })) {
      multiplex.outcome = Guide_outcome::OUT_OF_RANGE;
    }
  }
}

int Guide_work::freq(int place) const {
  const std::lock_guard lock(mutex_);
  return multiplexes_[static_cast<size_t>(place)].freq;
}

Guide_work::Clock::time_point Guide_work::share_ends() {
  const std::lock_guard lock(mutex_);
  const auto waiting =
      static_cast<size_t>(std::count_if(multiplexes_.begin(), multiplexes_.end(), [](const Guide_multiplex& one) {
        return one.outcome == Guide_outcome::WAITING;
      }));
  const size_t rounds = 1 + (waiting + all_adapters_ - 1) / all_adapters_;
  const Clock::time_point now = Clock::now();
  return now + (end_ - now) / static_cast<int>(rounds);
}

void Guide_work::put(int place, const std::vector<Guide_progress>& services) {
  const std::lock_guard lock(mutex_);
  multiplexes_[static_cast<size_t>(place)].services = services;
}

void Guide_work::finish(int place, Guide_outcome outcome) {
  const std::lock_guard lock(mutex_);
  multiplexes_[static_cast<size_t>(place)].outcome = outcome;
}

void Guide_work::adapter_ended() {
  const std::lock_guard lock(mutex_);
  --adapters_;
}

void Guide_work::stop() {
  const std::lock_guard lock(mutex_);
  stopped_ = true;
  changed_.notify_all();
}

bool Guide_work::stopped() const {
  const std::lock_guard lock(mutex_);
  return stopped_;
}

void Guide_work::wait(milliseconds time) {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, time, [this] { return stopped_; });
}

bool Guide_work::ended() const {
  const std::lock_guard lock(mutex_);
  return adapters_ == 0;
}

std::vector<Guide_multiplex> Guide_work::multiplexes() const {
  const std::lock_guard lock(mutex_);
  return multiplexes_;
}

Guide_adapter::Guide_adapter(int number, Frontend_info frontend, Sdbl* database, Guide_work* work)
    : frontend_(std::move(frontend)),
      work_(work),
      kelvo_(std::make_unique<Kelvo>(number, 0, 0, database, true, nullptr)) {}

Guide_adapter::~Guide_adapter() {
  if (thread_.joinable()) {
    thread_.join();
  }
}

void Guide_adapter::start() {
  thread_ = std::thread(&Guide_adapter::run, this);
}

void Guide_adapter::on_answer(void* data, int result) {
  auto* request = static_cast<Request*>(data);
  const std::lock_guard lock(request->mutex);
  request->answered = true;
  request->result = result;
}

void Guide_adapter::run() {
  for (int place = 0; (place = work_->take(frontend_)) >= 0;) {
    work_->finish(place, collect(place));
  }
  kelvo_.reset();
  work_->adapter_ended();
}

bool Guide_adapter::scan(int freq, Guide_work::Clock::time_point end, Guide_outcome* outcome) {
  Request& request = requests_.emplace_back();
  if (kelvo_->tune_to_freq(freq, &request, on_answer) == 0) {
    *outcome = Guide_outcome::NO_LOCK;
    return false;
  }
  while (!work_->stopped() && Guide_work::Clock::now() < end) {
    {
      const std::lock_guard lock(request.mutex);
      if (request.answered) {
        *outcome = Guide_outcome::NO_STREAM;
        return request.result == 0;
      }
    }
    work_->wait(LOOK_INTERVAL / 4);
  }
  *outcome = work_->stopped() ? Guide_outcome::STOPPED : Guide_outcome::TIME_UP;
  return false;
}

// After a scan that was given up, every service's time for its present and following event is up as well. With a
// channel the guide begins a few seconds after the tuning, with fresh timers; but such a request does nothing on the
// frequency that is tuned already, so the tuner goes elsewhere before it. Nothing is asked for there.
void Guide_adapter::begin_again(int freq, int channel, Guide_work::Clock::time_point end) {
  const int above = freq + CHANNEL_WIDTH_HZ;
  (void)kelvo_->tune_to_freq(receives(frontend_, above) ? above : freq - CHANNEL_WIDTH_HZ, nullptr, nullptr);
  (void)kelvo_->tune_to_freq(freq, channel, nullptr, nullptr);
  std::vector<EIT_progress> progress;
  do {
    work_->wait(LOOK_INTERVAL / 4);
    kelvo_->eit_progress(&progress);
  } while (begun(progress) && !work_->stopped() && Guide_work::Clock::now() < end);
}

Guide_outcome Guide_adapter::collect(int place) {
  const Guide_work::Clock::time_point end = work_->share_ends();
  const int freq = work_->freq(place);
  Guide_outcome outcome = Guide_outcome::NO_SERVICES;
  std::vector<EIT_progress> progress;
  // The list of services is made when tuning: a multiplex that is scanned for the first time has none until the second
  // request.
  bool given_up = false;
  for (int request = 0; request < 2 && progress.empty(); ++request) {
    const Guide_work::Clock::time_point asked = Guide_work::Clock::now();
    if (!scan(freq, end, &outcome)) {
      return outcome;
    }
    given_up = Guide_work::Clock::now() - asked >= SCAN_GIVEN_UP_AFTER;
    kelvo_->eit_progress(&progress);
  }
  if (progress.empty()) {
    return Guide_outcome::NO_SERVICES;
  }
  if (given_up) {
    begin_again(freq, progress.front().channel, end);
  }
  std::vector<EIT_progress> last;
  Guide_work::Clock::time_point changed = Guide_work::Clock::now();
  Guide_work::Clock::time_point first_table_begun = changed;
  Guide_work::Clock::time_point schedule_begun{};
  while (true) {
    const Guide_work::Clock::time_point now = Guide_work::Clock::now();
    kelvo_->eit_progress(&progress);
    if (!begun(progress)) {
      first_table_begun = now;
    }
    if (!same(progress, last)) {
      last = progress;
      changed = now;
    }
    const bool schedules = std::any_of(progress.begin(), progress.end(),
                                       [](const EIT_progress& service) { return service.table >= FIRST_SCHEDULE; });
    if (schedules && schedule_begun == Guide_work::Clock::time_point{}) {
      schedule_begun = now;
    }
    // Without any present event nobody ever gets to the schedules.
    const bool silent = !schedules && now - first_table_begun > ANNOUNCED_AFTER && now - changed > ANNOUNCED_AFTER;
    const bool announced = silent || (schedules && now - schedule_begun > ANNOUNCED_AFTER);
    std::vector<Guide_progress> shown;
    bool all = !progress.empty();
    for (const EIT_progress& service : progress) {
      shown.push_back({service, state_of(service, announced)});
      all = all && shown.back().state != Guide_state::COLLECTING;
    }
    work_->put(place, shown);
    if (all) {
      return Guide_outcome::DONE;
    }
    if (work_->stopped()) {
      return Guide_outcome::STOPPED;
    }
    if (now >= end) {
      return Guide_outcome::TIME_UP;
    }
    if (now - changed > STUCK_AFTER) {
      return Guide_outcome::NOTHING_NEW;
    }
    work_->wait(LOOK_INTERVAL);
  }
}
