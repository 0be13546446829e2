// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// A tuner whose device is not there or is something else: an object all the same.

#include "support/database.h"
#include "support/messages.h"
#include "tuner/tuner.h"

using support::messages_at;
using support::prints_at;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr int FREQ = 506000000;

class Missing_tuner : public testing::Test {
 protected:
  std::string failed(const char* what) const { return std::string("ERROR: ") + what + path + " failed\n"; }

  std::string printed_by_constructor(int level) {
    const support::Stderr_capture capture;  // its end fails, too
    std::unique_ptr<Tuner> tuner;
    return messages_at(level, [&] { tuner = std::make_unique<Tuner>(path.c_str(), &db.sdbl(), 0, 0); });
  }

  support::Database db;
  std::string path = db.folder().file("frontend0");
};

TEST_F(Missing_tuner, constructor_prints_each_failing_step_and_goes_on_and_below_verbosity_0_only_the_reason) {
  EXPECT_EQ(printed_by_constructor(0), "ERROR: Failed to  open " + path +
                                           "\nERROR: FE_GET_INFO failed: 9 Bad file descriptor\n"
                                           "ERROR: Fronetnd  cannot OFDM" +
                                           failed("Setting frontend parameters for ") +
                                           "Tuner::: Bad file descriptor\n");
  EXPECT_EQ(printed_by_constructor(-1), "Tuner::: Bad file descriptor\n");
}

TEST_F(Missing_tuner, constructor_tells_the_front_end_at_verbosity_3_and_the_path_at_4) {
  EXPECT_THAT(printed_by_constructor(4), StartsWith("Opening " + path + "\nERROR: Failed to  open "));
  EXPECT_THAT(printed_by_constructor(3),
              AllOf(Not(HasSubstr("Opening ")), HasSubstr(" Front end name is , type is 0\n  Freq min: 0 Freq max: 0\n"
                                                          "  Freq step: 0, Tolerance: 0\n")));
  EXPECT_THAT(printed_by_constructor(2), AllOf(Not(HasSubstr("Front end")), Not(HasSubstr("Freq"))));
}

TEST_F(Missing_tuner, file_that_is_no_frontend_is_opened_and_fails_at_each_call) {
  support::write_file(path, "");
  EXPECT_EQ(printed_by_constructor(0),
            "ERROR: FE_GET_INFO failed: 25 Inappropriate ioctl for device\n"
            "ERROR: Fronetnd  cannot OFDM" +
                failed("Setting frontend parameters for ") + "Tuner::: Inappropriate ioctl for device\n");
}

TEST_F(Missing_tuner, path_is_cut_at_255_characters) {
  path = "/" + std::string(400, 'x');
  EXPECT_THAT(printed_by_constructor(0), StartsWith("ERROR: Failed to  open " + path.substr(0, 255) + "\n"));
}

class Built_missing_tuner : public Missing_tuner {
 protected:
  Built_missing_tuner() {
    (void)messages_at(-1, [this] { tuner = std::make_unique<Tuner>(path.c_str(), &db.sdbl(), 0, 0); });
  }
  std::unique_ptr<Tuner> tuner;
};

TEST_F(Built_missing_tuner, readings_print_their_failure_and_answer_0) {
  EXPECT_THAT([&] { EXPECT_EQ(tuner->fe_freq(), 0); }, prints_at(0, failed("Getting frontend parameters for ")));
  EXPECT_THAT([&] { EXPECT_EQ(tuner->fe_status(), 0); }, prints_at(0, failed("FE_READ_STATUS failed for ")));
  EXPECT_THAT([&] { EXPECT_FALSE(tuner->mux_is_dvbh()); }, prints_at(0, failed("FE_READ_STATUS failed for ")));
  EXPECT_THAT([&] { tuner->fe_strength_local(); },
              prints_at(0, "ERROR: FE_READ_STRENGTH failed for " + path + " failed, rc is -1\n"));
  EXPECT_EQ(tuner->fe_strength(), 0.0F);
}

TEST_F(Built_missing_tuner, quirk_failing_ber_and_snr_say_fe_read_status) {
  EXPECT_THAT([&] { EXPECT_EQ(tuner->fe_ber_local(), 0); }, prints_at(0, failed("FE_READ_STATUS failed for ")));
  EXPECT_THAT([&] { EXPECT_EQ(tuner->fe_snr(), 0.0F); }, prints_at(0, failed("FE_READ_STATUS failed for ")));
}

TEST_F(Built_missing_tuner, readings_fail_silently_below_verbosity_0) {
  const auto everything = [&] {
    (void)tuner->fe_freq();
    (void)tuner->fe_status();
    tuner->fe_strength_local();
    (void)tuner->fe_ber_local();
    (void)tuner->fe_snr();
    (void)tuner->tunetofreq(FREQ);
  };
  EXPECT_THAT(everything, prints_at(-1, ""));
}

TEST_F(Built_missing_tuner, tuning_fails_after_three_checks_with_warnings_from_verbosity_1) {
  const std::string read = failed("Getting frontend parameters for ");
  const std::string why = read + "Tuner freq 0 != in freq 506000000. ";
  for (const auto& [level, checks] :
       {std::pair{1, read + read + read}, {2, read + read + read}, {3, why + "1 " + why + "2 " + why + "3 "}})
    EXPECT_THAT([&] { EXPECT_EQ(tuner->tunetofreq(FREQ), 0); },
                prints_at(level, "WARNING: Using default fe data for freq 506000000\n" +
                                     failed("Setting frontend parameters for ") + checks));
}

TEST_F(Built_missing_tuner, channel_and_next_frequency_are_kept) {
  EXPECT_EQ(tuner->get_channel(), -1);
  EXPECT_EQ(tuner->get_next_freq(), 0);
  tuner->set_channel(7);
  EXPECT_EQ(tuner->get_channel(), 7);
  tuner->set_next_freq(FREQ);
  EXPECT_EQ(tuner->get_next_freq(), FREQ);
}

TEST_F(Built_missing_tuner, reset_of_the_monitor_answers_1_and_is_told_at_verbosity_1) {
  EXPECT_THAT([&] { EXPECT_EQ(tuner->reset_signal_monitor_loop(), 1); },
              support::prints_only_from(1, "WARNING: Resetting signal monitor\n"));
}

TEST_F(Built_missing_tuner, wait_for_quality_gives_up_and_writes_a_dot_after_every_fifth_test) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(tuner->wait_signal_quality(2, 100, 10, 50), 0);
  for (const int seconds : {0, -3})  // no test at all
    EXPECT_EQ(tuner->wait_signal_quality(seconds, 1000, -1, -1), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "....");
}

}  // namespace
