// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// A host of the library that does what a script tells it, a command a line, and prints what comes back, with the
// seconds since its start:
//
//   open FILE                     the database; before all else
//   repeat_lost, any_linux        in the profile of what is created from now on, or that profile as a whole
//   kelvo N tuner|passive [C T]   creates the Kelvo of adapter N, with callbacks; connector and type, else 0 and 0
//   delete N                      destroys it
//   freq N HZ                     frequency request, answered by "done N RESULT"
//   freq_without_data N HZ        the same with null data
//   channel N HZ CHANNEL          channel request
//   wait_done N SECONDS           until the last frequency request is answered
//   wait_change N CODE SECONDS    until the change callback got CODE since the last wait_change
//   wait_sql SECONDS SQL          until the query (of one number) answers other than 0
//   wait_filter N PID COUNT SECONDS   until filters of a PID have been started so many times since the creation
//   scan N on|off, tuner N on|off
//   export N FILE, export_channels N FILE
//   state N                       message state, export in progress, clock valid
//   readings N
//   types T...                    service types whose guide is collected, from the next tuning on
//   wait_guide N SECONDS          until every service has all that its network announces
//   wait_table N TABLE SECONDS    until that table (hexadecimal) is being collected
//   told_time N                   "told CLOCK ZONE MINUTES COUNTRY" of the last time table that was told of, or
//                                 "told nothing"
//   progress N                    "guide SERVICE table TABLE/LAST active A done D events EVENTS" for each service,
//                                 tables hexadecimal, or "no guide"
//   mirror N                      "mirror CHANNEL|EVENT|START ..." of the events that the guide's listener was told of
//   and
//                                 that are not removed, by row
//   lost N                        "lost PID OVERFLOWS WRONG_CRCS" for each PID, or "lost nothing"
//   wait_progress N SECONDS LINE  until that is one of the lines
//   sql SQL                       one number
//   insert SQL                    a statement of the script's own
//   signals MS                    to each thread, and to the process, every so many milliseconds of the machine's time;
//                                 0 ends that and says "signals came" when some did after the first
//   verbosity N, sleep SECONDS, write FILE TEXT, exists FILE
//
// Lines of callbacks appear as they come: "done N RESULT", "change N CODE".
#include <signal.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "kelvo/kelvo.h"

namespace {

double now_s() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

const double start_s = now_s();
std::mutex print_lock;

void say(const std::string& text) {
  const std::lock_guard<std::mutex> lock(print_lock);
  std::printf("%.2f\t%s\n", now_s() - start_s, text.c_str());
  std::fflush(stdout);
}

constexpr int ADAPTERS = 4;

struct Adapter {
  std::unique_ptr<Kelvo> kelvo;
  std::atomic<int> answers{0};
  int requests = 0;
  std::atomic<unsigned> changes{0};
  std::mutex lock;                    // guards what follows
  std::map<int, int> filters;         // started, by PID
  Broadcast_time time;                // the last one, of frequency 0 before that
  std::map<int, std::string> mirror;  // the guide as it was told, by row

  template <typename Get>
  auto locked(Get get) {
    const std::lock_guard<std::mutex> guard(lock);
    return get();
  }
};

std::array<Adapter, ADAPTERS> adapters;
std::unique_ptr<Sdbl> database;
std::string database_file;
Receiver_profile profile;  // of the box, but for what the script says

template <int N>
void changed(int code) {
  say("change " + std::to_string(N) + " " + std::to_string(code));
  adapters[N].changes |= static_cast<unsigned>(code);
}
constexpr Kelvo::change_callback_t CHANGED[ADAPTERS] = {changed<0>, changed<1>, changed<2>, changed<3>};

void done(void* data, int result) {
  const auto* adapter = static_cast<Adapter*>(data);
  say("done " + std::to_string(adapter - adapters.data()) + " " + std::to_string(result));
  ++adapters[static_cast<size_t>(adapter - adapters.data())].answers;
}

void time_told(void* data, const Broadcast_time& time) {
  auto* adapter = static_cast<Adapter*>(data);
  adapter->locked([&] { return adapter->time = time; });
}

void guide_told(void* data, const std::vector<Guide_change>& changes) {
  auto* adapter = static_cast<Adapter*>(data);
  const std::lock_guard<std::mutex> guard(adapter->lock);
  for (const Guide_change& change : changes)
    if (change.kind == GUIDE_REMOVED)
      adapter->mirror.erase(change.entry);
    else
      adapter->mirror[change.entry] =
          std::to_string(change.channel) + "|" + std::to_string(change.event_id) + "|" + std::to_string(change.start);
}

// "followed 1 KINDS Old>New 5>6 506>514" for each known channel that is another now.
void scan_told(void* data, const Scan_end& end) {
  const auto* adapter = static_cast<Adapter*>(data);
  for (const Channel_change& c : end.channel_changes)
    say("followed " + std::to_string(adapter - adapters.data()) + " " + std::to_string(c.kinds) + " " + c.old_name +
        ">" + c.new_name + " " + std::to_string(c.old_lcn) + ">" + std::to_string(c.new_lcn) + " " +
        std::to_string(c.old_freq / 1000000) + ">" + std::to_string(c.new_freq / 1000000));
}

void active(void* data, int kind, int value) {
  auto* adapter = static_cast<Adapter*>(data);
  if (kind == ACTIVITY_FILTER_STARTED)
    adapter->locked([&] { return ++adapter->filters[value]; });
}

// Seconds of the machine's time that the threads there are waited for a processor since they began, all together.
double starved_s() {
  double ns = 0;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    double ran = 0;
    double waited = 0;
    if (std::ifstream(task.path() / "schedstat") >> ran >> waited)  // not there on every kernel
      ns += waited;
  }
  return ns / 1e9;
}
double starved_before_s = 0;  // those of a Kelvo that is gone

// Ten times as long as the script says, because this clock runs faster than the machine, which may be busy.
template <typename Condition>
bool wait_until(double seconds, Condition condition) {
  const double end = now_s() + 10 * seconds;
  while (!condition()) {
    if (now_s() > end)
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

int ask(const std::string& sql) {
  int value = -1;
  if (database->sql_get_int(&value, 0, "%s", sql.c_str()) != 0)
    return 0;
  return value;
}

template <typename T>
T next(std::istringstream& in) {
  T value{};
  in >> value;
  return value;
}

std::string rest(std::istringstream& in) {
  std::string text;
  std::getline(in >> std::ws, text);
  return text;
}

[[noreturn]] void wrong(const std::string& line) {
  std::fprintf(stderr, "scan_host: wrong command: %s\n", line.c_str());
  std::exit(2);
}

// Signals as profilers and hosts' timers send them: handled, and calls are not made again by themselves.
class Signals {
 public:
  void start(int ms) {
    struct sigaction action {};
    action.sa_handler = [](int) { ++came_; };
    for (const int signal : {SIGUSR1, SIGALRM})
      sigaction(signal, &action, nullptr);
    sending_ = true;
    sender_ = std::thread([this, ms] { send(ms); });
    while (came_ == 0)
      std::this_thread::yield();
    came_ = 0;
  }
  bool stop() {
    sending_ = false;
    sender_.join();
    return came_.exchange(0) > 0;
  }

 private:
  void send(int ms) {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, nullptr);
    const auto self = syscall(SYS_gettid);
    for (int signal = SIGUSR1; sending_; signal = signal == SIGUSR1 ? SIGALRM : SIGUSR1) {
      for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        const long id = std::stol(task.path().filename());
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        if (id != self && name != "softdvb")
          syscall(SYS_tgkill, getpid(), id, signal);
      }
      kill(getpid(), signal);
      const timespec pause{0, ms * 1000000L};
      syscall(SYS_nanosleep, &pause, nullptr);
    }
  }

  static inline std::atomic<int> came_{0};
  std::atomic<bool> sending_{false};
  std::thread sender_;
};

Signals signals;

void run_global(const std::string& command, std::istringstream& in, const std::string& line) {
  if (command == "open") {
    database_file = rest(in);
    database = std::make_unique<Sdbl>(database_file.c_str());
  } else if (command == "repeat_lost") {
    profile.repeat_lost = true;
  } else if (command == "any_linux") {
    profile = Receiver_profile::any_linux();
  } else if (command == "verbosity") {
    verbosity_kelvo = next<int>(in);
  } else if (command == "sleep") {
    std::this_thread::sleep_for(std::chrono::duration<double>(next<double>(in)));
  } else if (command == "write") {
    const auto file = next<std::string>(in);
    // Whole at once, because the worker may be looking.
    const std::string whole = database_file + ".new";
    std::ofstream(whole) << rest(in) << "\n";
    if (std::rename(whole.c_str(), file.c_str()) != 0)
      wrong(line);
  } else if (command == "signals") {
    if (const int ms = next<int>(in); ms > 0)
      signals.start(ms);
    else
      say(signals.stop() ? "signals came" : "no signals");
  } else if (command == "exists") {
    const std::string file = rest(in);
    say(std::string("exists ") + (access(file.c_str(), F_OK) == 0 ? "yes" : "no"));
  } else if (command == "types") {
    std::vector<int> types;
    for (int type = 0; in >> type;)
      types.push_back(type);
    database->set_eit_service_types(types.data(), static_cast<int>(types.size()));
  } else if (command == "sql") {
    say("sql " + std::to_string(ask(rest(in))));
  } else if (command == "insert") {
    (void)database->sql_cache(true, 0, rest(in).c_str());
  } else if (command == "wait_sql") {
    const auto seconds = next<double>(in);
    const std::string sql = rest(in);
    say(wait_until(seconds, [&] { return ask(sql) != 0; }) ? "true" : "never true: " + sql);
  } else {
    wrong(line);
  }
}

std::vector<EIT_progress> progress_of(const Adapter& a) {
  std::vector<EIT_progress> progress;
  a.kelvo->eit_progress(&progress);
  return progress;
}

std::string line_of(const EIT_progress& p) {
  char text[120];
  std::snprintf(text, sizeof text, "guide %d table %x/%x active %d done %d events %d", p.service_id,
                static_cast<unsigned>(p.table), static_cast<unsigned>(p.last_table), p.active, p.done, p.events);
  return text;
}

// Services that send no schedule are done with what was found when the first schedule table has been closed.
bool guide_complete(const Adapter& a) {
  const std::vector<EIT_progress> progress = progress_of(a);
  return !progress.empty() && std::all_of(progress.begin(), progress.end(), [](const EIT_progress& p) {
    if (p.last_table == 0)
      return p.table > 0x50 || (p.table == 0x50 && p.done);
    return p.table > p.last_table || (p.table == p.last_table && p.done);
  });
}

void run_on_adapter(const std::string& command, size_t n, Adapter& a, std::istringstream& in, const std::string& line) {
  if (command == "kelvo") {
    const bool tuner = next<std::string>(in) == "tuner";
    const int connector = next<int>(in);
    a.kelvo = std::make_unique<Kelvo>(static_cast<int>(n), connector, next<int>(in), database.get(), tuner, CHANGED[n],
                                      profile);
    a.kelvo->set_time_listener(time_told, &a);
    a.kelvo->set_scan_listener(scan_told, &a);
    a.kelvo->set_guide_listener(guide_told, &a);
    a.kelvo->set_activity_listener({active, &a});
    return;
  }
  if (a.kelvo == nullptr)
    wrong(line);
  if (command == "delete") {
    const double before = starved_s();
    a.kelvo.reset();
    starved_before_s += before - starved_s();
    say("deleted");
  } else if (command == "freq") {
    const int answers = a.answers;
    const int result = a.kelvo->tune_to_freq(next<int>(in), &a, done);
    a.requests = answers + 1;
    say("freq " + std::to_string(result));
  } else if (command == "freq_without_data") {
    say("freq " + std::to_string(a.kelvo->tune_to_freq(next<int>(in), nullptr, done)));
  } else if (command == "channel") {
    const int hz = next<int>(in);
    say("channel " + std::to_string(a.kelvo->tune_to_freq(hz, next<int>(in), &a, done)));
  } else if (command == "wait_done") {
    if (!wait_until(next<double>(in), [&] { return a.answers >= a.requests; }))
      say("no answer");
  } else if (command == "wait_change") {
    const auto code = next<unsigned>(in);
    if (!wait_until(next<double>(in), [&] { return (a.changes & code) == code; }))
      say("no change " + std::to_string(code));
    a.changes = 0;
  } else if (command == "wait_filter") {
    const int pid = next<int>(in);
    const int times = next<int>(in);
    if (!wait_until(next<double>(in), [&] { return a.locked([&] { return a.filters[pid]; }) >= times; }))
      say("no filter of " + std::to_string(pid));
  } else if (command == "scan") {
    a.kelvo->set_scan(next<std::string>(in) == "on");
  } else if (command == "tuner") {
    a.kelvo->set_tuner(next<std::string>(in) == "on");
  } else if (command == "export") {
    say("export " + std::to_string(a.kelvo->export_db(rest(in).c_str(), true)));
  } else if (command == "export_channels") {
    a.kelvo->export_channel_db(rest(in).c_str());
  } else if (command == "state") {
    say("state " + std::to_string(a.kelvo->get_msg_state()) + " " + std::to_string(a.kelvo->export_db_in_progress()) +
        " " + std::to_string(a.kelvo->time_valid()));
  } else if (command == "wait_guide") {
    say(wait_until(next<double>(in), [&] { return guide_complete(a); }) ? "guide complete" : "guide not complete");
  } else if (command == "wait_table") {
    const int table = std::stoi(next<std::string>(in), nullptr, 16);
    const auto reached = [&] {
      const std::vector<EIT_progress> progress = progress_of(a);
      return !progress.empty() && progress.front().table >= table;
    };
    say(wait_until(next<double>(in), reached) ? "reached" : "not reached");
  } else if (command == "told_time") {
    const Broadcast_time time = a.locked([&] { return a.time; });
    say(time.freq == 0 ? "told nothing"
                       : "told " + std::to_string(time.clock) + " " + std::to_string(time.zone) + " " +
                             std::to_string(time.offset_min) + " " + time.country);
  } else if (command == "progress") {
    const std::vector<EIT_progress> progress = progress_of(a);
    for (const EIT_progress& p : progress)
      say(line_of(p));
    if (progress.empty())
      say("no guide");
  } else if (command == "wait_progress") {
    const auto seconds = next<double>(in);
    const std::string wanted = rest(in);
    const bool seen = wait_until(seconds, [&] {
      const std::vector<EIT_progress> progress = progress_of(a);
      return std::any_of(progress.begin(), progress.end(), [&](const EIT_progress& p) { return line_of(p) == wanted; });
    });
    if (!seen)
      say("never: " + wanted);
  } else if (command == "mirror") {
    std::string text = "mirror";
    for (const auto& [entry, event] : a.locked([&] { return a.mirror; }))
      text += " " + event;
    say(text);
  } else if (command == "lost") {
    std::vector<Lost_sections> lost;
    a.kelvo->lost_sections(&lost);
    for (const Lost_sections& l : lost)
      say("lost " + std::to_string(l.pid) + " " + std::to_string(l.overflows) + " " + std::to_string(l.crc_errors));
    if (lost.empty())
      say("lost nothing");
  } else if (command == "readings") {
    char text[200];
    std::snprintf(text, sizeof text, "readings %d %.1f %d %.2f %.1f", a.kelvo->fe_freq(),
                  static_cast<double>(a.kelvo->fe_strength()), static_cast<unsigned>(a.kelvo->fe_status()),
                  static_cast<double>(a.kelvo->fe_snr()), static_cast<double>(a.kelvo->fe_ber()));
    say(text);
  } else {
    wrong(line);
  }
}

void run(const std::string& line) {
  std::istringstream in(line);
  std::string command;
  if (!(in >> command) || command[0] == '#')
    return;
  for (const char* global : {"open", "repeat_lost", "any_linux", "types", "insert", "signals", "verbosity", "sleep",
                             "write", "exists", "sql", "wait_sql"}) {
    if (command == global)
      return run_global(command, in, line);
  }
  size_t n = 0;
  if (!(in >> n) || n >= ADAPTERS || database == nullptr)
    wrong(line);
  run_on_adapter(command, n, adapters[n], in, line);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "Usage: scan_host SCRIPT\n");
    return 2;
  }
  std::ifstream script(argv[1]);
  if (!script) {
    std::fprintf(stderr, "scan_host: %s cannot be read\n", argv[1]);
    return 1;
  }
  for (std::string line; std::getline(script, line);)
    run(line);
  const double starved = starved_before_s + starved_s();
  for (Adapter& adapter : adapters)
    adapter.kelvo.reset();
  database.reset();
  say("starved " + std::to_string(starved));
  say("end");
  return 0;
}
