// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Any bytes, as a section of any table, in a block of exactly the size that their own section_length claims.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "dvbsi/read_all.h"
#include "fuzz/entries.h"
#include "si/section_guard.h"

static uint64_t read_among(const std::vector<uint8_t>& section, uint8_t filling) {
  std::vector<uint8_t> wide(16 + section.size() + 1024, filling);
  std::copy(section.begin(), section.end(), wide.begin() + 16);
  return dvbsi_test::read_all(wide.data() + 16);
}

int fuzz::section(const uint8_t* data, size_t size) {
  static section_guard::Safe_copy copy;
  if (size < 3)
    return 0;
  // Parsers believe section_length: the bytes are cut to what it says, or it says how many there are. Filled up they
  // would mostly be thousands of empty descriptors.
  const size_t length = std::min<size_t>({3 + ((static_cast<size_t>(data[1]) << 8 | data[2]) & 0x0FFF), size, 4096});
  std::vector<uint8_t> section(data, data + length);
  section[1] = static_cast<uint8_t>((section[1] & 0xF0) | (length - 3) >> 8);
  section[2] = static_cast<uint8_t>(length - 3);
  section.shrink_to_fit();

#if KELVO_DVBSI_OWN
  const uint64_t values = dvbsi_test::read_all(section.data());
  if (values != read_among(section, 0x00) || values != read_among(section, 0xFF))
    std::abort();
#else
  (void)read_among;
#endif
  if (section_guard::section_problem(section.data(), section.size()) == nullptr)
    dvbsi_test::read_all(copy.copy(section.data(), section.size()));
  return 0;
}
