// EIT of the actual multiplex (EN 300 468, 5.2.4), and the list of services whose guide is collected.
#include <dvbsi++/event_information_section.h>

#include "base/log.h"
#include "db/sdbl.h"
#include "filter/section_filter.h"
#include "si/siparse.h"

namespace {

constexpr int PRESENT_FOLLOWING = 0x4E;
constexpr int LAST_SCHEDULE = 0x5F;

}  // namespace

int Siparse::start_eit_scan(int freq, SCAN_STATE) {
  current_eit_table_ = PRESENT_FOLLOWING;
  eit_info_available_ = false;
  filter_->remove_filter_range(PID_EIT, PRESENT_FOLLOWING, LAST_SCHEDULE);
  filter_->addfilter(PID_EIT, PRESENT_FOLLOWING, freq);
  return 0;
}

int Siparse::init_cache_list(int freq, SCAN_STATE state) {
  db_->clear_eit_scan_list(cache_list_);
  cache_list_ = db_->get_eit_scan_list(dvbnr_, type_, conn_, freq, cache_list_, state);
  return 0;
}

void Siparse::reset_cache_list() {
  db_->reset_eit_scan_list(cache_list_);
}

bool Siparse::get_eit_info_available() {
  KLOG(VERB_TRACE, "%d ", static_cast<int>(eit_info_available_));
  return eit_info_available_;
}

// The guide is not collected yet: its sections are counted by the dispatch and dropped here.
void Siparse::parse_section_eit(EventInformationSection*, int) {}

SQL_cache* Siparse::eit_scan_loop(int, long, long, bool, bool, bool* all_done, int, int) {
  *all_done = false;
  return nullptr;
}
