// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// A host's calls while somebody else keeps the database, in both profiles. Nobody is timed: what keeps the database
// lets go only when the calls have returned, or have not within a minute.
#include <sqlite3.h>

#include <future>
#include <set>

#include "kelvo/kelvo_run.h"
#include "support/database.h"

namespace {

// A worker inside SQLite, where it may be waiting for another program's lock: it has the connection.
class Worker_in_sqlite {
 public:
  explicit Worker_in_sqlite(Sdbl& database) : mutex_(sqlite3_db_mutex(support::conn_of(database))) {
    thread_ = std::thread([this] {
      sqlite3_mutex_enter(mutex_);
      gate_.pass();
      sqlite3_mutex_leave(mutex_);
    });
    EXPECT_TRUE(gate_.wait_until_reached());
  }
  ~Worker_in_sqlite() {
    let_go();
    thread_.join();
  }
  Worker_in_sqlite(const Worker_in_sqlite&) = delete;
  Worker_in_sqlite& operator=(const Worker_in_sqlite&) = delete;

  void let_go() { gate_.open(); }

 private:
  sqlite3_mutex* mutex_;
  Gate gate_;
  std::thread thread_;
};

// Another program that keeps the channel file. Who waits for it in the library's connection waits in a handler of this
// test, until it lets go.
class Other_program {
 public:
  Other_program(Sdbl& database, const std::string& file) : conn_(support::conn_of(database)), other_(file) {
    (void)sqlite3_busy_timeout(other_.get(), 60000);
    int began = SQLITE_BUSY;
    while (began == SQLITE_BUSY)  // the worker may be storing, on a busy machine for longer than is waited for at once
      began = other_.run("BEGIN EXCLUSIVE");
    EXPECT_EQ(began, SQLITE_DONE);
    (void)sqlite3_busy_handler(conn_, waits, this);
  }
  ~Other_program() {
    let_go();
    EXPECT_EQ(other_.run("COMMIT"), SQLITE_DONE);
    (void)sqlite3_busy_timeout(conn_, 2000);
  }
  Other_program(const Other_program&) = delete;
  Other_program& operator=(const Other_program&) = delete;

  void let_go() { gate_.open(); }

  bool was_waited_for_by(std::thread::id thread) {
    const std::lock_guard lock(lock_);
    return waited_.count(thread) != 0;
  }

 private:
  static int waits(void* self, int) {
    auto& program = *static_cast<Other_program*>(self);
    {
      const std::lock_guard lock(program.lock_);
      program.waited_.insert(std::this_thread::get_id());
    }
    program.gate_.pass();
    return 0;
  }

  sqlite3* conn_;
  support::Other_connection other_;
  Gate gate_;
  std::mutex lock_;
  std::set<std::thread::id> waited_;
};

struct Call {
  const char* legend;
  void (*run)(Kelvo& kelvo);
};

constexpr int FREQ = 506000000;
constexpr int SILENT_FREQ = 514000000;

const Call CALLS[] = {
    {"pause", [](Kelvo& k) { k.set_scan(false); }},
    {"resume", [](Kelvo& k) { k.set_scan(true); }},
    {"tune to a frequency", [](Kelvo& k) { EXPECT_EQ(k.tune_to_freq(FREQ, nullptr, nullptr), -1); }},
    {"tune where nothing is", [](Kelvo& k) { EXPECT_EQ(k.tune_to_freq(SILENT_FREQ, nullptr, nullptr), 0); }},
    {"watch a channel", [](Kelvo& k) { EXPECT_EQ(k.tune_to_freq(FREQ, 1, nullptr, nullptr), -1); }},
    {"watch it again", [](Kelvo& k) { k.watch_again(FREQ, 1); }},
    {"cancel a tuning", [](Kelvo& k) { k.cancel_tuning(); }},
    {"disconnect the tuner", [](Kelvo& k) { k.set_tuner(false); }},
    {"connect it", [](Kelvo& k) { k.set_tuner(true); }},
    {"ask for the guide's progress",
     [](Kelvo& k) {
       std::vector<EIT_progress> progress;
       k.eit_progress(&progress);
     }},
    {"ask for losses",
     [](Kelvo& k) {
       std::vector<Lost_sections> lost;
       k.lost_sections(&lost);
     }},
    {"ask for an export",
     [](Kelvo& k) {
       EXPECT_TRUE(k.export_db(nullptr, false));
       (void)k.export_db_in_progress();
     }},
    {"set listeners",
     [](Kelvo& k) {
       k.set_scan_listener(nullptr, nullptr);
       k.set_time_listener(nullptr, nullptr);
       k.set_guide_listener(nullptr, nullptr);
       k.set_device_listener(nullptr, nullptr);
       k.set_stb_event_callback(nullptr);
     }},
    {"ask for readings",
     [](Kelvo& k) {
       (void)(k.fe_freq() + k.fe_status());
       (void)(k.fe_strength() + k.fe_snr() + k.fe_ber());
       (void)k.signal();
     }},
    {"ask for the state",
     [](Kelvo& k) {
       (void)k.get_msg_state();
       (void)k.time_valid();
       (void)k.last_tuning();
       (void)k.frontend_state();
     }},
    {"switch events",
     [](Kelvo& k) {
       (void)k.reset_signal_monitor();
       k.disable_tunerevents();
     }},
};

class Busy_database : public Kelvo_run, public testing::WithParamInterface<const char*> {
 protected:
  bool any_linux() const { return std::string(GetParam()) == "any_linux"; }

  void SetUp() override {
    Kelvo_run::SetUp();
    kelvo_ = std::make_unique<Kelvo>(0, CONNECTOR, TYPE, database_.get(), true, nullptr,
                                     any_linux() ? Receiver_profile::any_linux() : Receiver_profile::box());
  }

  // False when `call` has not returned while `keeper` keeps the database.
  template <typename Keeper>
  bool returns(const Call& call, Keeper* keeper, std::thread::id* thread) {
    std::promise<void> over;
    std::thread caller([&] {
      call.run(*kelvo_);
      over.set_value();
    });
    *thread = caller.get_id();
    const bool returned = over.get_future().wait_for(PATIENCE) == std::future_status::ready;
    if (!returned)
      keeper->let_go();
    caller.join();
    return returned;
  }

  static constexpr std::chrono::minutes PATIENCE{20};  // of the adapter's time
};

INSTANTIATE_TEST_SUITE_P(, Busy_database, testing::Values("box", "any_linux"),
                         [](const auto& profile) { return std::string(profile.param); });

}  // namespace

TEST_P(Busy_database, is_not_waited_for_by_calls_while_a_worker_is_in_sqlite) {
  ask("first");
  for (const Call& call : CALLS) {
    Worker_in_sqlite worker(*database_);
    std::thread::id thread;
    EXPECT_TRUE(returns(call, &worker, &thread)) << call.legend;
  }
  ask("afterwards");
}

TEST_P(Busy_database, is_not_waited_for_by_calls_while_another_program_locks_the_file) {
  ask("first");
  for (const Call& call : CALLS) {
    Other_program program(*database_, folder_.file("dvb.db"));
    std::thread::id thread;
    EXPECT_TRUE(returns(call, &program, &thread)) << call.legend;
    EXPECT_FALSE(program.was_waited_for_by(thread)) << call.legend;
  }
  ask("afterwards");
}

TEST_P(Busy_database, keeps_what_a_tuning_found_until_it_can_be_stored) {
  {
    Worker_in_sqlite worker(*database_);
    EXPECT_EQ(request("a"), -1);
  }
  EXPECT_TRUE(protocol_.wait_for("done a 0"));
  if (any_linux())
    EXPECT_TRUE(wait_for_sql("SELECT count(*) FROM tuned_multiplex WHERE freq = 506000000"));
  else
    EXPECT_EQ(number_of("SELECT count(*) FROM sqlite_master WHERE name = 'tuned_multiplex'"), 0);
}

// A reader that stays in the file.
TEST_P(Busy_database, keeps_what_a_network_says_of_its_multiplex_until_it_can_be_stored) {
  const support::Other_connection other(folder_.file("dvb.db"));
  ASSERT_EQ(other.run("BEGIN"), SQLITE_DONE);
  EXPECT_EQ(other.rows("SELECT count(*) FROM kanalid"), (support::Texts{"0"}));
  EXPECT_EQ(request("a"), -1);
  Database_error error;
  const auto line_was_refused = [&] {
    const bool refused = database_->first_error(&error) && std::string(error.operation) == "terrestrial_tuner_info";
    if (!refused)
      database_->forget_errors();  // of the tables before
    return refused;
  };
  for (int i = 0; i < 3000 && !line_was_refused(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(error.code, SQLITE_BUSY);
  EXPECT_EQ(number_of("SELECT count(*) FROM tuner_table"), 0);
  ASSERT_EQ(other.run("COMMIT"), SQLITE_DONE);
  EXPECT_TRUE(protocol_.wait_for("done a 0"));
  EXPECT_TRUE(wait_for_sql("SELECT count(*) FROM tuner_table WHERE freq = 506000000"));
}
