// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <bit>

#include "dvbsi/bytes.h"

namespace dvbsi_own {

// cell_frequency_link_descriptor, EN 300 468, 6.2.6
static bool cells_fit(const uint8_t* b, size_t n) {
  size_t i = 0;
  while (i < n) {  // Deliberate: the length is looked for two bytes too late, at the end in the descriptor behind.
    const size_t next = i + 6 + b[i + 8];
    if (n < next)
      return false;
    i = next;
  }
  return true;
}

// announcement_support_descriptor, EN 300 468, 6.2.3
static bool announcements_fit(const uint8_t* b, size_t n) {
  if (n < 2)
    return false;
  for (size_t i = 2; i < n;) {
    const unsigned reference = b[i] & 7u;
    i += reference >= 1 && reference <= 3 ? 8 : 1;
    if (i > n)
      return false;
  }
  return true;
}

// linkage_descriptor, EN 300 468, 6.2.19
static bool linkage_fits(const uint8_t* b, size_t n) {
  if (n < 7 || b[6] != 8)
    return n >= 7;
  if (n < 8)
    return false;
  const unsigned hand_over = b[7] >> 4;
  return n >= 8u + (hand_over >= 1 && hand_over <= 3 ? 2 : 0) + ((b[7] & 1) == 0 ? 2 : 0);
}

// telephone_descriptor, EN 300 468, 6.2.42
static bool digits_fit(const uint8_t* b, size_t n) {
  if (n < 3)
    return false;
  return n >= 3u + (b[1] >> 5 & 3) + (b[1] >> 2 & 7) + (b[1] & 3) + (b[2] >> 4 & 7) + (b[2] & 15);
}

// data_broadcast_descriptor, EN 300 468, 6.2.11
static bool selector_fits(const uint8_t* b, size_t n) {
  if (n < 8 || n < 8u + b[3])
    return false;
  return n >= 8u + b[3] + b[7 + b[3]];
}

// extension_descriptor, EN 300 468, 6.2.16
static bool extension_fits(const uint8_t* b, size_t n) {
  if (n < 1)
    return false;
  switch (b[0]) {
    case 1:
      return n >= 2;
    case 2:
      return n >= 5;
    case 4:
      return n == 4 || n >= 6;
    default:
      return true;
  }
}

bool other_descriptor_kept(const uint8_t* descriptor) {
  const size_t n = descriptor[1];
  const uint8_t* const b = descriptor + 2;
  switch (descriptor[0]) {
    case 0x65:
    case 0x6B:
    case 0x70:
    case 0x7E:
      return n >= 1;
    case 0x4C:
    case 0x66:
      return n >= 2;
    case 0x69:
    case 0x77:
      return n >= 3;
    case 0x05:
    case 0x08:
    case 0x5F:
    case 0x78:
      return n >= 4;
    case 0x7B:
    case 0x7D:
      return n >= 5;
    case 0x60:
      return n >= 6;
    case 0x43:
    case 0x44:
      return n >= 11;
    case 0x41:
    case 0x6F:
    case 0x75:
      return n % 3 == 0;
    case 0x4B:
      return n % 6 == 0;
    case 0x72:
      return n >= 1 && (n - 1) % 2 == 0;
    case 0x49:
      return n >= 1 && (n - 1) % 3 == 0;
    case 0x62:
      return n >= 1 && (n - 1) % 4 == 0;
    case 0x13:
      return n >= 5 && (b[4] != 1 || (n >= 21 && n >= 21u + b[20]));
    case 0x4A:
      return linkage_fits(b, n);
    case 0x57:
      return digits_fit(b, n);
    case 0x64:
      return selector_fits(b, n);
    case 0x6D:
      return cells_fit(b, n);
    case 0x6E:
      return announcements_fit(b, n);
    case 0x79:
      return n >= 1 && n >= 1u + (b[0] & 0x80 ? 3 : 0) + (b[0] & 0x40 ? 1 : 0);
    case 0x7A:
      return n == 0 || n >= 1u + static_cast<unsigned>(std::popcount(b[0] & 0xF7u));
    case 0x7C:
      return n >= 2 && (n >= 3 || (b[1] & 0x80) == 0);
    case 0x7F:
      return extension_fits(b, n);
    default:
      return true;
  }
}

}  // namespace dvbsi_own
