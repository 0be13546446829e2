// TDT and TOT (EN 300 468, 5.2.5 and 5.2.6), and the arithmetic of dates.
#include <sys/time.h>
#include <time.h>

#include <cmath>

#include <dvbsi++/local_time_offset_descriptor.h>
#include <dvbsi++/time_date_section.h>
#include <dvbsi++/time_offset_section.h>

#include "base/log.h"
#include "db/sdbl.h"
#include "filter/section_filter.h"
#include "si/siparse_internal.h"
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

// Sets the system clock to the broadcast time when the two are too far apart.
Broadcast_time Siparse::Parts::set_clock(unsigned mjd, unsigned hms_bcd, time_t now) {
  const unsigned ymd = mjd_to_bcd(mjd);
  tm utc{};
  utc.tm_year = static_cast<int>(bcd_to_int(ymd >> 16)) - 1900;
  utc.tm_mon = static_cast<int>(bcd_to_int(ymd >> 8 & 0xFF)) - 1;
  utc.tm_mday = static_cast<int>(bcd_to_int(ymd & 0xFF));
  utc.tm_hour = static_cast<int>(bcd_to_int(hms_bcd >> 16 & 0xFF));
  utc.tm_min = static_cast<int>(bcd_to_int(hms_bcd >> 8 & 0xFF));
  utc.tm_sec = static_cast<int>(bcd_to_int(hms_bcd & 0xFF));
  utc.tm_yday = -1;
  const time_t broadcast = timegm(&utc);
  Broadcast_time time;
  time.utc = broadcast;
  time.off_by = broadcast - now;
  if (std::fabs(difftime(broadcast, now)) > static_cast<double>(CLOCK_TOLERANCE_S)) {
    KLOG(VERB_PROGRESS, "Changing system clock\n");
    const timeval tv{broadcast, 0};
    // Without the right to do so the clock stays.
    time.clock = settimeofday(&tv, nullptr) == 0 ? CLOCK_SET : CLOCK_REFUSED;
  }
  system_time_valid_ = true;
  return time;
}

void Siparse::Parts::set_time_listener(void (*listener)(void* data, const Broadcast_time& time), void* data) {
  const std::lock_guard<std::mutex> lock(listener_lock_);
  time_listener_ = listener;
  time_listener_data_ = data;
}

void Siparse::Parts::tell(const Broadcast_time& time) {
  void (*listener)(void*, const Broadcast_time&) = nullptr;
  void* data = nullptr;
  {
    const std::lock_guard<std::mutex> lock(listener_lock_);
    listener = time_listener_;
    data = time_listener_data_;
  }
  if (listener != nullptr)
    listener(data, time);
}

int Siparse::Parts::parse_section_tdt(TimeAndDateSection* section, int freq) {
  const time_t now = ::time(nullptr);
  KLOG(VERB_TRACE, "Time and date section\n");
  Broadcast_time time = set_clock(section->getUtcTimeMjd(), section->getUtcTimeBcd(), now);
  time.freq = freq;
  tell(time);
  return filter_->removefilter(20, 0x70);
}

int Siparse::Parts::parse_section_tot(TimeOffsetSection* section, int freq) {
  const Scoped_value scope(loop_, Loop::TOT);
  KLOG(VERB_TRACE, "Time offset section\n");
  time_offset_received_ = false;
  for (Descriptor* descriptor : *section->getDescriptors())
    parse_descriptor_info(descriptor, freq);
  Broadcast_time time = set_clock(section->getUtcTimeMjd(), section->getUtcTimeBcd(), ::time(nullptr));
  time.freq = freq;
  tell(time);
  return filter_->removefilter(20, 0x73);
}

// local_time_offset_descriptor (0x58, 6.2.20)
void Siparse::Parts::parse_time_offset_descriptor(const Descriptor* descriptor, int freq) {
  const auto* d = as<LocalTimeOffsetDescriptor>(descriptor);
  if (d == nullptr)
    return;
  for (const LocalTimeOffset* entry : *d->getLocalTimeOffsets()) {
    const unsigned offset = entry->getLocalTimeOffset();
    const int region = entry->getCountryRegionId();
    const int polarity = entry->getLocalTimeOffsetPolarity();
    KLOG(VERB_PROGRESS, "Country id %s region id %d, offset %x, next_offset %x , polarity %d, ymd %x, hms %x\n",
         entry->getCountryCode().c_str(), region, offset, static_cast<unsigned>(entry->getNextTimeOffset()), polarity,
         mjd_to_bcd(entry->getTimeOfChangeMjd()), static_cast<unsigned>(entry->getTimeOfChangeBcd()));
    local_time_offset_ = static_cast<int>(bcd_to_int(offset >> 8) * 60 + bcd_to_int(offset & 0xFF));
    if (polarity == 1)
      local_time_offset_ = -local_time_offset_;
    time_offset_received_ = true;
    db_->update_system_timezone(local_time_offset_, entry->getCountryCode().c_str(), region, type_, conn_, freq);
  }
}

void Siparse::print_gmtime(time_t t) {
  tm utc{};
  char text[32];
  if (gmtime_r(&t, &utc) != nullptr && asctime_r(&utc, text) != nullptr)
    KLOG(VERB_PROGRESS, "%s", text);
}
