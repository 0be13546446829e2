// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "si/other_tables.h"

#include <utility>

#include "base/ids.h"

namespace {

constexpr size_t LONG_HEADER = 8;
constexpr size_t NETWORK_ID_AT = 8;  // in an SDT

int u16(std::span<const uint8_t> bytes, size_t at) {
  return bytes[at] << 8 | bytes[at + 1];
}

}  // namespace

void Other_tables::open(int64_t now_ms) {
  close();
  open_ = true;
  opened_ms_ = now_ms;
}

bool Other_tables::arrived(std::span<const uint8_t> section) {
  const bool is_sdt = !section.empty() && section[0] == table::SDT_OTHER;
  if (section.size() < LONG_HEADER + (is_sdt ? 2 : 0))
    return false;
  const int version = section[5] >> 1 & 0x1F;
  const Key key{u16(section, 3), is_sdt ? u16(section, NETWORK_ID_AT) : 0, section[6]};
  const auto known = seen_.find(key);
  if (known == seen_.end()) {
    if (seen_.size() == MOST)
      return false;
    seen_.emplace(key, Seen{version, false});
    ++once_;
    return true;
  }
  Seen& seen = known->second;
  if (seen.version == version) {
    once_ -= std::exchange(seen.again, true) ? 0 : 1;
    return false;
  }
  once_ += std::exchange(seen.again, false) ? 1 : 0;
  seen.version = version;
  return true;
}

bool Other_tables::is_over(int64_t now_ms) const {
  return now_ms - opened_ms_ >= WAIT_MS || (!seen_.empty() && once_ == 0);
}
