// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Files that the commands read, behind a byte that says which: tables of a place's multiplexes in either format,
// compiled time zones, items of events as a database has them, texts on their way to a terminal.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "fuzz/entries.h"
#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/database/guide_db.h"
#include "tools/frequencies/initial_scan_file.h"
#include "tools/watch/zone_file.h"

namespace {

// Nothing that a terminal acts upon.
void demand_clean(const std::string& text, bool lines) {
  for (size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const bool line = lines && (byte == '\n' || byte == '\t');
    const unsigned next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0;
    if ((byte < 0x20 && !line) || byte == 0x7F || (byte == 0xC2 && next < 0xA0))
      std::abort();
  }
}

void read_table(const std::string& text) {
  try {
    const Initial_scan scan = parse_initial_scan(text, "fuzz");
    if (scan.multiplexes.empty())
      std::abort();
    for (const Tuning_request& request : scan.multiplexes)
      if (request.freq <= 0)
        std::abort();
    for (const std::string& remark : scan.remarks)
      demand_clean(remark, false);
  } catch (const Failure& failure) {
    demand_clean(failure.what(), false);
  }
}

void read_zone(const std::string& text) {
  static const int fd = memfd_create("zone", MFD_CLOEXEC);
  if (ftruncate(fd, 0) != 0 || pwrite(fd, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size()))
    std::abort();
  demand_clean(zone_in("/proc/self/fd/" + std::to_string(fd)), false);
}

}  // namespace

int fuzz::imports(const uint8_t* data, size_t size) {
  if (size == 0)
    return 0;
  const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
  switch (data[0] & 7) {
    case 0:
    case 1:
    case 2:
      read_table(text);
      break;
    case 3:
      read_zone(text);
      break;
    case 4:
      for (const auto& [name, item] : split_items(text)) {
        demand_clean(name, false);
        demand_clean(item, false);
      }
      break;
    case 5:
      demand_clean(guide_text(text), false);
      break;
    case 6:
      demand_clean(clean_lines(text), true);
      break;
    default:
      demand_clean(clean_text(text), false);
  }
  return 0;
}
