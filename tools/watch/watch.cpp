#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <kelvo/kelvo.h>

#include "tools/cli/console.h"
#include "tools/cli/failure.h"
#include "tools/cli/interrupt.h"
#include "tools/cli/local_time.h"
#include "tools/cli/text.h"
#include "tools/commands.h"
#include "tools/database/channel_db.h"
#include "tools/database/find_channel.h"
#include "tools/database/guide_db.h"
#include "tools/database/open_database.h"
#include "tools/engine/device.h"
#include "tools/watch/zone_file.h"

namespace {

constexpr int LOOK_INTERVAL_MS = 500;
// How long the tuner may take before the lack of a lock is worth saying.
constexpr std::chrono::seconds LOCK_PATIENCE{2};
constexpr int FULL_LOCK = 0x1F;
constexpr int FIRST_FREQ = 474'000'000;  // where a new Kelvo tunes to
constexpr int OTHER_FREQ = 482'000'000;
constexpr const char* ZONE_FILE = "/dvbfiles/localtime";  // where the library puts the zone of the broadcast

struct Watch_options {
  std::string channel;
  int adapter = 0;
  std::optional<std::string> time;
  std::string db;
  std::string zone_of;
};

// What callbacks, which come from the library's threads, leave for the watching one.
std::atomic<int> changes{0};
std::mutex quality_mutex;
std::vector<unsigned> quality_events;  // 0 lost, 1 good
int wake_fd = -1;

void wake() {
  (void)eventfd_write(wake_fd, 1);
}

void on_change(int code) {
  changes |= code;
  wake();
}

void on_quality(unsigned event, void*) {
  {
    const std::lock_guard lock(quality_mutex);
    quality_events.push_back(event);
  }
  wake();
}

void say(const std::string& text) {
  console::print(fmt::format("{} {}\n", local_time(time(nullptr), "%H:%M:%S"), text), "the changes");
  console::finish_printing("the changes");
}

// How far the clock of the day is from the one that nobody sets.
int64_t clock_offset() {
  timespec day{};
  timespec steady{};
  (void)clock_gettime(CLOCK_REALTIME, &day);
  (void)clock_gettime(CLOCK_MONOTONIC, &steady);
  return int64_t{day.tv_sec} - int64_t{steady.tv_sec};
}

// Changes whenever the file is written: time and size. Zeros when there is none.
std::pair<int64_t, int64_t> zone_stamp() {
  struct stat status {};
  if (stat(ZONE_FILE, &status) != 0) {
    return {0, 0};
  }
  return {int64_t{status.st_mtim.tv_sec} * 1'000'000'000 + status.st_mtim.tv_nsec, int64_t{status.st_size}};
}

// What the broadcast did to clock and zone. The library tells what it tries; whether it came about is seen by looking.
class Time_watch {
 public:
  void begin() {
    clock_ = clock_offset();
    zone_ = zone_stamp();
  }
  // One line of what the library says up to VERB_PROGRESS.
  void hear(const std::string& line);
  // Says what has changed since the last look.
  void look();

 private:
  void look_at_clock();
  void look_at_zone();
  void zone_set(const std::string& zone);

  int64_t clock_ = 0;
  bool clock_tried_ = false;
  bool clock_moved_ = false;
  bool clock_stays_ = false;
  std::pair<int64_t, int64_t> zone_;
  bool zone_tried_ = false;
  int zone_min_ = 0;
  bool zone_written_ = false;
  std::string zone_said_;
  bool table_read_ = false;
};

void Time_watch::hear(const std::string& line) {
  constexpr std::string_view ZONE = "WARNING: Setting timezone to ";
  if (line.find("Changing system clock") != std::string::npos) {
    clock_tried_ = true;
  }
  if (const size_t at = line.find(ZONE); at != std::string::npos) {
    zone_tried_ = true;
    zone_min_ = std::atoi(line.c_str() + at + ZONE.size());
  }
  if (line.find("Removing filter pid 14 tid 73") != std::string::npos) {
    table_read_ = true;  // with all that it made the library do
  }
}

void Time_watch::look() {
  look_at_clock();
  look_at_zone();
  table_read_ = false;
}

void Time_watch::look_at_clock() {
  const int64_t clock = clock_offset();
  if (std::abs(clock - clock_) > 1) {
    say(fmt::format("clock set by {:+} s", clock - clock_));
    clock_moved_ = true;
    clock_stays_ = false;
  }
  clock_ = clock;
  if (table_read_) {
    if (clock_tried_ && !clock_moved_ && !clock_stays_) {
      say("clock set, but it stayed as it was, more than 10 s from the broadcast");
      clock_stays_ = true;
    }
    clock_tried_ = clock_moved_ = false;
  }
}

void Time_watch::zone_set(const std::string& zone) {
  if (!zone.empty() && zone != zone_said_) {
    say(fmt::format("time zone set: {}", zone));
    zone_said_ = zone;
  }
}

void Time_watch::look_at_zone() {
  const std::pair<int64_t, int64_t> zone = zone_stamp();
  if (zone != zone_) {
    zone_ = zone;
    zone_written_ = zone.first != 0;
    tzset();  // for the times that begin the lines
    zone_set(zone_in(ZONE_FILE));
  }
  if (table_read_) {
    if (zone_written_) {
      const std::string now = zone_in(ZONE_FILE);
      zone_set(now.empty() ? ZONE_FILE : now);
    }
    const std::string wanted =
        fmt::format("UTC{}{:02}:{:02}", zone_min_ < 0 ? '-' : '+', std::abs(zone_min_) / 60, std::abs(zone_min_) % 60);
    if (zone_tried_ && !zone_written_ && wanted != zone_said_) {
      say(fmt::format("time zone not set: {} could not be compiled, or not written to {}", wanted, ZONE_FILE));
      zone_said_ = wanted;
    }
    zone_tried_ = zone_written_ = false;
  }
}

class Watch {
 public:
  Watch(const Service& service, std::string db) : service_(service), db_(std::move(db)) {}

  void run(int adapter, int seconds, const std::string& zone_of);

 private:
  void request(Kelvo* kelvo);
  bool listen_to_quality(Kelvo* kelvo, bool late) const;
  void look();
  int stored() const { return events_of(guide_->counts()); }
  static int events_of(const std::map<int, int>& counts) {
    int all = 0;
    for (const auto& [channel, count] : counts) {
      all += count;
    }
    return all;
  }

  Service service_;
  std::unique_ptr<Guide_db> guide_;
  std::string db_;
  int events_ = 0;
  Time_watch time_;
};

// A channel request does nothing on the frequency that is tuned already, which after the construction is the first one:
// the tuner goes elsewhere before it. Nothing is asked for there, and the channel request replaces it.
void Watch::request(Kelvo* kelvo) {
  if (service_.freq == FIRST_FREQ) {
    (void)kelvo->tune_to_freq(OTHER_FREQ, nullptr, nullptr);
  }
  (void)kelvo->tune_to_freq(service_.freq, service_.channel, nullptr, nullptr);
}

void Watch::run(int adapter, int seconds, const std::string& zone_of) {
  const Interrupt interrupt;
  console::Quiet_library quiet(-1);
  wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wake_fd < 0) {
    throw Failure("cannot make an event descriptor: too many open files?");
  }
  const std::unique_ptr<Sdbl> database = open_database(db_, true, &quiet);
  collect_all_guides(database.get());
  if (!zone_of.empty()) {
    database->set_preferred_provider(zone_of.c_str());
  }
  guide_ = std::make_unique<Guide_db>(db_);
  events_ = stored();
  quiet.listen(VERB_PROGRESS, [this](const std::string& line) { time_.hear(line); });
  Kelvo kelvo(adapter, 0, 0, database.get(), true, on_change);
  time_.begin();
  kelvo.set_stb_event_callback(on_quality);
  request(&kelvo);
  say(fmt::format("watching {} on {}, {} events in the guide", service_.name, mhz(service_.freq), events_));
  const auto begun = std::chrono::steady_clock::now();
  bool listening = false;
  pollfd waits[] = {{wake_fd, POLLIN, 0}, {interrupt.fd(), POLLIN, 0}};
  while ((waits[1].revents & POLLIN) == 0 &&
         (seconds == 0 || std::chrono::steady_clock::now() - begun < std::chrono::seconds(seconds))) {
    (void)poll(waits, 2, LOOK_INTERVAL_MS);
    eventfd_t count = 0;
    (void)eventfd_read(wake_fd, &count);
    if (!listening) {
      listening = listen_to_quality(&kelvo, std::chrono::steady_clock::now() - begun > LOCK_PATIENCE);
    }
    look();
    quiet.check_written(db_);
  }
  say(fmt::format("stopped, {} events in the guide", stored()));
}

// The monitor tells nothing until it is reset, and while the tuner is on its way to the channel there is nothing to
// tell. True when it has been reset.
bool Watch::listen_to_quality(Kelvo* kelvo, bool late) const {
  const bool received = kelvo->fe_freq() == service_.freq && (kelvo->fe_status() & FULL_LOCK) == FULL_LOCK;
  if (received || late) {
    (void)kelvo->reset_signal_monitor();
  }
  return received || late;
}

void Watch::look() {
  const int code = changes.exchange(0);
  if ((code & DB_STREAMS_CHANGED) != 0) {
    say("streams changed");
  }
  if ((code & DB_CHANNELS_CHANGED) != 0) {
    say("channels changed");
  }
  if ((code & DB_EPG_GROWN) != 0) {
    const int now = stored();
    say(fmt::format("guide grown to {} events ({:+})", now, now - events_));
    events_ = now;
  }
  std::vector<unsigned> events;
  {
    const std::lock_guard lock(quality_mutex);
    events.swap(quality_events);
  }
  for (const unsigned event : events) {
    say(event == 0 ? "quality lost" : "quality back");
  }
  time_.look();
}

void watch(const Watch_options& options) {
  const int seconds = options.time ? parse_duration(*options.time, "--for") : 0;
  const std::string db = options.db.empty() ? default_database() : options.db;
  check_database_name(db);
  const Service service = find_channel(Channel_db(db).services(true), options.channel, "channel");
  (void)check_adapter(options.adapter);
  (void)check_database(db);
  Watch(service, db).run(options.adapter, seconds, options.zone_of);
}

}  // namespace

void add_watch(CLI::App& app, int* exit_code) {
  CLI::App* command = app.add_subcommand("watch", "Stay on a channel and say what changes");
  const auto options = std::make_shared<Watch_options>();
  command
      ->add_option("CHANNEL", options->channel,
                   "Logical channel number, name or part of it, or # and the row number of the database")
      ->required();
  command->add_option("--adapter", options->adapter, "DVB adapter, 0 to 3; default: 0")
      ->type_name("N")
      ->check(CLI::Range(0, 3));
  command->add_option("--for", options->time, "End after so long: 90s, 10m, 1h; default: at Ctrl-C")->type_name("TIME");
  command
      ->add_option("--zone-of", options->zone_of,
                   "Network whose local time becomes the time zone, as kelvo channels shows it; default: levira")
      ->type_name("NETWORK");
  command->add_option("--db", options->db, "Channel database; default: $XDG_DATA_HOME/kelvo/dvb.db")->type_name("FILE");
  command->footer(
      "A line, with the time, whenever channels or streams change, the guide grows, reception is lost or back, or\n"
      "the broadcast sets clock or time zone. Ctrl-C ends it. Exit code: 0 ended, 1 failed, 2 wrong arguments.\n"
      "\n"
      "Example:\n"
      "  kelvo watch 1");
  command->callback([options, exit_code] {
    watch(*options);
    *exit_code = EXIT_OK;
  });
}
