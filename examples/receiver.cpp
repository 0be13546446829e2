// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The host of docs/host-guide.md, which explains it part by part.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <kelvo/channel_lookup.h>
#include <kelvo/kelvo.h>
#include <kelvo/now_and_next.h>

// What the library's threads leave for the host's.
struct Told {
  std::mutex mutex;
  std::condition_variable changed;
  int answers = 0;
  Scan_end end;         // of the last scan
  Broadcast_time time;  // the first one
  int changes = 0;      // codes of the change callback, joined
  int guide = 0;        // changed events
};
static Told told;

static void on_change(int codes) {
  const std::lock_guard lock(told.mutex);
  told.changes |= codes;
  told.changed.notify_all();
}

static void on_answer(void* /*data*/, int /*result*/) {
  const std::lock_guard lock(told.mutex);
  ++told.answers;
  told.changed.notify_all();
}

static void on_scan_end(void* /*data*/, const Scan_end& end) {
  const std::lock_guard lock(told.mutex);
  told.end = end;
}

static void on_time(void* /*data*/, const Broadcast_time& time) {
  const std::lock_guard lock(told.mutex);
  if (told.time.utc == 0)
    told.time = time;
}

static void on_guide(void* /*data*/, const std::vector<Guide_change>& changes) {
  const std::lock_guard lock(told.mutex);
  told.guide += static_cast<int>(changes.size());
}

static void listen(Kelvo& kelvo) {
  kelvo.set_scan_listener(on_scan_end, nullptr);
  kelvo.set_time_listener(on_time, nullptr);
  kelvo.set_guide_listener(on_guide, nullptr);
}

static bool scan(Kelvo& kelvo, int freq) {
  std::unique_lock lock(told.mutex);
  const int before = told.answers;
  lock.unlock();
  if (kelvo.tune_to_freq(freq, &told, on_answer) == 0) {
    printf("%d MHz: no signal\n", freq / 1000000);
    return false;
  }
  lock.lock();
  told.changed.wait(lock, [before] { return told.answers > before; });
  const Scan_end& end = told.end;
  printf("%d MHz: %s, %s\n", freq / 1000000, end.outcome == SCAN_COMPLETE ? "complete" : "not complete",
         end.merged ? "stored" : "not stored");
  return end.merged;
}

static void print_channels(const Sdbl& database) {
  std::vector<Listed_channel> channels;
  if (!Channel_lookup(&database).list(&channels))
    return;
  for (const Listed_channel& channel : channels)
    printf("%4d  %s%s\n", channel.number, channel.name.c_str(), channel.scrambled ? " (scrambled)" : "");
}

static void collect_guide(Kelvo& kelvo, std::chrono::minutes limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  std::vector<EIT_progress> services;
  bool complete = false;
  while (!complete && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    kelvo.eit_progress(&services);
    complete = !services.empty();
    for (const EIT_progress& service : services)
      complete = complete && service.done;
  }
  int events = 0;
  for (const EIT_progress& service : services)
    events += service.events;
  printf("guide of %zu services: %d events%s\n", services.size(), events, complete ? "" : ", not complete");
}

static std::string in_short(const std::optional<Programme>& event) {
  if (!event)
    return "-";
  const time_t start = static_cast<time_t>(event->start);
  char time[16];
  strftime(time, sizeof time, "%H:%M", localtime(&start));
  return std::string(time) + " " + event->title;
}

static void print_now_and_next(const Sdbl& database, const Listed_channel& channel) {
  Now_next shown;
  if (!Now_and_next(&database).read(channel.channel, {"est", "eng"}, &shown))
    return;
  printf("%s\n  now   %s\n  next  %s\n", channel.name.c_str(), in_short(shown.now).c_str(),
         in_short(shown.next).c_str());
}

static void watch(Kelvo& kelvo, const Listed_channel& channel, std::chrono::seconds time) {
  std::unique_lock lock(told.mutex);
  told.changes = 0;
  lock.unlock();
  kelvo.watch_again(channel.freq, channel.channel);
  lock.lock();
  const int wanted = DB_STREAMS_CHANGED | DB_CHANNELS_CHANGED | DB_CHANNELS_REFRESHED;
  const bool changed = told.changed.wait_for(lock, time, [=] { return (told.changes & wanted) != 0; });
  printf("%s: %s\n", channel.name.c_str(), changed ? "something has changed, read the channel list anew" : "no news");
}

static void print_signal(Kelvo& kelvo) {
  const Signal_readings signal = kelvo.signal();
  const auto print = [](const char* what, const Signal_value& value, const char* decibel) {
    if (value.scale == SCALE_DECIBEL)
      printf("%s %.1f %s\n", what, value.value, decibel);
    else if (value.scale == SCALE_RELATIVE)
      printf("%s %.0f %%\n", what, value.value);
    else
      printf("%s not known\n", what);
  };
  print("strength", signal.strength, "dBm");
  print("SNR", signal.snr, "dB");
}

static void print_time() {
  const std::lock_guard lock(told.mutex);
  if (told.time.utc == 0)
    return;
  const time_t utc = static_cast<time_t>(told.time.utc);
  tm parts{};
  gmtime_r(&utc, &parts);
  printf("the broadcast said %02d:%02d UTC, %+d minutes in %s; the clock was %s\n", parts.tm_hour, parts.tm_min,
         told.time.offset_min, told.time.country, told.time.clock == CLOCK_RIGHT ? "right" : "wrong");
}

static void export_all(Kelvo& kelvo) {
  kelvo.export_channel_db("backup.db");
  std::unique_lock lock(told.mutex);
  told.changes &= ~DB_EXPORTED;
  lock.unlock();
  kelvo.export_db("backup.db", true);
  lock.lock();
  told.changed.wait(lock, [] { return (told.changes & DB_EXPORTED) != 0; });
}

static int run(const std::vector<int>& freqs) {
  Sdbl database("receiver.db", Durability::FULL);

  Receiver_profile profile = Receiver_profile::any_linux();
  profile.country = "EST";
  Kelvo kelvo(0, 0, 0, &database, true, on_change, profile);
  if (const int error = kelvo.frontend_state().error) {
    fprintf(stderr, "receiver: %s: %s\n", kelvo.frontend_state().path.c_str(), strerror(error));
    return 1;
  }
  listen(kelvo);

  for (const int freq : freqs)
    if (scan(kelvo, freq))
      collect_guide(kelvo, std::chrono::minutes(10));
  print_channels(database);

  std::vector<Listed_channel> found;
  if (!Channel_lookup(&database).by_number(1, &found) || found.empty())
    return 1;
  print_now_and_next(database, found.front());
  watch(kelvo, found.front(), std::chrono::seconds(20));
  print_signal(kelvo);
  print_time();
  export_all(kelvo);

  Database_error error;
  if (database.first_error(&error)) {
    fprintf(stderr, "receiver: receiver.db: %s failed, code %d\n", error.operation, error.code);
    return 1;
  }
  return 0;
}

int main(int argc, char** argv) {
  std::vector<int> freqs;
  for (int i = 1; i < argc; ++i)
    freqs.push_back(atoi(argv[i]));
  if (freqs.empty() || *std::min_element(freqs.begin(), freqs.end()) < 1000000) {
    fprintf(stderr, "usage: receiver HZ..., such as 474000000\n");
    return 2;
  }
  try {
    return run(freqs);
  } catch (const no_file_error& error) {
    fprintf(stderr, "receiver: receiver.db: %s\n", error.what());
    return 1;
  }
}
