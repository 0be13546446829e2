// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// CRC-32 (ISO/IEC 13818-1, Annex A), bit by bit: a section takes microseconds, a table would take more cache than it
// saves.
#include "filter/section_filter.h"

namespace {

constexpr unsigned POLYNOMIAL = 0x04C11DB7;
constexpr unsigned POLYNOMIAL_REFLECTED = 0xEDB88320;

}  // namespace

unsigned int Section_filter::crc32_be(unsigned int crc, const unsigned char* data, unsigned int len) {
  for (unsigned i = 0; i < len; ++i) {
    crc ^= static_cast<unsigned>(data[i]) << 24;
    for (int bit = 0; bit < 8; ++bit)
      crc = (crc << 1) ^ ((crc & 0x80000000u) != 0 ? POLYNOMIAL : 0u);
  }
  return crc;
}

unsigned int Section_filter::crc32_le(unsigned int crc, const unsigned char* data, unsigned int len) {
  for (unsigned i = 0; i < len; ++i) {
    crc ^= data[i];
    for (int bit = 0; bit < 8; ++bit)
      crc = (crc >> 1) ^ ((crc & 1u) != 0 ? POLYNOMIAL_REFLECTED : 0u);
  }
  return crc;
}
