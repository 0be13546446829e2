// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <kelvo/kelvo.h>
#include <nlohmann/json.hpp>

#include "tools/cli/console.h"
#include "tools/cli/failure.h"
#include "tools/cli/interrupt.h"
#include "tools/cli/local_time.h"
#include "tools/cli/receiver_options.h"
#include "tools/cli/text.h"
#include "tools/cli/verbosity_options.h"
#include "tools/commands.h"
#include "tools/database/channel_db.h"
#include "tools/database/find_channel.h"
#include "tools/database/guide_db.h"
#include "tools/database/open_database.h"
#include "tools/database/repair.h"
#include "tools/engine/device.h"
#include "tools/watch/time_texts.h"

namespace {

constexpr int LOOK_INTERVAL_MS = 500;
constexpr size_t MOST_EVENTS = 20;  // said of one look
// How long the tuner may take before the lack of a lock is worth saying.
constexpr std::chrono::seconds LOCK_PATIENCE{2};

struct Watch_options {
  std::string channel;
  int adapter = 0;
  std::optional<std::string> time;
  Receiver_options receiver;
  std::string db;
  std::string zone_of;
  bool json = false;
  int verbosity = 0;  // how often -v was given
};

// What callbacks, which come from the library's threads, leave for the watching one.
std::atomic<int> changes{0};
std::mutex mutex;                      // guards the next four
std::vector<unsigned> quality_events;  // 0 lost, 1 good
std::vector<Device_event> device_events;
std::vector<Time_news> time_news;
std::vector<Guide_change> guide_changes;
std::vector<std::string> channel_news;
int wake_fd = -1;

void wake() {
  (void)eventfd_write(wake_fd, 1);
}

void on_change(int code) {
  // Joined and not queued: callbacks come faster than they are looked at, and one line for each kind of change is
  // enough.
  changes |= code;
  wake();
}

void on_quality(unsigned event, void*) {
  {
    const std::lock_guard lock(mutex);
    quality_events.push_back(event);
  }
  wake();
}

void on_time(void*, const Broadcast_time& broadcast) {
  // Made before the lock is taken, at the moment of the table: it compares with the clock.
  const Time_news news(broadcast);
  {
    const std::lock_guard lock(mutex);
    time_news.push_back(news);
  }
  wake();
}

// "renamed: One -> Uno", "One: now scrambled"; streams and ids are told in a word or not at all.
std::vector<std::string> texts_of(const Channel_change& change) {
  const std::string name = clean_text(change.new_name);
  const auto lcn = [](int number) { return number == NO_LCN ? std::string("-") : std::to_string(number); };
  const std::pair<unsigned, std::string> texts[] = {
      {CHANNEL_MOVED, fmt::format("moved: {}, {} -> {}", name, mhz(change.old_freq), mhz(change.new_freq))},
      {CHANNEL_RENAMED, fmt::format("renamed: {} -> {}", clean_text(change.old_name), name)},
      {CHANNEL_RENUMBERED, fmt::format("renumbered: {}, {} -> {}", name, lcn(change.old_lcn), lcn(change.new_lcn))},
      {CHANNEL_SCRAMBLED, name + ": now scrambled"},
      {CHANNEL_CLEAR, name + ": now in the clear"},
      {CHANNEL_HIDDEN, name + ": hidden"},
      {CHANNEL_SHOWN, name + ": shown"}};
  std::vector<std::string> out;
  for (const auto& [kind, text] : texts) {
    if ((change.kinds & kind) != 0) {
      out.push_back(text);
    }
  }
  return out;
}

void on_scan(void*, const Scan_end& end) {
  {
    const std::lock_guard lock(mutex);
    for (const Channel_change& change : end.channel_changes) {
      for (const std::string& text : texts_of(change)) {
        channel_news.push_back(text);
      }
    }
  }
  wake();
}

void on_device(void*, const Device_event& event) {
  {
    const std::lock_guard lock(mutex);
    device_events.push_back(event);
  }
  wake();
}

void on_guide(void*, const std::vector<Guide_change>& events) {
  {
    const std::lock_guard lock(mutex);
    guide_changes.insert(guide_changes.end(), events.begin(), events.end());
  }
  wake();
}

// What became of an event.
const char* word_of(const Guide_change& change) {
  switch (change.kind) {
    case GUIDE_ADDED:
      return "new";
    case GUIDE_MOVED:
      return "moved";
    case GUIDE_REMOVED:
      return "cancelled";
    default:
      return "changed";
  }
}

class Watch {
 public:
  Watch(const Service& service, std::string db, bool json) : service_(service), db_(std::move(db)), json_(json) {}

  void run(int adapter, const Receiver_profile& profile, int seconds, const std::string& zone_of, int verbosity);

 private:
  using Json = nlohmann::ordered_json;

  void say(const char* about, const std::string& text, const Json& details = Json::object()) const;
  void say_event(const Guide_change& change);
  bool listen_to_quality(Kelvo* kelvo, bool late) const;
  // True when channels have changed.
  bool look(const Kelvo& kelvo);
  void look_at_guide(const Kelvo& kelvo);
  const std::string& name_of(int channel);
  std::string title_of(const Guide_change& change) const;
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
  bool json_;
  int events_ = 0;
  bool guide_complete_ = false;       // it was, once; before that everything is new
  std::map<int, std::string> names_;  // of channels, read when a change needs one
  Time_texts time_;
};

void Watch::run(int adapter, const Receiver_profile& profile, int seconds, const std::string& zone_of, int verbosity) {
  // The order of these matters: signals are blocked before the library starts threads, and it is silent before its
  // first object and until its last is gone.
  const Interrupt interrupt;
  const console::Quiet_library quiet(verbosity);
  wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wake_fd < 0) {
    throw Failure("cannot make an event descriptor: too many open files?");
  }
  const std::unique_ptr<Sdbl> database = open_database(db_, true);
  collect_all_guides(database.get());
  if (!zone_of.empty()) {
    database->set_preferred_provider(zone_of.c_str());
  }
  guide_ = std::make_unique<Guide_db>(db_);
  // Closed before the database, whose last user ends its log.
  const std::unique_ptr<std::unique_ptr<Guide_db>, void (*)(std::unique_ptr<Guide_db>*)> closing(
      &guide_, [](std::unique_ptr<Guide_db>* guide) { guide->reset(); });
  events_ = stored();
  // Later than the database and the guide's counts, as it starts to tune and to store at once; deleted first for the
  // same reason.
  Kelvo kelvo(adapter, 0, 0, database.get(), true, on_change, profile);
  check_frontend(adapter, kelvo.frontend_state());
  kelvo.set_time_listener(on_time, nullptr);
  kelvo.set_guide_listener(on_guide, nullptr);
  kelvo.set_device_listener(on_device, nullptr);
  kelvo.set_scan_listener(on_scan, nullptr);
  kelvo.set_stb_event_callback(on_quality);
  // A plain channel request would do nothing on 474 MHz, where a new Kelvo tunes to.
  kelvo.watch_again(service_.freq, service_.channel);
  say("watching", fmt::format("watching {} on {}, {} events in the guide", service_.name, mhz(service_.freq), events_));
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
    const bool changed = look(kelvo);
    // At every look, since there is no end at which it could be asked: a full disk must not pass for a quiet channel.
    check_written(database.get(), db_);
    if (changed) {
      keep_good_copy(database.get(), db_);
    }
  }
  kelvo.cancel_tuning();
  say("stopped", fmt::format("stopped, {} events in the guide", stored()));
}

// The monitor tells nothing until it is reset, and while the tuner is on its way to the channel there is nothing to
// tell. True when it has been reset.
bool Watch::listen_to_quality(Kelvo* kelvo, bool late) const {
  const Tuning_result tuning = kelvo->last_tuning();
  const bool received = tuning.outcome == TUNING_LOCKED && tuning.key == service_.freq;
  // A search over systems may take longer than the patience.
  const bool over = received || (late && tuning.outcome != TUNING_NONE);
  if (over) {
    (void)kelvo->reset_signal_monitor();
  }
  return over;
}

// Each line goes out at once: a reader behind a pipe waits for it, perhaps for hours. A reader that has gone away ends
// the command here.
void Watch::say(const char* about, const std::string& text, const Json& details) const {
  const time_t now = time(nullptr);
  if (json_) {
    Json line{{"time", int64_t{now}}, {"about", about}, {"text", text}};
    line.update(details);
    console::print(line.dump() + "\n", "the changes");
  } else {
    console::print(fmt::format("{} {}\n", local_time(now, "%H:%M:%S"), text), "the changes");
  }
  console::finish_printing("the changes");
}

const std::string& Watch::name_of(int channel) {
  if (!names_.contains(channel)) {
    for (const Service& service : Channel_db(db_).services(true)) {
      names_[service.channel] = service.name;
    }
  }
  return names_[channel];
}

// Empty where the event is gone, or has none.
std::string Watch::title_of(const Guide_change& change) const {
  if (change.kind == GUIDE_REMOVED) {
    return "";
  }
  for (const Guide_event& event : guide_->events(change.start, int64_t{change.start} + 1, {})) {
    if (event.channel == change.channel && event.start == change.start && !event.texts.empty()) {
      return event.texts.front().title;
    }
  }
  return "";
}

// "event moved: Kuldnokk, 2026-03-01 20:15, Uudised".
void Watch::say_event(const Guide_change& change) {
  const std::string& name = name_of(change.channel);
  const std::string title = title_of(change);
  say("event",
      fmt::format("event {}: {}, {}{}{}", word_of(change), name.empty() ? fmt::format("#{}", change.channel) : name,
                  local_time(change.start, "%Y-%m-%d %H:%M"), title.empty() ? "" : ", ", title),
      {{"change", word_of(change)},
       {"channel", change.channel},
       {"name", name},
       {"start_epoch", int64_t{change.start}},
       {"title", title}});
}

void Watch::look_at_guide(const Kelvo& kelvo) {
  std::vector<Guide_change> changed;
  {
    const std::lock_guard lock(mutex);
    changed.swap(guide_changes);
  }
  if (!guide_complete_) {
    std::vector<EIT_progress> progress;
    kelvo.eit_progress(&progress);
    guide_complete_ = !progress.empty() && std::all_of(progress.begin(), progress.end(),
                                                       [](const EIT_progress& one) { return one.whole && one.done; });
    if (guide_complete_) {
      events_ = stored();
      if (events_ != 0) {
        say("guide", fmt::format("guide complete, {} events", events_), {{"complete", true}, {"events", events_}});
      }
    }
    return;
  }
  for (size_t i = 0; i < changed.size(); ++i) {
    if (i == MOST_EVENTS) {
      say("guide", fmt::format("and {} more events of the guide changed", changed.size() - i));
      break;
    }
    say_event(changed[i]);
  }
}

bool Watch::look(const Kelvo& kelvo) {
  look_at_guide(kelvo);
  const int code = changes.exchange(0);
  if ((code & DB_STREAMS_CHANGED) != 0) {
    say("streams", "streams changed");
  }
  if ((code & DB_CHANNELS_CHANGED) != 0) {
    say("channels", "channels changed");
  }
  if ((code & DB_EPG_GROWN) != 0) {
    const int now = stored();
    say("guide", fmt::format("guide grown to {} events ({:+})", now, now - events_),
        {{"complete", false}, {"events", now}});
    events_ = now;
  }
  std::vector<std::string> channels;
  {
    const std::lock_guard lock(mutex);
    channels.swap(channel_news);
  }
  for (const std::string& text : channels) {
    say("channels", text);
  }
  std::vector<unsigned> events;
  {
    const std::lock_guard lock(mutex);
    events.swap(quality_events);
  }
  for (const unsigned event : events) {
    say("quality", event == 0 ? "quality lost" : "quality back", {{"good", event != 0}});
  }
  std::vector<Device_event> devices;
  {
    const std::lock_guard lock(mutex);
    devices.swap(device_events);
  }
  for (const Device_event& event : devices) {
    if (event.kind == DEVICE_GONE) {
      say("adapter", fmt::format("adapter {} is gone", event.adapter));
      say("adapter", fmt::format("waiting for adapter {}", event.adapter));
    } else {
      say("adapter", fmt::format("adapter {} is back", event.adapter));
    }
  }
  std::vector<Time_news> times;
  {
    const std::lock_guard lock(mutex);
    times.swap(time_news);
  }
  for (const Time_news& news : times) {
    for (const std::string& text : time_.texts(news)) {
      say("clock", text);
    }
  }
  return (code & (DB_STREAMS_CHANGED | DB_CHANNELS_CHANGED)) != 0 || !channels.empty();
}

void watch(const Watch_options& options) {
  const int seconds = options.time ? parse_duration(*options.time, "--for") : 0;
  Receiver_profile profile = profile_of(options.receiver);
  if (!options.zone_of.empty()) {
    profile.zone_country = Receiver_profile::Zone_country::PREFERRED_PROVIDER;
  }
  const std::string db = options.db.empty() ? default_database() : options.db;
  check_database_name(db);
  const Service service = find_channel(Channel_db(db).services(true), options.channel, "channel");
  // Behind the look for the channel, which needs no adapter: a slip in the name is told where none is plugged in, too.
  (void)check_adapter(options.adapter, profile);
  (void)check_database(db);
  Watch(service, db, options.json).run(options.adapter, profile, seconds, options.zone_of, options.verbosity - 1);
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
                   "Network whose local time alone becomes the time zone, as kelvo channels shows it; default: any, "
                   "with --profile box levira")
      ->type_name("NETWORK");
  add_receiver_options(command, &options->receiver);
  add_set_clock_option(command, &options->receiver);
  add_country_option(command, &options->receiver);
  add_charset_option(command, &options->receiver);
  add_other_option(command, &options->receiver);
  command->add_flag("--json", options->json, "An object a line, for programs");
  add_verbose_option(command, &options->verbosity);
  command->add_option("--db", options->db, "Channel database; default: $XDG_DATA_HOME/kelvo/dvb.db")->type_name("FILE");
  command->footer(
      "A line, with the time, whenever channels, names or streams change, the guide grows, an event of a complete guide\n"
      "is new, moved, changed or cancelled, reception is lost or back, or the broadcast sets clock or time zone. Ctrl-C\n"
      "ends it. Exit code: 0 ended, 1 failed, 2 wrong arguments.\n"
      "\n"
      "Example:\n"
      "  kelvo watch 1");
  command->callback([options, exit_code] {
    watch(*options);
    *exit_code = EXIT_OK;
  });
}
