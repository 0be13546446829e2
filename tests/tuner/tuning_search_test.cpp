// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// What comes of a search, on a frontend and a rule of the lock that a test scripts. There is no demultiplexer, so a
// lock counts without a PAT.
#include "tuner/tuning_search.h"

#include "support/test.h"
#include "support/text.h"
#include "tuner/turn.h"

using support::Texts;

namespace {

constexpr int FREQ = 506000000;
constexpr unsigned SIGNAL = FE_HAS_SIGNAL | FE_HAS_CARRIER;

std::string name(const Attempt& attempt) {
  return std::string(attempt.system == SYS_DVBT2 ? "T2 " : "T ") + std::to_string(attempt.freq);
}

class Scripted_frontend : public Frontend, public Lock_rule {
 public:
  std::map<std::string, unsigned> on_air;  // status by attempt
  std::string refused;
  std::string cancels;  // the attempt during which another tuning begins
  Turns* turns = nullptr;
  Reported report;
  Texts tried;

  bool receives(unsigned) const override { return true; }
  bool tune(const Attempt& attempt, const Turn*) override {
    tried.push_back(name(attempt));
    errno = EINVAL;
    return name(attempt) != refused;
  }
  Reported reported() override { return report; }
  Lock_wait wait(const Attempt& attempt, bool taken, int64_t, const Turn& turn) override {
    Lock_wait wait;
    if (!taken)
      return wait;
    if (name(attempt) == cancels)
      turns->take();
    const auto found = on_air.find(name(attempt));
    wait.status = found != on_air.end() ? found->second : 0;
    wait.locked = (wait.status & FE_HAS_LOCK) != 0;
    wait.cancelled = turn.over();
    wait.ms = 77;
    return wait;
  }
  bool tuned_to(int, int) override { return false; }
};

class Tuning_search_test : public testing::Test {
 protected:
  Tuning_result run() {
    Tuning_request request;
    request.freq = FREQ;
    Known_tuning known;
    known.systems = {SYS_DVBT, SYS_DVBT2};
    const Turn turn(turns_);
    frontend_.turns = &turns_;
    return search_.run(request, make_search_plan(Receiver_profile::any_linux(), request, known), turn);
  }

  Scripted_frontend frontend_;
  Turns turns_;
  Device device_{"/dev/null", false};  // open; none of its calls matters here
  Tuning_search search_{device_, frontend_, frontend_, Pat_probe("/nonexistent/demux0")};
};

}  // namespace

TEST_F(Tuning_search_test, the_first_lock_ends_it) {
  frontend_.on_air["T 506000000"] = 0x1F;
  const Tuning_result result = run();
  EXPECT_EQ(result.outcome, TUNING_LOCKED);
  EXPECT_EQ(result.system, int{SYS_DVBT});
  EXPECT_EQ(result.key, FREQ);
  EXPECT_EQ(result.freq, FREQ);
  EXPECT_EQ(result.lock_ms, 77);
  EXPECT_EQ(result.status, 0x1FU);
  EXPECT_EQ(frontend_.tried, Texts{"T 506000000"});
}

TEST_F(Tuning_search_test, the_other_system_follows) {
  frontend_.on_air["T2 506000000"] = 0x1F;
  const Tuning_result result = run();
  EXPECT_EQ(result.outcome, TUNING_LOCKED);
  EXPECT_EQ(result.system, int{SYS_DVBT2});
  EXPECT_EQ(frontend_.tried, (Texts{"T 506000000", "T2 506000000"}));
}

TEST_F(Tuning_search_test, silence_is_not_looked_at_beside_the_centre) {
  const Tuning_result result = run();
  EXPECT_EQ(result.outcome, TUNING_NO_SIGNAL);
  EXPECT_EQ(result.key, FREQ);
  EXPECT_EQ(result.lock_ms, -1);
  EXPECT_EQ(frontend_.tried, (Texts{"T 506000000", "T2 506000000"}));
}

TEST_F(Tuning_search_test, only_the_system_that_showed_bits_is_looked_for_beside_the_centre) {
  frontend_.on_air["T 506000000"] = SIGNAL;
  const Tuning_result result = run();
  EXPECT_EQ(result.outcome, TUNING_NO_LOCK);
  EXPECT_EQ(result.system, int{SYS_DVBT});
  EXPECT_EQ(result.status, SIGNAL);
  EXPECT_EQ(frontend_.tried, (Texts{"T 506000000", "T2 506000000", "T 506166667", "T 505833333"}));
}

TEST_F(Tuning_search_test, a_lock_beside_the_centre_is_known_by_the_frequency_asked_for) {
  frontend_.on_air["T 506000000"] = SIGNAL;
  frontend_.on_air["T 505833333"] = 0x1F;
  frontend_.report = {505833333, SYS_DVBT, 7000000, QAM_64};
  const Tuning_result result = run();
  EXPECT_EQ(result.outcome, TUNING_LOCKED);
  EXPECT_EQ(result.key, FREQ);
  EXPECT_EQ(result.reported_hz, 505833333);
  EXPECT_EQ(result.tuned_hz, 505833333);
  EXPECT_EQ(result.offset_hz, -166667);
  EXPECT_EQ(result.bandwidth_hz, 7000000);
  EXPECT_EQ(result.modulation, int{QAM_64});
  EXPECT_EQ(frontend_.tried.back(), "T 505833333");
}

TEST_F(Tuning_search_test, what_the_driver_reports_is_taken_as_far_as_it_can_be_right) {
  frontend_.on_air["T 506000000"] = 0x1F;
  struct Case {
    const char* legend;
    Reported reported;
    int offset_hz;
    int system;
    int bandwidth_hz;
  };
  const Case cases[] = {
      {"the carrier's offset", {506001234, SYS_DVBT, 8000000, QAM_64}, 1234, SYS_DVBT, 8000000},
      {"the other system, which the driver tried by itself", {FREQ, SYS_DVBT2, 0, -1}, 0, SYS_DVBT2, 8000000},
      {"1 Hz", {1, SYS_DVBT, 8000000, QAM_64}, 0, SYS_DVBT, 8000000},
      {"nothing", {}, 0, SYS_DVBT, 8000000},
      {"499999 Hz off", {FREQ + 499999, SYS_DVBT, 0, -1}, 499999, SYS_DVBT, 8000000},
      {"500 kHz off", {FREQ + 500000, SYS_DVBT, 0, -1}, 0, SYS_DVBT, 8000000},
      {"cable", {FREQ, SYS_DVBC_ANNEX_A, 0, -1}, 0, SYS_DVBT, 8000000},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.legend);
    frontend_.report = c.reported;
    const Tuning_result result = run();
    EXPECT_EQ(result.offset_hz, c.offset_hz);
    EXPECT_EQ(result.system, c.system);
    EXPECT_EQ(result.bandwidth_hz, c.bandwidth_hz);
    EXPECT_EQ(result.reported_hz, c.reported.freq);
  }
}

TEST_F(Tuning_search_test, a_signal_in_one_system_is_told_though_the_other_one_is_refused) {
  frontend_.on_air["T 506000000"] = SIGNAL;
  frontend_.refused = "T2 506000000";
  const Tuning_result result = run();
  EXPECT_EQ(result.outcome, TUNING_NO_LOCK);
  EXPECT_EQ(result.error, 0);
}

TEST_F(Tuning_search_test, a_refusal_has_its_errno) {
  frontend_.refused = "T 506000000";
  Tuning_request request;
  request.freq = FREQ;
  request.system = SYS_DVBT;
  const Turn turn(turns_);
  const Tuning_result result = search_.run(request, make_search_plan(Receiver_profile::any_linux(), request, {}), turn);
  EXPECT_EQ(result.outcome, TUNING_REFUSED);
  EXPECT_EQ(result.error, EINVAL);
}

TEST_F(Tuning_search_test, another_tuning_ends_it_and_nothing_is_tuned_behind_that) {
  frontend_.cancels = "T 506000000";
  EXPECT_EQ(run().outcome, TUNING_CANCELLED);
  EXPECT_EQ(frontend_.tried, Texts{"T 506000000"});
}

TEST_F(Tuning_search_test, a_turn_that_is_over_tunes_nothing_at_all) {
  turns_.close();
  EXPECT_EQ(run().outcome, TUNING_CANCELLED);
  EXPECT_EQ(frontend_.tried, Texts{});
}

TEST(Turns_test, each_turn_ends_with_the_next_one_or_when_it_is_cancelled) {
  Turns turns;
  const Turn first(turns);
  EXPECT_FALSE(first.over());
  turns.cancel();
  EXPECT_TRUE(first.over());
  EXPECT_TRUE(first.newest());
  const Turn second(turns);
  EXPECT_FALSE(second.over());
  EXPECT_FALSE(first.newest());
  EXPECT_TRUE(first.over());
  turns.close();
  EXPECT_TRUE(second.over());
  const Turn third(turns);
  EXPECT_TRUE(third.over());
}
