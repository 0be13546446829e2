// A tuner whose device is not there or is something else: an object all the same.
#include <linux/dvb/frontend.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "base/messages.h"
#include "db/sdbl.h"
#include "support/support.h"
#include "tuner/tuner.h"

namespace {

class Missing_tuner : public testing::Test {
 protected:
  ~Missing_tuner() override { verbosity_kelvo = 0; }

  support::Temp_dir folder_;
  Sdbl database_{folder_.file("dvb.db").c_str()};
  const std::string path_ = folder_.file("frontend0");

  std::string failed(const char* what) const { return std::string("ERROR: ") + what + path_ + " failed\n"; }

  std::string printed_by_constructor(int verbosity) {
    verbosity_kelvo = verbosity;
    std::string text;
    {
      const support::Stderr_capture capture;
      const Tuner tuner(path_.c_str(), &database_, 0, 0);
      text = capture.text();
      verbosity_kelvo = -1;
    }
    verbosity_kelvo = 0;
    return text;
  }
};

}  // namespace

TEST_F(Missing_tuner, constructor_prints_each_failing_step_and_goes_on) {
  EXPECT_EQ("ERROR: Failed to  open " + path_ +
                "\n"
                "ERROR: FE_GET_INFO failed: 9 Bad file descriptor\n"
                "ERROR: Fronetnd  cannot OFDM" +
                failed("Setting frontend parameters for ") + "Tuner::: Bad file descriptor\n",
            printed_by_constructor(0));
}

TEST_F(Missing_tuner, constructor_prints_only_the_reason_below_verbosity_0) {
  EXPECT_EQ("Tuner::: Bad file descriptor\n", printed_by_constructor(-1));
}

TEST_F(Missing_tuner, constructor_tells_the_path_at_verbosity_4) {
  EXPECT_EQ(0U, printed_by_constructor(4).find("Opening " + path_ + "\nERROR: Failed to  open "));
  EXPECT_EQ(std::string::npos, printed_by_constructor(3).find("Opening "));
}

TEST_F(Missing_tuner, constructor_tells_the_front_end_at_verbosity_3) {
  const std::string text = " Front end name is , type is 0\n  Freq min: 0 Freq max: 0\n  Freq step: 0, Tolerance: 0\n";
  EXPECT_NE(std::string::npos, printed_by_constructor(3).find(text));
  const std::string below = printed_by_constructor(2);
  EXPECT_EQ(std::string::npos, below.find("Front end"));
  EXPECT_EQ(std::string::npos, below.find("Freq"));
}

TEST_F(Missing_tuner, file_that_is_no_frontend_is_opened_and_fails_at_each_call) {
  support::write_file(path_, "");
  EXPECT_EQ(
      "ERROR: FE_GET_INFO failed: 25 Inappropriate ioctl for device\n"
      "ERROR: Fronetnd  cannot OFDM" +
          failed("Setting frontend parameters for ") + "Tuner::: Inappropriate ioctl for device\n",
      printed_by_constructor(0));
}

TEST_F(Missing_tuner, path_is_cut_at_255_characters) {
  const std::string longer = "/" + std::string(400, 'x');
  verbosity_kelvo = 0;
  std::string text;
  {
    const support::Stderr_capture capture;
    const Tuner tuner(longer.c_str(), &database_, 0, 0);
    text = capture.text();
  }
  EXPECT_EQ(0U, text.find("ERROR: Failed to  open " + longer.substr(0, 255) + "\n")) << text;
}

class Built_missing_tuner : public Missing_tuner {
 protected:
  Built_missing_tuner() {
    verbosity_kelvo = -1;
    const support::Stderr_capture capture;
    tuner_ = std::make_unique<Tuner>(path_.c_str(), &database_, 0, 0);
    verbosity_kelvo = 0;
  }
  std::unique_ptr<Tuner> tuner_;
};

TEST_F(Built_missing_tuner, readings_print_their_failure_and_answer_0) {
  EXPECT_EQ(failed("Getting frontend parameters for "), support::stderr_of([&] { EXPECT_EQ(0, tuner_->fe_freq()); }));
  EXPECT_EQ(failed("FE_READ_STATUS failed for "), support::stderr_of([&] { EXPECT_EQ(0, tuner_->fe_status()); }));
  EXPECT_EQ(failed("FE_READ_STATUS failed for "), support::stderr_of([&] { EXPECT_FALSE(tuner_->mux_is_dvbh()); }));
  EXPECT_EQ("ERROR: FE_READ_STRENGTH failed for " + path_ + " failed, rc is -1\n",
            support::stderr_of([&] { tuner_->fe_strength_local(); }));
  EXPECT_EQ(0.0F, tuner_->fe_strength());
}

TEST_F(Built_missing_tuner, quirk_failing_ber_and_snr_say_fe_read_status) {
  EXPECT_EQ(failed("FE_READ_STATUS failed for "), support::stderr_of([&] { EXPECT_EQ(0, tuner_->fe_ber_local()); }));
  EXPECT_EQ(failed("FE_READ_STATUS failed for "), support::stderr_of([&] { EXPECT_EQ(0.0F, tuner_->fe_snr()); }));
}

TEST_F(Built_missing_tuner, readings_fail_silently_below_verbosity_0) {
  verbosity_kelvo = -1;
  EXPECT_EQ("", support::stderr_of([&] {
              (void)tuner_->fe_freq();
              (void)tuner_->fe_status();
              tuner_->fe_strength_local();
              (void)tuner_->fe_ber_local();
              (void)tuner_->fe_snr();
              (void)tuner_->tunetofreq(506000000);
            }));
}

TEST_F(Built_missing_tuner, tuning_fails_after_three_checks_and_150_ms) {
  verbosity_kelvo = 3;
  timespec from{};
  clock_gettime(CLOCK_MONOTONIC, &from);
  const std::string read = failed("Getting frontend parameters for ") + "Tuner freq 0 != in freq 506000000. ";
  EXPECT_EQ("WARNING: Using default fe data for freq 506000000\n" + failed("Setting frontend parameters for ") + read +
                "1 " + read + "2 " + read + "3 ",
            support::stderr_of([&] { EXPECT_EQ(0, tuner_->tunetofreq(506000000)); }));
  timespec to{};
  clock_gettime(CLOCK_MONOTONIC, &to);
  const double seconds =
      static_cast<double>(to.tv_sec - from.tv_sec) + static_cast<double>(to.tv_nsec - from.tv_nsec) / 1e9;
  EXPECT_GE(seconds, 0.15);
}

TEST_F(Built_missing_tuner, warnings_of_tuning_appear_at_verbosity_1) {
  for (const int level : {1, 2}) {
    verbosity_kelvo = level;
    EXPECT_EQ("WARNING: Using default fe data for freq 506000000\n" + failed("Setting frontend parameters for ") +
                  failed("Getting frontend parameters for ") + failed("Getting frontend parameters for ") +
                  failed("Getting frontend parameters for "),
              support::stderr_of([&] { EXPECT_EQ(0, tuner_->tunetofreq(506000000)); }))
        << level;
  }
}

TEST_F(Built_missing_tuner, channel_and_next_frequency_are_kept) {
  EXPECT_EQ(-1, tuner_->get_channel());
  tuner_->set_channel(7);
  EXPECT_EQ(7, tuner_->get_channel());
  tuner_->set_next_freq(506000000);
  EXPECT_EQ(506000000, tuner_->get_next_freq());
}

TEST_F(Built_missing_tuner, reset_of_the_monitor_answers_1_and_is_told_at_verbosity_1) {
  verbosity_kelvo = 0;
  EXPECT_EQ("", support::stderr_of([&] { EXPECT_EQ(1, tuner_->reset_signal_monitor_loop()); }));
  verbosity_kelvo = 1;
  EXPECT_EQ("WARNING: Resetting signal monitor\n",
            support::stderr_of([&] { EXPECT_EQ(1, tuner_->reset_signal_monitor_loop()); }));
}

TEST_F(Built_missing_tuner, wait_for_quality_gives_up_and_writes_a_dot_after_every_fifth_test) {
  verbosity_kelvo = -1;
  const int saved = dup(1);
  const std::string file = folder_.file("stdout");
  FILE* out = std::fopen(file.c_str(), "w");
  std::fflush(stdout);
  dup2(fileno(out), 1);
  const int result = tuner_->wait_signal_quality(2, 100, 10, 50);
  std::fflush(stdout);
  dup2(saved, 1);
  close(saved);
  std::fclose(out);
  EXPECT_EQ(0, result);
  EXPECT_EQ("....", support::read_file(file));
}

TEST_F(Built_missing_tuner, wait_for_quality_of_0_seconds_tests_nothing) {
  EXPECT_EQ(0, tuner_->wait_signal_quality(0, 1000, -1, -1));
  EXPECT_EQ(0, tuner_->wait_signal_quality(-3, 1000, -1, -1));
}
