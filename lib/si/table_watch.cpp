// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "si/table_watch.h"

#include "base/ids.h"
#include "si/byte_reader.h"

namespace {

struct Head {
  int table_id;
  int extension;
  int version;
  int number;
  uint32_t crc;
};

Head head_of(std::span<const uint8_t> section) {
  return {section[0], section[3] << 8 | section[4], section[5] >> 1 & 0x1F, section[6],
          Byte_reader(section.last(4)).number(4)};
}

}  // namespace

void Table_watch::read(std::span<const uint8_t> section) {
  const Head head = head_of(section);
  Table& table = tables_[head.table_id];
  if (table.extension != head.extension || table.version != head.version)
    table = {head.extension, head.version, {}};
  table.crcs[head.number] = head.crc;
}

void Table_watch::compare(std::span<const uint8_t> section) {
  const Head head = head_of(section);
  const auto known = tables_.find(head.table_id);
  if (known == tables_.end()) {
    changed_ = true;
    return;
  }
  const Table& table = known->second;
  if (table.extension != head.extension) {
    changed_ = changed_ || head.table_id != table::NIT_ACTUAL;
    return;
  }
  const auto crc = table.crcs.find(head.number);
  changed_ = changed_ || table.version != head.version || crc == table.crcs.end() || crc->second != head.crc;
}
