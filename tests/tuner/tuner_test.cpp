// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// A tuner on the software adapter: tuning and readings.
#include "tuner/tuner.h"

#include <limits>

#include "tuner/tuner_support.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

TEST_F(Tuner_test, frontend_is_described_at_verbosity_3) {
  EXPECT_THAT(printed_by_constructor(3), AllOf(StartsWith(" Front end name is softdvb DVB-T 0, type is 2\n"
                                                          "  Freq min: 470000000 Freq max: 862000000\n"
                                                          "  Freq step: 166667, Tolerance: 0\n"),
                                               Not(HasSubstr("ERROR"))));
}

TEST_F(Tuner_test, frontend_is_opened_in_silence_once_the_tuner_before_is_gone) {
  EXPECT_EQ(printed_by_constructor(0), "");
  EXPECT_THAT(printed_by_constructor(2), Not(HasSubstr("Fr")));  // neither line
  EXPECT_EQ(tuner_->fe_freq(), 474000000);
}

TEST_F(Tuner_test, second_tuner_on_a_device_prints_that_it_is_busy_and_the_first_goes_on) {
  EXPECT_THAT(support::stderr_of([&] { const Tuner second(PATH, &db_.sdbl(), 0, 0); }),
              HasSubstr("ERROR: Failed to  open /dev/dvb/adapter0/frontend0\n"));
  EXPECT_EQ(tuner_->fe_freq(), FREQ);
}

TEST_F(Tuner_test, tuning_answers_the_frequency_when_locked_and_0_without_lock) {
  EXPECT_EQ(tuner_->tunetofreq(FREQ), FREQ);
  EXPECT_TRUE(tuner_->tuned_to(FREQ));
  EXPECT_EQ(std::pair(tuner_->fe_freq(), tuner_->fe_status()), std::pair(FREQ, 0x1F));
  EXPECT_EQ(tuner_->tunetofreq(514000000), 0);
  EXPECT_EQ(tuner_->fe_freq(), 514000000);
  EXPECT_FALSE(tuner_->tuned_to(514000000));
}

TEST_F(Tuner_test, refused_tuning_is_printed_and_the_old_one_goes_on) {
  EXPECT_THAT(printed(0, [&] { EXPECT_EQ(tuner_->tunetofreq(900000000), 0); }),
              StartsWith("ERROR: Setting frontend parameters for /dev/dvb/adapter0/frontend0 failed\n"));
  EXPECT_EQ(tuner_->fe_freq(), FREQ);
  EXPECT_EQ(tuner_->fe_status(), 0x1F);
}

TEST_F(Tuner_test, each_check_of_a_tuning_without_lock_is_told_at_verbosity_3) {
  EXPECT_THAT(printed(3, [&] { EXPECT_EQ(tuner_->tunetofreq(514000000), 0); }),
              AllOf(HasSubstr("WARNING: Using default fe data for freq 514000000\n"), HasSubstr("No Lock, Status 0 "),
                    HasSubstr("1 "), HasSubstr("2 "), HasSubstr("3 ")));
}

TEST_F(Tuner_test, tuned_to_says_why_not_at_verbosity_3_and_ends_the_line_at_4) {
  const auto expect_reason = [&](int freq, const std::string& reason) {
    const auto ask = [&] { EXPECT_FALSE(tuner_->tuned_to(freq)); };
    EXPECT_EQ(printed(3, ask), reason);
    EXPECT_EQ(printed(4, ask), reason + "\n");
    EXPECT_EQ(printed(2, ask), "");
  };
  expect_reason(514000000, "Tuner freq 506000000 != in freq 514000000. ");
  signal("strength", 5 | 30 << 8);  // 39
  expect_reason(FREQ, "Strength 39.000000 below accepted 40.000000 ");
  signal("strength", 5 | 28 << 8);  // 40
  EXPECT_TRUE(tuner_->tuned_to(FREQ));
  signal("status", 0x0F);
  expect_reason(FREQ, "No Lock, Status f ");
}

TEST_F(Tuner_test, lock_needs_all_five_bits_and_more_do_not_matter) {
  for (const unsigned missing : {1U, 2U, 4U, 8U, 16U}) {
    signal("status", 0x1F & ~missing);
    EXPECT_FALSE(tuner_->tuned_to(FREQ)) << missing;
  }
  signal("status", 0x1F | 0x80);
  EXPECT_TRUE(tuner_->tuned_to(FREQ));
}

TEST_F(Tuner_test, dvb_h_shows_in_bit_0x80_or_0x100_and_is_told_at_verbosity_4) {
  EXPECT_FALSE(tuner_->mux_is_dvbh());
  for (const auto& [bit, text] :
       {std::pair{0x80U, "DVB-H channel, status is 80"}, {0x100U, "DVB-H channel, status is 100"}}) {
    signal("status", bit);
    EXPECT_EQ(printed(4, [&] { EXPECT_TRUE(tuner_->mux_is_dvbh()); }), text);
    EXPECT_EQ(printed(3, [&] { EXPECT_TRUE(tuner_->mux_is_dvbh()); }), "");
  }
  signal("status", 0x7F);
  EXPECT_FALSE(tuner_->mux_is_dvbh());
}

TEST_F(Tuner_test, strength_is_read_and_scaled) {
  const unsigned rows[][2] = {{161, 100}, {160, 100}, {113, 68}, {112, 68}, {88, 60}, {11, 50}, {5 | 8 << 8, 50}};
  for (const auto& row : rows) {
    signal("strength", row[0]);
    tuner_->fe_strength_local();
    EXPECT_EQ(tuner_->fe_strength(), static_cast<float>(row[1])) << row[0];
  }
}

TEST_F(Tuner_test, quirk_weak_reading_with_a_high_byte_above_108_counts_as_a_huge_strength) {
  signal("strength", 109 << 8);
  tuner_->fe_strength_local();
  EXPECT_EQ(tuner_->fe_strength(), static_cast<float>(std::numeric_limits<int>::max()));
  EXPECT_TRUE(tuner_->tuned_to(FREQ));
}

TEST_F(Tuner_test, ber_is_read_scaled_and_told_at_verbosity_4) {
  const unsigned rows[][2] = {{0, 100}, {4, 88}, {5, 86}, {79433, 2}, {79434, 1}, {0xFFFFFFFF, 0}};
  for (const auto& row : rows) {
    signal("ber", row[0]);
    EXPECT_EQ(tuner_->fe_ber_local(), static_cast<int>(row[1])) << row[0];
    EXPECT_EQ(tuner_->fe_ber(), static_cast<float>(row[1]));
  }
  signal("ber", 0x1234);
  EXPECT_EQ(printed(4, [&] { (void)tuner_->fe_ber_local(); }), "BER readback is 00001234");
  EXPECT_EQ(printed(3, [&] { (void)tuner_->fe_ber_local(); }), "");
}

TEST_F(Tuner_test, snr_is_read_and_told_at_verbosity_4_and_0_unless_the_status_is_exactly_the_five_lock_bits) {
  signal("snr", 0xFF00);
  EXPECT_EQ(tuner_->fe_snr(), 0.0F);
  signal("snr", 0x00FE);
  EXPECT_NEAR(static_cast<double>(tuner_->fe_snr()), 24.07, 0.005);
  EXPECT_EQ(printed(4, [&] { (void)tuner_->fe_snr(); }), "SNR readback is 00fecorrected snr 1 log value 24.07\n");
  EXPECT_EQ(printed(3, [&] { (void)tuner_->fe_snr(); }), "");
  for (const unsigned status : {0x0FU, 0x00U, 0x3FU, 0x9FU}) {
    signal("status", status);
    EXPECT_EQ(tuner_->fe_snr(), 0.0F) << status;
  }
}

TEST_F(Tuner_test, failing_readings_keep_the_last_good_values) {
  signal("snr", 0x00FE);
  signal("strength", 88);
  signal("ber", 4);
  const float snr = tuner_->fe_snr();
  tuner_->fe_strength_local();
  EXPECT_EQ(tuner_->fe_ber_local(), 88);
  after_monitor_pass();
  for (const char* call :
       {"FE_GET_FRONTEND", "FE_READ_STATUS", "FE_READ_SIGNAL_STRENGTH", "FE_READ_BER", "FE_READ_SNR"})
    support::softdvb_control(std::string("fault ") + call + " = EIO");
  const auto readings = [&] {
    EXPECT_EQ(tuner_->fe_freq(), FREQ);
    EXPECT_EQ(tuner_->fe_status(), 0x1F);
    tuner_->fe_strength_local();
    EXPECT_EQ(tuner_->fe_strength(), 60.0F);
    EXPECT_EQ(tuner_->fe_ber_local(), 88);
    EXPECT_EQ(tuner_->fe_snr(), snr);
  };
  const std::string status = "ERROR: FE_READ_STATUS failed for /dev/dvb/adapter0/frontend0 failed\n";
  EXPECT_EQ(support::stderr_of(readings),
            "ERROR: Getting frontend parameters for /dev/dvb/adapter0/frontend0 failed\n" + status +
                "ERROR: FE_READ_STRENGTH failed for /dev/dvb/adapter0/frontend0 failed, rc is -1\n" + status + status);
  support::softdvb_control("clear faults");
}

TEST_F(Tuner_test, stored_parameters_are_used_for_the_next_tuning_of_their_frequency) {
  (void)db_->terrestrial_tuner_info(0, 0, FREQ, 0, 2, 0, 1, 1, 0, 1);
  EXPECT_EQ(printed(1, [&] { EXPECT_EQ(tuner_->tunetofreq(FREQ), FREQ); }).substr(0, 58),
            "WARNING: Using FE data from scanned db for freq 506000000\n");
  EXPECT_EQ(printed(0, [&] { EXPECT_EQ(tuner_->tunetofreq(FREQ), FREQ); }), "");
}
