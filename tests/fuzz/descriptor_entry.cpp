// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// A loop of descriptors, behind a byte that says in which table it stands: the heads around it are right, so that all
// of the input is about descriptors.
#include <algorithm>

#include "dvbsi/read_all.h"
#include "dvbsi/samples.h"
#include "fuzz/entries.h"

int fuzz::descriptor(const uint8_t* data, size_t size) {
  if (size == 0)
    return 0;
  constexpr uint8_t TABLES[] = {0x02, 0x40, 0x42, 0x4E, 0x01, 0x73, 0x02, 0x4E};
  constexpr size_t MOST = 900;
  const uint8_t table = TABLES[data[0] & 7];
  const support::Bytes loop(data + 1, data + std::min(size, MOST));
  support::Bytes section;
  if (table == 0x01)
    section = support::long_section(table, 0xFFFF, 0, loop);
  else if (table == 0x73)
    section = support::with_crc(support::join(
        {{table, static_cast<uint8_t>(0x70 | (loop.size() + 11) >> 8), static_cast<uint8_t>(loop.size() + 11)},
         {0xE0, 0x00, 0x12, 0x00, 0x00},
         support::loop12(loop)}));
  else
    section = dvbsi_test::with_entry_loop(table, loop);
  return fuzz::section(section.data(), section.size());
}
