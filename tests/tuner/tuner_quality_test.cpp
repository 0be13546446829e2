// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tuner/tuner_quality.h"

#include <cmath>
#include <limits>

#include "support/test.h"

using tuner_quality::ber_quality;
using tuner_quality::noise;
using tuner_quality::snr_db;
using tuner_quality::strength;

static uint16_t reading(unsigned low, unsigned high = 0) {
  return static_cast<uint16_t>(high << 8 | low);
}

TEST(Strength, each_row_of_the_scale_at_its_edges) {
  const std::pair<unsigned, int> rows[] = {
      {255, 100}, {161, 100}, {160, 100}, {159, 99}, {114, 69}, {113, 68}, {112, 68},
      {111, 67},  {90, 60},   {89, 60},   {88, 60},  {87, 59},  {12, 51},  {11, 50},
  };
  for (const auto& [low, expected] : rows)
    EXPECT_EQ(strength(reading(low)), expected) << "low byte " << low;
}

TEST(Strength, high_byte_counts_only_when_the_low_byte_is_at_most_10) {
  const std::tuple<unsigned, unsigned, int> rows[] = {{5, 8, 50},  {0, 0, 54},    {10, 1, 53},    {10, 107, 0},
                                                      {0, 108, 0}, {11, 255, 50}, {161, 255, 100}};
  for (const auto& [low, high, expected] : rows)
    EXPECT_EQ(strength(reading(low, high)), expected) << low << " " << high;
}

TEST(Strength, quirk_high_byte_above_108_wraps_to_a_huge_strength) {
  EXPECT_EQ(strength(reading(0, 109)), std::numeric_limits<int>::max());
  EXPECT_EQ(strength(reading(10, 110)), std::numeric_limits<int>::max());
  EXPECT_EQ(strength(reading(3, 255)), std::numeric_limits<int>::max() - 73);
}

TEST(Ber, each_row_of_the_scale_at_its_edges) {
  const std::pair<uint32_t, int> rows[] = {
      {0, 100},   {1, 99},    {2, 95},    {3, 91},         {4, 88},         {5, 86},         {6, 84},    {7, 82},
      {8, 82},    {9, 80},    {79432, 2}, {79433, 2},      {79434, 1},      {89124, 1},      {89125, 1}, {89126, 0},
      {89127, 0}, {63096, 4}, {63097, 2}, {0x7FFFFFFF, 0}, {0xFFFFFFFE, 0}, {0xFFFFFFFF, 0},
  };
  for (const auto& [errors, quality] : rows)
    EXPECT_EQ(ber_quality(errors), quality) << errors << " errors";
}

TEST(Ber, steps_are_powers_of_ten_at_every_decibel) {
  for (int i = 0; i < 44; ++i) {
    const auto lower = static_cast<uint32_t>(std::lround(std::pow(10.0, (i + 5) / 10.0)));
    const auto upper = static_cast<uint32_t>(std::lround(std::pow(10.0, (i + 6) / 10.0)));
    EXPECT_EQ(ber_quality(upper), 88 - 2 * i) << "upper edge of step " << i;
    if (lower + 1 >= 4) {
      EXPECT_EQ(ber_quality(lower + 1), 88 - 2 * i) << "lower edge of step " << i;
    }
  }
}

TEST(Ber, quality_never_rises_with_the_errors) {
  int last = 100;
  for (uint32_t errors = 0; errors < 100000; ++errors) {
    const int quality = ber_quality(errors);
    ASSERT_LE(quality, last) << errors << " errors";
    last = quality;
  }
  EXPECT_EQ(last, 0);
}

TEST(Snr, noise_is_the_inverse_of_the_low_byte_and_never_0_and_255_without_full_lock) {
  const std::pair<uint16_t, int> rows[] = {{0xFF00, 255}, {0x00FE, 1}, {0x00FF, 1}, {0xFFFF, 1}, {0x127F, 128}};
  for (const auto& [raw, expected] : rows)
    EXPECT_EQ(noise(raw, true), expected) << raw;
  EXPECT_EQ(noise(0x00FE, false), 255);
  EXPECT_EQ(noise(0x0000, false), 255);
}

TEST(Snr, decibels_of_each_noise) {
  EXPECT_FLOAT_EQ(snr_db(255), 0.0F);
  EXPECT_NEAR(snr_db(1), 24.07, 0.005);
  EXPECT_NEAR(snr_db(25), 10.0, 0.1);
  for (int n = 1; n <= 255; ++n)
    EXPECT_NEAR(snr_db(n), -10 * std::log10(n / 255.0), 1e-5) << n;
}
