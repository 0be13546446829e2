// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <linux/dvb/frontend.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <kelvo/kelvo.h>

#include "tools/cli/console.h"
#include "tools/cli/failure.h"
#include "tools/cli/interrupt.h"
#include "tools/cli/local_time.h"
#include "tools/cli/progress_lines.h"
#include "tools/cli/receiver_options.h"
#include "tools/cli/temporary_folder.h"
#include "tools/cli/text.h"
#include "tools/commands.h"
#include "tools/database/channel_db.h"
#include "tools/database/find_channel.h"
#include "tools/database/open_database.h"
#include "tools/engine/device.h"
#include "tools/engine/tuning_text.h"
#include "tools/play/dvr_reader.h"
#include "tools/play/packet_queue.h"
#include "tools/play/stream_output.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds LOOK_INTERVAL{500};
constexpr seconds SILENCE{2};                // without a packet, until it is said
constexpr seconds RETUNE_INTERVAL{20};       // while nothing comes
constexpr seconds BEGIN_PATIENCE{5};         // until it is said what is missing
constexpr seconds LOSS_INTERVAL{10};         // between lines about losses
constexpr milliseconds LAST_PATIENCE{2000};  // for the reader of a pipe, at the end
constexpr int DEFAULT_BUFFER_MB = 64;
constexpr int LARGEST_BUFFER_MB = 4096;

struct Play_options {
  std::string channel;
  std::string file;
  bool force = false;
  bool all = false;
  bool wait = false;
  bool no_guide = false;
  bool quiet = false;
  int adapter = 0;
  int buffer_mb = DEFAULT_BUFFER_MB;
  std::optional<std::string> time;
  Receiver_options receiver;
  std::string db;
};

std::string duration_text(Clock::duration time) {
  const auto s = std::chrono::duration_cast<seconds>(time).count();
  return fmt::format("{}:{:02}:{:02}", s / 3600, s / 60 % 60, s % 60);
}

std::string size_text(uint64_t bytes) {
  constexpr double MEGA = 1e6;
  return fmt::format("{:.1f} MB", static_cast<double>(bytes) / MEGA);
}

std::string losses_text(const Play_counts& now, const Play_counts& before = {}) {
  std::string text;
  const auto add = [&text](const std::string& part) { text += (text.empty() ? "" : "; ") + part; };
  if (now.gaps > before.gaps) {
    add(fmt::format("{} or more in {}", counted(now.lost - before.lost, "packet"),
                    counted(now.gaps - before.gaps, "gap")));
  }
  if (now.damaged > before.damaged) {
    add(fmt::format("{} damaged", counted(now.damaged - before.damaged, "packet")));
  }
  if (now.overflows > before.overflows) {
    add(fmt::format("the device's buffer overflowed {}", counted(now.overflows - before.overflows, "time")));
  }
  if (now.dropped > before.dropped) {
    add(fmt::format("{} for which the reader was too slow", counted(now.dropped - before.dropped, "packet")));
  }
  if (now.unsynced > before.unsynced) {
    add(fmt::format("{} that are no packets", counted(now.unsynced - before.unsynced, "byte")));
  }
  return text;
}

// The channels' file alone, for a receiver that is to change nothing.
void copy_database(const std::string& from, const std::string& to) {
  const Connection source = open_to_read(from);
  sqlite3* made = nullptr;
  int code = sqlite3_open(to.c_str(), &made);
  const Connection target(made);
  sqlite3_backup* copy = code == SQLITE_OK ? sqlite3_backup_init(target.get(), "main", source.get(), "main") : nullptr;
  if (copy != nullptr) {
    (void)sqlite3_backup_step(copy, -1);
    code = sqlite3_backup_finish(copy);
  }
  if (copy == nullptr || code != SQLITE_OK) {
    throw Failure(fmt::format("{}: cannot be read: {}", from, sqlite3_errstr(code)));
  }
}

class Play {
 public:
  Play(const Play_options& options, Service service, Stream_output* output)
      : options_(options),
        service_(std::move(service)),
        output_(*output),
        queue_(size_t{1'000'000} * static_cast<size_t>(options.buffer_mb)) {}

  // Until it is interrupted, or the time is over, or its reader has gone.
  void run(const Receiver_profile& profile, const std::string& db, const Interrupt& interrupt, int limit_s);

 private:
  static void on_device(void* self, const Device_event& event);

  void say(const std::string& text);
  bool is_received(const Tuning_result& tuning) const {
    return (tuning.freq == service_.freq || tuning.key == service_.freq) && tuning.outcome == TUNING_LOCKED;
  }
  void wait_for_lock(Kelvo* kelvo, Clock::time_point now);
  void begin();
  void look(Kelvo* kelvo, Clock::time_point now);
  void look_at_signal(Kelvo* kelvo, Clock::time_point now, const Play_counts& reception);
  void look_at_database(Sdbl* database, const std::string& db);
  void tell_losses(Clock::time_point now, const Play_counts& reception);
  void draw(Clock::time_point now);
  void write_some();
  void wait(const Interrupt& interrupt);
  void write_rest();
  void tell_end();

  const Play_options& options_;
  Service service_;
  Stream_output& output_;
  Packet_queue queue_;
  std::unique_ptr<Dvr_reader> reader_;
  Packet_queue::Bytes batch_;
  size_t batch_at_ = 0;
  std::atomic<bool> gone_{false};
  Progress_lines lines_;

  Clock::time_point begun_;    // the command
  Clock::time_point started_;  // the stream
  Clock::time_point asked_;    // for the last tuning
  bool told_no_lock_ = false;
  bool told_waiting_ = false;
  uint64_t packets_ = 0;  // seen last
  Clock::time_point packets_at_;
  bool silent_ = false;
  Play_counts told_;
  Clock::time_point told_at_;
  bool database_failed_ = false;
  uint64_t drawn_bytes_ = 0;
  Clock::time_point drawn_at_;
  double rate_ = 0;  // bits a second
};

// On the library's worker.
void Play::on_device(void* self, const Device_event& event) {
  if (event.kind == DEVICE_GONE) {
    static_cast<Play*>(self)->gone_ = true;
  }
}

void Play::say(const std::string& text) {
  if (!options_.quiet) {
    lines_.clear();
    console::say("kelvo: " + clean_text(text));
  }
}

void Play::run(const Receiver_profile& profile, const std::string& db, const Interrupt& interrupt, int limit_s) {
  const std::unique_ptr<Sdbl> database = open_database(db, true);
  if (!options_.no_guide) {
    collect_all_guides(database.get());
  }
  begun_ = asked_ = Clock::now();
  {
    Kelvo kelvo(options_.adapter, 0, 0, database.get(), true, nullptr, profile);
    check_frontend(options_.adapter, kelvo.frontend_state());
    kelvo.set_device_listener(on_device, this);
    kelvo.watch_again(service_.freq, service_.channel);
    Clock::time_point looked = begun_;
    while (!interrupt.came() && !output_.reader_is_gone() && !gone_ &&
           (limit_s == 0 || Clock::now() - begun_ < seconds(limit_s))) {
      wait(interrupt);
      write_some();
      const Clock::time_point now = Clock::now();
      if (!reader_) {
        wait_for_lock(&kelvo, now);
      } else if (now - looked >= LOOK_INTERVAL) {
        looked = now;
        look(&kelvo, now);
        look_at_database(database.get(), db);
        if (!reader_->failure().empty()) {
          break;
        }
      }
    }
    kelvo.cancel_tuning();
    if (reader_) {
      reader_->stop();
      write_rest();
    }
  }
  lines_.clear();
  output_.finish();
  tell_end();
  const std::string failure = reader_ ? reader_->failure() : "";
  if (gone_ || failure == Dvr_reader::GONE) {
    throw Failure(fmt::format("adapter {} is gone; what was received is kept", options_.adapter));
  }
  if (!failure.empty()) {
    throw Failure(failure);
  }
  // A recording that was made by a clock is not to pass for one.
  if (output_.written() == 0 && !output_.reader_is_gone() && !interrupt.came()) {
    throw Failure(reader_ ? "nothing has come of the channel" : fmt::format("{}: no signal", mhz(service_.freq)));
  }
}

void Play::wait_for_lock(Kelvo* kelvo, Clock::time_point now) {
  check_frontend(options_.adapter, kelvo->frontend_state());
  const Tuning_result tuning = kelvo->last_tuning();
  if (is_received(tuning)) {
    begin();
    return;
  }
  const bool ended = tuning.outcome != TUNING_NONE && (tuning.freq == service_.freq || tuning.key == service_.freq);
  if (!ended) {
    return;
  }
  const std::string why = fmt::format("{}: {}", mhz(service_.freq), no_lock_text(tuning));
  if (!options_.wait) {
    throw Failure(why);
  }
  if (!told_no_lock_) {
    told_no_lock_ = true;
    say(why + "; waiting for it");
  }
  if (now - asked_ > RETUNE_INTERVAL) {
    asked_ = now;
    kelvo->watch_again(service_.freq, service_.channel);
  }
}

void Play::begin() {
  reader_ = std::make_unique<Dvr_reader>(options_.adapter,
                                         options_.all ? std::nullopt : std::optional(service_.program_number), &queue_);
  started_ = packets_at_ = drawn_at_ = told_at_ = Clock::now();
  say(options_.all ? fmt::format("playing the whole multiplex on {}", mhz(service_.freq))
                   : fmt::format("playing {} on {}", service_.name, mhz(service_.freq)));
}

void Play::look(Kelvo* kelvo, Clock::time_point now) {
  const Play_counts reception = reader_->reception();
  for (const std::string& news : reader_->take_news()) {
    say(news);
  }
  if (!reception.begun && !told_waiting_ && !silent_ && now - started_ > BEGIN_PATIENCE) {
    told_waiting_ = true;
    if (reception.waits_for == "PAT") {
      say(fmt::format("the multiplex does not name the channel (service {}) in its PAT; waiting for it",
                      service_.program_number));
    } else if (reception.waits_for == "PMT") {
      say("the channel's PMT does not come; waiting for it");
    }
  }
  look_at_signal(kelvo, now, reception);
  tell_losses(now, reception);
  draw(now);
}

void Play::look_at_signal(Kelvo* kelvo, Clock::time_point now, const Play_counts& reception) {
  if (reception.packets != packets_) {
    if (silent_) {
      silent_ = false;
      say(fmt::format("the signal is back after {} s", std::chrono::duration_cast<seconds>(now - packets_at_).count()));
    }
    packets_ = reception.packets;
    packets_at_ = now;
    return;
  }
  if (!silent_ && now - packets_at_ >= SILENCE) {
    silent_ = true;
    asked_ = now;
    const bool locked = (kelvo->signal().status & FE_HAS_LOCK) != 0;
    say(locked ? "nothing comes although the signal is there; waiting" : "the signal is lost; waiting for it");
  }
  // The device holds on by itself. Where that fails, tuning anew costs nothing now.
  if (silent_ && now - asked_ > RETUNE_INTERVAL) {
    asked_ = now;
    kelvo->watch_again(service_.freq, service_.channel);
  }
}

// The film counts more than the guide beside it.
void Play::look_at_database(Sdbl* database, const std::string& db) {
  if (database_failed_) {
    return;
  }
  try {
    check_written(database, db);
  } catch (const Failure& error) {
    database_failed_ = true;
    say(std::string(error.what()) + " (playing goes on)");
  }
}

// On a terminal that shows nothing else of it: with a file the line that is drawn has it, and players have a line of
// their own.
void Play::tell_losses(Clock::time_point now, const Play_counts& reception) {
  if (!console::is_terminal() || !output_.is_pipe() || now - told_at_ < LOSS_INTERVAL) {
    return;
  }
  const std::string text = losses_text(reception, told_);
  if (!text.empty()) {
    say("lost: " + text);
    told_ = reception;
    told_at_ = now;
  }
}

void Play::draw(Clock::time_point now) {
  if (options_.quiet || output_.is_pipe() || !console::is_terminal()) {
    return;
  }
  const uint64_t bytes = output_.written();
  if (const double passed = std::chrono::duration<double>(now - drawn_at_).count(); passed >= 1) {
    rate_ = static_cast<double>(bytes - drawn_bytes_) * 8 / passed;
    drawn_bytes_ = bytes;
    drawn_at_ = now;
  }
  const std::string lost = losses_text(reader_->reception());
  lines_.draw({fmt::format("{}  {}  {:.1f} Mbit/s  {}", duration_text(now - started_), size_text(bytes), rate_ / 1e6,
                           lost.empty() ? "nothing lost" : "lost: " + lost)});
}

void Play::write_some() {
  constexpr int MOST_WRITES = 256;  // then the signals and the devices are looked at
  for (int i = 0; i < MOST_WRITES; ++i) {
    if (batch_at_ == batch_.size()) {
      batch_at_ = 0;
      batch_.clear();
      if (!queue_.take(&batch_)) {
        return;
      }
    }
    const size_t n = output_.write(std::span(batch_).subspan(batch_at_));
    if (n == 0) {
      return;
    }
    batch_at_ += n;
  }
}

void Play::wait(const Interrupt& interrupt) {
  const bool something_waits = batch_at_ < batch_.size();
  pollfd waits[] = {{interrupt.fd(), POLLIN, 0},
                    {queue_.fd(), static_cast<short>(something_waits ? 0 : POLLIN), 0},
                    // A reader that has gone shows here even when there is nothing to write.
                    {output_.slow_fd(), static_cast<short>(something_waits ? POLLOUT : 0), 0}};
  constexpr milliseconds TUNING_INTERVAL{50};
  const bool at_once = something_waits && output_.slow_fd() < 0;
  (void)poll(waits, 3, at_once ? 0 : static_cast<int>((reader_ ? LOOK_INTERVAL : TUNING_INTERVAL).count()));
  output_.look((waits[2].revents & (POLLERR | POLLHUP)) != 0);
}

// A file takes all; the reader of a pipe may have stopped for good.
void Play::write_rest() {
  const Clock::time_point until = Clock::now() + LAST_PATIENCE;
  while (!output_.reader_is_gone() && (output_.slow_fd() < 0 || Clock::now() < until)) {
    write_some();
    if (batch_at_ == batch_.size() && queue_.waiting() == 0) {
      return;
    }
    if (output_.slow_fd() >= 0) {
      pollfd wait{output_.slow_fd(), POLLOUT, 0};
      (void)poll(&wait, 1, static_cast<int>(LOOK_INTERVAL.count()));
    }
  }
}

void Play::tell_end() {
  if (!reader_) {
    return;
  }
  Play_counts reception = reader_->reception();
  for (const std::string& news : reader_->take_news()) {
    say(news);
  }
  const uint64_t left = queue_.waiting() + (batch_.size() - batch_at_);
  const std::string lost = losses_text(reception);
  if (output_.reader_is_gone()) {
    // Whoever has closed a player wants no more words, unless something was wrong.
    if (!lost.empty()) {
      say("lost: " + lost);
    }
    return;
  }
  reception.dropped += left / Transport_packet::SIZE;
  const std::string all = losses_text(reception);
  say(fmt::format("{} in {}: {}, {}", counted(output_.written() / Transport_packet::SIZE, "packet"),
                  duration_text(Clock::now() - started_), size_text(output_.written()),
                  all.empty() ? "nothing lost" : "lost: " + all));
}

int play(const Play_options& options) {
  const int limit_s = options.time ? parse_duration(*options.time, "--for") : 0;
  const Receiver_profile profile = profile_of(options.receiver);
  std::string db = options.db.empty() ? default_database() : options.db;
  check_database_name(db);
  const Service service = find_channel(Channel_db(db).services(false), options.channel, "channel");
  // Before signals are blocked: a named pipe may be waited for without end.
  std::optional<Stream_output> output(std::in_place, options.file, options.force);
  (void)check_adapter(options.adapter, profile);
  std::optional<Temporary_folder> folder;
  if (options.no_guide) {
    const std::string copy = folder.emplace().file("dvb.db");
    copy_database(db, copy);
    db = copy;
  } else {
    (void)check_database(db);
  }
  // Signals are blocked before the library starts threads, and it is silent before its first object and until its last
  // is gone.
  const Interrupt interrupt;
  const console::Quiet_library quiet(-1);
  Play(options, service, &*output).run(profile, db, interrupt, limit_s);
  return output->reader_is_gone() ? EXIT_READER_GONE : EXIT_OK;
}

}  // namespace

void add_play(CLI::App& app, int* exit_code) {
  CLI::App* command = app.add_subcommand("play", "Write a channel's stream to a player or a file");
  const auto options = std::make_shared<Play_options>();
  command
      ->add_option("CHANNEL", options->channel,
                   "Logical channel number, name or part of it, or # and the row number of the database")
      ->required();
  command
      ->add_option("-o,--output", options->file,
                   "Write to this file, or named pipe; default: standard output, which - is, too")
      ->type_name("FILE");
  command->add_flag("--force", options->force, "Write over a file that exists");
  command->add_flag("--all", options->all, "The whole multiplex, as it comes");
  command->add_option("--for", options->time, "End after so long: 90s, 10m, 1h; default: at Ctrl-C")->type_name("TIME");
  command->add_flag("--wait", options->wait, "Without a signal wait for it; default: only for one that was there");
  command->add_flag("--no-guide", options->no_guide,
                    "Store nothing meanwhile, neither the guide nor what changes of the channels");
  command
      ->add_option("--buffer", options->buffer_mb,
                   "So many megabytes wait for a slow reader before packets are dropped; default: 64")
      ->type_name("MB")
      ->check(CLI::Range(1, LARGEST_BUFFER_MB));
  command->add_flag("-q,--quiet", options->quiet, "Say nothing but why it failed");
  command->add_option("--adapter", options->adapter, "DVB adapter, 0 to 3; default: 0")
      ->type_name("N")
      ->check(CLI::Range(0, 3));
  add_receiver_options(command, &options->receiver);
  add_set_clock_option(command, &options->receiver);
  add_country_option(command, &options->receiver);
  add_charset_option(command, &options->receiver);
  add_other_option(command, &options->receiver);
  command->add_option("--db", options->db, "Channel database; default: $XDG_DATA_HOME/kelvo/dvb.db")->type_name("FILE");
  command->footer(
      "The stream is the channel's alone: its PAT, PMT, streams, name, present and following programme. Meanwhile the\n"
      "guide is collected. What was lost is said at the end, on standard error. Exit code: 0 ended by --for or Ctrl-C,\n"
      "1 failed, 2 wrong arguments, 141 the player was closed.\n"
      "\n"
      "Examples:\n"
      "  kelvo play 1 | mpv -\n"
      "  kelvo play 1 --for 1h -o film.ts");
  command->callback([options, exit_code] { *exit_code = play(*options); });
}
