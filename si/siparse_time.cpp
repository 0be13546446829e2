// TDT and TOT (EN 300 468, 5.2.5 and 5.2.6), and the arithmetic of dates.
#include <dvbsi++/time_date_section.h>
#include <dvbsi++/time_offset_section.h>

#include "base/log.h"
#include "db/sdbl.h"
#include "filter/section_filter.h"
#include "si/siparse.h"
#include "si/siparse_internal.h"

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

// A time table closes its filter: one is read per filter.
int Siparse::parse_section_tdt(TimeAndDateSection*, int) {
  filter_->removefilter(20, 0x70);
  return 0;
}

int Siparse::parse_section_tot(TimeOffsetSection*, int) {
  filter_->removefilter(20, 0x73);
  return 0;
}

void Siparse::parse_time_offset_descriptor(const Descriptor*, int) {}

void Siparse::print_gmtime(time_t t) {
  tm utc{};
  char text[32];
  if (gmtime_r(&t, &utc) != nullptr && asctime_r(&utc, text) != nullptr)
    KLOG(VERB_PROGRESS, "%s", text);
}
