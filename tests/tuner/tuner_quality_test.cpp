#include "tuner/tuner_quality.h"

#include <cmath>
#include <cstdint>
#include <limits>

#include <gtest/gtest.h>

using tuner_quality::ber_quality;
using tuner_quality::noise;
using tuner_quality::snr_db;
using tuner_quality::strength;

namespace {

uint16_t reading(unsigned low, unsigned high = 0) {
  return static_cast<uint16_t>(high << 8 | low);
}

}  // namespace

TEST(Strength, each_row_of_the_scale_at_its_edges) {
  struct Row {
    unsigned low;
    int strength;
  };
  const Row rows[] = {
      {255, 100}, {161, 100}, {160, 100}, {159, 99}, {114, 69}, {113, 68}, {112, 68},
      {111, 67},  {90, 60},   {89, 60},   {88, 60},  {87, 59},  {12, 51},  {11, 50},
  };
  for (const Row& row : rows)
    EXPECT_EQ(row.strength, strength(reading(row.low))) << "low byte " << row.low;
}

TEST(Strength, high_byte_counts_only_when_the_low_byte_is_at_most_10) {
  EXPECT_EQ(50, strength(reading(5, 8)));
  EXPECT_EQ(54, strength(reading(0, 0)));
  EXPECT_EQ(53, strength(reading(10, 1)));
  EXPECT_EQ(0, strength(reading(10, 107)));
  EXPECT_EQ(0, strength(reading(0, 108)));
  EXPECT_EQ(50, strength(reading(11, 255)));
  EXPECT_EQ(100, strength(reading(161, 255)));
}

TEST(Strength, quirk_high_byte_above_108_wraps_to_a_huge_strength) {
  EXPECT_EQ(std::numeric_limits<int>::max(), strength(reading(0, 109)));
  EXPECT_EQ(std::numeric_limits<int>::max(), strength(reading(10, 110)));
  EXPECT_EQ(std::numeric_limits<int>::max() - 73, strength(reading(3, 255)));
}

TEST(Ber, each_row_of_the_scale_at_its_edges) {
  struct Row {
    uint32_t errors;
    int quality;
  };
  const Row rows[] = {
      {0, 100},   {1, 99},    {2, 95},    {3, 91},         {4, 88},         {5, 86},         {6, 84},    {7, 82},
      {8, 82},    {9, 80},    {79432, 2}, {79433, 2},      {79434, 1},      {89124, 1},      {89125, 1}, {89126, 0},
      {89127, 0}, {63096, 4}, {63097, 2}, {0x7FFFFFFF, 0}, {0xFFFFFFFE, 0}, {0xFFFFFFFF, 0},
  };
  for (const Row& row : rows)
    EXPECT_EQ(row.quality, ber_quality(row.errors)) << row.errors << " errors";
}

TEST(Ber, steps_are_powers_of_ten_at_every_decibel) {
  for (int i = 0; i < 44; ++i) {
    const auto lower = static_cast<uint32_t>(std::lround(std::pow(10.0, (i + 5) / 10.0)));
    const auto upper = static_cast<uint32_t>(std::lround(std::pow(10.0, (i + 6) / 10.0)));
    EXPECT_EQ(88 - 2 * i, ber_quality(upper)) << "upper edge of step " << i;
    if (lower + 1 >= 4) {
      EXPECT_EQ(88 - 2 * i, ber_quality(lower + 1)) << "lower edge of step " << i;
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
  EXPECT_EQ(0, last);
}

TEST(Snr, noise_is_the_inverse_of_the_low_byte_and_never_0) {
  EXPECT_EQ(255, noise(0xFF00, true));
  EXPECT_EQ(1, noise(0x00FE, true));
  EXPECT_EQ(1, noise(0x00FF, true));
  EXPECT_EQ(1, noise(0xFFFF, true));
  EXPECT_EQ(128, noise(0x127F, true));
}

TEST(Snr, noise_is_255_without_full_lock) {
  EXPECT_EQ(255, noise(0x00FE, false));
  EXPECT_EQ(255, noise(0x0000, false));
}

TEST(Snr, decibels_of_each_noise) {
  EXPECT_FLOAT_EQ(0.0F, snr_db(255));
  EXPECT_NEAR(24.07, snr_db(1), 0.005);
  EXPECT_NEAR(10.0, snr_db(25), 0.1);
  for (int n = 1; n <= 255; ++n)
    EXPECT_NEAR(-10 * std::log10(n / 255.0), snr_db(n), 1e-5) << n;
}
