// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// TDT and TOT (EN 300 468, 5.2.5 and 5.2.6), and the arithmetic of dates.
#include <time.h>

#include <cstdio>
#include <mutex>
#include <vector>

#include <dvbsi++/time_date_section.h>
#include <dvbsi++/time_offset_section.h>

#include "base/ids.h"
#include "base/lock_order.h"
#include "base/log.h"
#include "db/sdbl.h"
#include "filter/section_filter.h"
#include "si/siparse_parts.h"

unsigned Siparse::bcd_to_int(unsigned bcd) {
  return static_cast<unsigned>(Sdbl::bcd_to_int(bcd));
}

unsigned Siparse::bin_to_bcd(unsigned value) {
  return Sdbl::bin_to_bcd(value);
}

unsigned Siparse::mjd_to_bcd(unsigned mjd) {
  const int y = static_cast<int>((mjd - 15078.2) / 365.25);
  const int days_of_years = static_cast<int>(y * 365.25);
  const int m = static_cast<int>((mjd - 14956.1 - days_of_years) / 30.6001);
  const int day = static_cast<int>(mjd - 14956.0 - days_of_years - static_cast<int>(m * 30.6001));
  const int k = m == 14 || m == 15 ? 1 : 0;
  const unsigned year = static_cast<unsigned>(y + k + 1900);
  const unsigned month = static_cast<unsigned>(m - 1 - 12 * k);
  return bin_to_bcd(year) << 16 | (bin_to_bcd(month) & 0xFF) << 8 | (bin_to_bcd(static_cast<unsigned>(day)) & 0xFF);
}

void Siparse::print_gmtime(time_t t) {
  tm utc{};
  char text[32];
  if (gmtime_r(&t, &utc) != nullptr && asctime_r(&utc, text) != nullptr)
    KLOG(VERB_PROGRESS, "%s", text);
}

int Siparse::Parts::parse_section_tdt(TimeAndDateSection* section, int freq) {
  const time_t now = time(nullptr);
  KLOG(VERB_TRACE, "Time and date section\n");
  Broadcast_time broadcast = clock_.follow(section->getUtcTimeMjd(), section->getUtcTimeBcd(), now);
  broadcast.freq = freq;
  tell(broadcast);
  return filter_.removefilter(pid::TIME, table::TDT);
}

int Siparse::Parts::parse_section_tot(TimeOffsetSection* section, int freq) {
  KLOG(VERB_TRACE, "Time offset section\n");
  Found found;
  Scan_rows rows(db_, place(freq));
  Site site{loop::TIME, freq, rows, text_, found};
  site.sets_zone = sets_zone_;
  std::vector<Local_offset> offsets;
  if (country_offset_ != nullptr)
    site.offsets = &offsets;
  for (const Descriptor* descriptor : *section->getDescriptors())
    parse_descriptor(*descriptor, site);
  if (country_offset_ != nullptr)
    found.zone = follow_country(offsets, broadcast_seconds(section->getUtcTimeMjd(), section->getUtcTimeBcd()), rows);
  // Installing a zone takes its time, so the clock is looked at only now.
  Broadcast_time broadcast = clock_.follow(section->getUtcTimeMjd(), section->getUtcTimeBcd(), time(nullptr));
  broadcast.freq = freq;
  broadcast.zone = found.zone.result;
  broadcast.offset_min = found.zone.offset_min;
  (void)std::snprintf(broadcast.country, sizeof broadcast.country, "%s", found.zone.country.c_str());
  broadcast.region = found.zone.region;
  broadcast.change_epoch = found.zone.change;
  broadcast.next_offset_min = found.zone.next_offset_min;
  tell(broadcast);
  return filter_.removefilter(pid::TIME, table::TOT);
}

// A change that lies behind the table's own time has been made already: the offset is that since then.
Zone_found Siparse::Parts::follow_country(const std::vector<Local_offset>& offsets, int64_t utc, Scan_rows& rows) {
  Zone_found zone;
  const int network = network_.original_network_id();
  const Local_offset* offset =
      country_offset_->choose(offsets, network >= 0 ? network : rows.original_network_id(), utc);
  if (offset == nullptr)
    return zone;
  const bool changes = offset->change > utc && offset->next_offset_min != offset->offset_min;
  zone.offset_min = offset->offset_min;
  zone.country = offset->country;
  zone.region = offset->region;
  zone.change = changes ? offset->change : 0;
  zone.next_offset_min = changes ? offset->next_offset_min : offset->offset_min;
  zone.result = rows.zone(zone, utc, sets_zone_);
  return zone;
}

void Siparse::Parts::set_system_policy(bool set_clock, bool set_zone) {
  clock_.set_sets(set_clock);
  sets_zone_ = set_zone;
}

void Siparse::Parts::set_time_listener(void (*listener)(void* data, const Broadcast_time& time), void* data) {
  const std::lock_guard<Mutex> lock(listener_lock_);
  listener_ = {listener, data};
}

void Siparse::Parts::tell(const Broadcast_time& broadcast) {
  Time_listener listener;
  {
    const std::lock_guard<Mutex> lock(listener_lock_);
    listener = listener_;
  }
  lock_order::hold_none("listener");
  if (listener.call != nullptr)
    listener.call(listener.data, broadcast);
}
