// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// A guide full of character tables, to be looked at on a screen.
#include <time.h>

#include <cstdio>
#include <cstring>

#include "db/sdbl.h"
#include "si/siparse_parts.h"

namespace {

constexpr size_t RAW_SIZE = 300;
constexpr int EVENT_DURATION_S = 120;

// The selector's bytes, a blank, and the bytes 33 to 255.
void fill_raw(char (&raw)[1024], const char* selector, size_t selector_size) {
  std::memset(raw, 0, sizeof raw);
  std::memcpy(raw, selector, selector_size);
  char* at = raw + selector_size;
  *at++ = ' ';
  for (int byte = 33; byte <= 255; ++byte)
    *at++ = static_cast<char>(byte);
}

}  // namespace

void Siparse::Parts::replace_epg_info(int channel, int event_id, long start, const char* name, const char* raw) {
  std::string text(raw, RAW_SIZE);
  text_.convert(&text, Dvb_text::Lines::KEPT);
  // Deliberate: the guide has no such columns and cached statements take no % conversions, so nothing is stored.
  db_.sql_cache(
      true, 0,
      "INSERT INTO epglist (channel, ymd_bcd, hms_bcd, start_epoch, dur_bcd, dur_sec, run_status, free_ca, ev_id, pat_prnr, ev_name, ext_desc) VALUES (%d, %x, %x, %d, %x, %d, %d, %d, %d, %d, %Q, %Q)",
      channel, 0x20090409, 0, static_cast<int>(start), EVENT_DURATION_S, EVENT_DURATION_S, 0, 1, event_id, 200, name,
      text.c_str());
}

void Siparse::Parts::generate_char_test_tables(int channel) {
  db_.sql_cache(true, 0, "DELETE from epglist where channel = %d;", channel);
  long start = static_cast<long>(time(nullptr)) + 3600;
  int event_id = 1;
  char raw[1024];
  char name[64];
  const auto add = [&] {
    replace_epg_info(channel, event_id++, start, name, raw);
    start += EVENT_DURATION_S;
  };
  for (int c = 0; c < 32; ++c) {
    const char selector[] = {static_cast<char>(c)};
    if (c == 0) {
      fill_raw(raw, selector, 1);
      std::snprintf(name, sizeof name, "0 - empty string");
      add();
    } else if (c <= 11) {
      if (c == 8)
        continue;  // Deliberate: there is no ISO-8859-12.
      fill_raw(raw, selector, 1);
      std::snprintf(name, sizeof name, "CharCode %x, ISO-IEC-8859-%d", static_cast<unsigned>(c), c + 4);
      add();
    } else if (c <= 15) {
      fill_raw(raw, selector, 1);
      std::snprintf(name, sizeof name, "CharCode %x - Reserved", static_cast<unsigned>(c));
      add();
    } else if (c == 16) {
      for (int n = 1; n <= 15; ++n) {
        if (n == 12)
          continue;
        const char long_selector[] = {0x10, 0, static_cast<char>(n)};
        fill_raw(raw, long_selector, 3);
        std::snprintf(name, sizeof name, "CharCode %x, subcode %x IO-IEC-8859-%d", static_cast<unsigned>(c),
                      static_cast<unsigned>(n), n);
        add();
      }
    }
  }
}
