// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tuner/tuner_quality.h"

#include <algorithm>
#include <cmath>
#include <iterator>

namespace tuner_quality {

namespace {

// 10 to the power (i + 5) / 10, rounded: steps of 1 dB.
constexpr uint32_t BER_STEPS[] = {3,     4,     5,     6,     8,     10,    13,    16,    20,   25,   32,   40,
                                  50,    63,    79,    100,   126,   158,   200,   251,   316,  398,  501,  631,
                                  794,   1000,  1259,  1585,  1995,  2512,  3162,  3981,  5012, 6310, 7943, 10000,
                                  12589, 15849, 19953, 25119, 31623, 39811, 50119, 63096, 79433};
static_assert(std::size(BER_STEPS) == 45);

constexpr uint32_t BER_WORST_MEASURED = 89125;
constexpr uint32_t BER_NOT_MEASURED = 0xFFFFFFFF;
constexpr uint32_t BER_STANDING_FOR_NOT_MEASURED = 89126;

}  // namespace

int strength(uint16_t raw) {
  const unsigned low = raw & 0xFFu;
  const unsigned high = raw >> 8;
  if (low > 160)
    return 100;
  if (low > 112)
    return static_cast<int>((2 * low - 20) / 3);
  if (low > 88)
    return static_cast<int>((low + 92) / 3);
  if (low > 10)
    return static_cast<int>((2 * low + 844) / 17);
  // Deliberate: a high byte above 108 wraps to a huge strength.
  return static_cast<int>((108u - high) >> 1);
}

int ber_quality(uint32_t raw) {
  const uint32_t errors = raw == BER_NOT_MEASURED ? BER_STANDING_FOR_NOT_MEASURED : raw;
  switch (errors) {
    case 0:
      return 100;
    case 1:
      return 99;
    case 2:
      return 95;
    case 3:
      return 91;
    default:
      break;
  }
  if (errors > BER_WORST_MEASURED)
    return 0;
  const uint32_t* step = std::lower_bound(std::begin(BER_STEPS), std::end(BER_STEPS), errors);
  if (step == std::end(BER_STEPS))
    return 1;
  return 88 - 2 * static_cast<int>(step - std::begin(BER_STEPS) - 1);
}

int noise(uint16_t raw, bool full_lock) {
  if (!full_lock)
    return 255;
  return std::max(255 - (raw & 0xFF), 1);
}

float snr_db(int noise) {
  return static_cast<float>(-10.0 * std::log10(noise / 255.0));
}

}  // namespace tuner_quality
