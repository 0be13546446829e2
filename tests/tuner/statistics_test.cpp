// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Statistics of DVBv5 as values, and what Tuner's plain numbers make of them.
#include "support/test.h"
#include "tuner/statistics_readings.h"

namespace {

dtv_stats entry(uint8_t scale, int64_t value) {
  dtv_stats out{};
  out.scale = scale;
  out.svalue = value;
  return out;
}

// "dB -51.5", "% 50", "rate 0.5", "absent".
std::string text(const Signal_value& value) {
  const char* const NAMES[] = {"absent", "dB", "%", "rate", "driver", "box"};
  std::ostringstream out;
  out << NAMES[value.scale];
  if (value.scale != SCALE_ABSENT)
    out << " " << value.value;
  return out.str();
}

Signal_readings locked() {
  Signal_readings signal;
  signal.status = FE_HAS_SIGNAL | FE_HAS_CARRIER | FE_HAS_VITERBI | FE_HAS_SYNC | FE_HAS_LOCK;
  return signal;
}

}  // namespace

TEST(Statistics_level, has_the_scale_of_the_driver) {
  EXPECT_EQ(text(statistics::level(entry(FE_SCALE_DECIBEL, -51500))), "dB -51.5");
  EXPECT_EQ(text(statistics::level(entry(FE_SCALE_DECIBEL, 0))), "dB 0");
  EXPECT_EQ(text(statistics::level(entry(FE_SCALE_RELATIVE, 0xFFFF))), "% 100");
  EXPECT_EQ(text(statistics::level(entry(FE_SCALE_RELATIVE, 0))), "% 0");
  EXPECT_EQ(text(statistics::level(entry(FE_SCALE_NOT_AVAILABLE, 77))), "absent");
  EXPECT_EQ(text(statistics::level(entry(FE_SCALE_COUNTER, 77))), "absent");
  EXPECT_EQ(text(statistics::level(entry(200, 77))), "absent");
}

TEST(Statistics_rate, is_what_came_since_the_reading_before) {
  using statistics::rate;
  EXPECT_EQ(text(rate(30, 2000, 10, 1000)), "rate 0.02");
  EXPECT_EQ(text(rate(10, 2000, 10, 1000)), "rate 0");
  EXPECT_EQ(text(rate(10, 1000, std::nullopt, std::nullopt)), "rate 0.01");  // the first one
  EXPECT_EQ(text(rate(10, 1000, 10, 1000)), "absent");                       // nothing was counted
  EXPECT_EQ(text(rate(5, 100, 10, 1000)), "rate 0.05");                      // begun anew
  EXPECT_EQ(text(rate(5, 2000, 10, 1000)), "rate 0.0025");                   // the errors alone, too
  EXPECT_EQ(text(rate(0, 0, std::nullopt, std::nullopt)), "absent");
  EXPECT_EQ(text(rate(std::nullopt, 1000, 0, 0)), "absent");
  EXPECT_EQ(text(rate(5, std::nullopt, 0, 0)), "absent");
  EXPECT_EQ(text(rate(50, 10, std::nullopt, std::nullopt)), "rate 1");  // no driver counts right always
}

TEST(Statistics_strength, is_percent_of_what_receivers_meet) {
  using statistics::strength_percent;
  EXPECT_EQ(strength_percent({SCALE_DECIBEL, -100}), 0);
  EXPECT_EQ(strength_percent({SCALE_DECIBEL, -60}), 50);
  EXPECT_EQ(strength_percent({SCALE_DECIBEL, -20}), 100);
  EXPECT_EQ(strength_percent({SCALE_DECIBEL, -120}), 0);
  EXPECT_EQ(strength_percent({SCALE_DECIBEL, 5}), 100);
  EXPECT_EQ(strength_percent({SCALE_RELATIVE, 37}), 37);
  EXPECT_EQ(strength_percent({SCALE_DRIVER, 65535}), 0);
  EXPECT_EQ(strength_percent({}), 0);
}

TEST(Statistics_quality, comes_from_the_best_that_the_driver_counts) {
  struct Case {
    const char* legend;
    Signal_value snr, post_ber, block_errors;
    int expected;
  };
  const Case cases[] = {
      {"nothing but the lock", {}, {}, {}, 100},
      {"no wrong block", {SCALE_DECIBEL, 0}, {SCALE_RATE, 1}, {SCALE_RATE, 0}, 100},
      {"one of a million", {}, {}, {SCALE_RATE, 1e-6}, 100},
      {"one of a thousand", {}, {}, {SCALE_RATE, 1e-3}, 40},
      {"one of ten", {}, {}, {SCALE_RATE, 0.1}, 0},
      {"all wrong", {}, {}, {SCALE_RATE, 1}, 0},
      {"bits after the inner code", {}, {SCALE_RATE, 2e-4}, {}, 33},
      {"a raw count says nothing", {SCALE_DECIBEL, 30}, {}, {SCALE_DRIVER, 5000}, 100},
      {"6 dB", {SCALE_DECIBEL, 6}, {}, {}, 10},
      {"18 dB", {SCALE_DECIBEL, 18}, {}, {}, 55},
      {"2 dB", {SCALE_DECIBEL, 2}, {}, {}, 0},
      {"45 dB", {SCALE_DECIBEL, 45}, {}, {}, 100},
      {"relative", {SCALE_RELATIVE, 9}, {}, {}, 9},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.legend);
    Signal_readings signal = locked();
    signal.snr = c.snr;
    signal.post_ber = c.post_ber;
    signal.block_errors = c.block_errors;
    EXPECT_EQ(statistics::quality(signal), c.expected);
    signal.status &= ~static_cast<unsigned>(FE_HAS_LOCK);
    EXPECT_EQ(statistics::quality(signal), 0);
  }
}
