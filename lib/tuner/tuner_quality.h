// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>

// Raw readings of the frontend driver on the library's scales. Pure functions, any-thread.
namespace tuner_quality {

// Signal strength from FE_READ_SIGNAL_STRENGTH: 0 to 100 for the values that the driver gives. Its low byte counts, and
// below 11 the high byte.
int strength(uint16_t raw);

// Quality from the bit error count of FE_READ_BER: 100 without errors down to 0.
int ber_quality(uint32_t raw);

// What stands for noise in an FE_READ_SNR reading: 1 (best) to 255; 255 without full lock.
int noise(uint16_t raw, bool full_lock);

// Signal to noise ratio of such a value, in dB.
float snr_db(int noise);

}  // namespace tuner_quality
