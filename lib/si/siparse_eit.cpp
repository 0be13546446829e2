// EIT of the actual multiplex (EN 300 468, 5.2.4), and the list of services whose guide is collected.
#include <time.h>

#include <algorithm>
#include <limits>
#include <memory>

#include <dvbsi++/event_information_section.h>

#include "base/log.h"
#include "base/polled_timer.h"
#include "db/sdbl.h"
#include "filter/section_filter.h"
#include "si/eit_lang.h"
#include "si/siparse_internal.h"
#include "si/siparse_parts.h"

namespace {

constexpr int PRESENT_FOLLOWING = 0x4E;
constexpr int FIRST_SCHEDULE = 0x50;
constexpr int LAST_SCHEDULE = 0x5F;
constexpr int CONTEXT_EVENT = 1;
constexpr int RUNNING = 4;
constexpr int TABLE_TIMEOUT_S = 180;
constexpr int PRESENT_FOLLOWING_TIMEOUT_S = 10;
constexpr int ARRIVALS_OF_A_FINISHED_TABLE = 2;
constexpr int64_t SECOND_NS = 1000000000;

int seconds_of(unsigned hms_bcd) {
  return static_cast<int>(Siparse::bcd_to_int(hms_bcd >> 16 & 0xFF) * 3600 +
                          Siparse::bcd_to_int(hms_bcd >> 8 & 0xFF) * 60 + Siparse::bcd_to_int(hms_bcd & 0xFF));
}

int64_t nanoseconds(const timespec& time) {
  return time.tv_sec * SECOND_NS + time.tv_nsec;
}

}  // namespace

int Siparse::Parts::start_eit_scan(int freq, SCAN_STATE) {
  current_eit_table_ = PRESENT_FOLLOWING;
  eit_info_available_ = false;
  filter_->remove_filter_range(PID_EIT, PRESENT_FOLLOWING, LAST_SCHEDULE);
  filter_->addfilter(PID_EIT, PRESENT_FOLLOWING, freq);
  guide_ended_ = false;
  for (EIT_progress& service : progress_)
    service.table = PRESENT_FOLLOWING;
  publish_progress();
  return 0;
}

int Siparse::Parts::init_cache_list(int freq, SCAN_STATE state) {
  db_->clear_eit_scan_list(cache_list_);
  cache_list_ = db_->get_eit_scan_list(dvbnr_, type_, conn_, freq, cache_list_, state);
  timers_due_ns_ = 0;
  guide_ended_ = false;
  progress_.clear();
  for (const SQL_cache* service : *cache_list_)
    progress_.push_back(EIT_progress{service->pat_prnr, service->channel, 0, 0, true, false,
                                     static_cast<int32_t>(service->epg.size())});
  publish_progress();
  return 0;
}

void Siparse::Parts::reset_cache_list() {
  db_->reset_eit_scan_list(cache_list_);
  timers_due_ns_ = 0;
  publish_progress();
}

void Siparse::Parts::get_eit_progress(std::vector<EIT_progress>* progress) const {
  const std::lock_guard<std::mutex> lock(progress_lock_);
  *progress = published_;
}

void Siparse::Parts::publish_progress() {
  progress_changed_ = false;
  auto service = cache_list_->begin();
  for (EIT_progress& progress : progress_) {
    progress.active = (*service)->active && !guide_ended_;
    progress.done = (*service)->done || guide_ended_;
    ++service;
  }
  const std::lock_guard<std::mutex> lock(progress_lock_);
  published_ = progress_;
}

void Siparse::Parts::count_stored_event(int service_id) {
  for (EIT_progress& progress : progress_) {
    if (progress.service_id == service_id) {
      ++progress.events;
      progress_changed_ = true;
    }
  }
}

// What a schedule section says about how many tables its service has.
void Siparse::Parts::note_schedule_table(int service_id, int last_table) {
  for (EIT_progress& progress : progress_) {
    if (progress.service_id == service_id && last_table > progress.last_table && last_table <= LAST_SCHEDULE) {
      progress.last_table = last_table;
      progress_changed_ = true;
    }
  }
}

bool Siparse::Parts::get_eit_info_available() {
  KLOG(VERB_TRACE, "%d ", static_cast<int>(eit_info_available_));
  return eit_info_available_;
}

void Siparse::Parts::parse_section_eit(EventInformationSection* section, int freq) {
  const Scoped_value scope(loop_, Loop::EIT);
  const int service_id = section->getTableIdExtension();
  const int table_id = section->getTableId();
  const auto ts_id = static_cast<unsigned>(section->getTransportStreamId());
  const auto orig_network_id = static_cast<unsigned>(section->getOriginalNetworkId());
  const auto segment_last = static_cast<unsigned>(section->getSegmentLastSectionNumber());
  const auto last_table = static_cast<unsigned>(section->getLastTableId());
  if (table_id != current_eit_table_) {
    KLOG(VERB_ERROR, "ERROR: \n ##### EIT table current nr is %x, scanned table %x cnt %d#####\n",
         static_cast<unsigned>(current_eit_table_), static_cast<unsigned>(table_id), eit_mismatches_);
    ++eit_mismatches_;
    return;
  }
  KLOG(VERB_TRACE, "TableNr: %x, TSid %x, ONetID %x, lastsecNr %x, LastTableId %x, service ID %d\n",
       static_cast<unsigned>(table_id), ts_id, orig_network_id, segment_last, last_table, service_id);
  if (table_id != PRESENT_FOLLOWING)
    note_schedule_table(service_id, static_cast<int>(last_table));
  if (section->getEvents()->empty()) {
    KLOG(VERB_TRACE, "parse_section_eit: event list equal, exiting scan\n");
    KLOG(VERB_TRACE, "TSid %x, ONetID %x, SecNr %x, lastsecNr %x, LastTableId %x, service ID %d\n", ts_id,
         orig_network_id, static_cast<unsigned>(section->getSectionNumber()), segment_last, last_table, service_id);
    if (progress_changed_)
      publish_progress();
    return;
  }

  bool all_done = false;
  bool last_section = section->getSectionNumber() == section->getLastSectionNumber();
  for (const Event* event : *section->getEvents()) {
    const int ymd = static_cast<int>(mjd_to_bcd(event->getStartTimeMjd()));
    const int hms = static_cast<int>(event->getStartTimeBcd());
    const int start = Sdbl::ymd_hms_to_tzepoch(ymd, hms);
    const int duration = seconds_of(event->getDuration());
    const bool present_running = table_id == PRESENT_FOLLOWING && event->getRunningStatus() == RUNNING;
    SQL_cache* service = eit_scan_loop(service_id, start, static_cast<long>(int64_t{start} + duration), last_section,
                                       present_running, &all_done, freq, table_id);
    if (all_done) {
      open_next_eit_table(freq, table_id);
      return;
    }
    last_section = false;  // counted once a section
    if (service == nullptr)
      KLOG(VERB_TRACE, "SC = NULL\n");
    else if (service->active)
      KLOG(VERB_TRACE, "Scan not started\n");
    else if (service->done)
      KLOG(VERB_TRACE, "Loop is done\n");
    else
      store_event(event, service, service_id, freq, ymd, hms, start, duration);
  }
  if (progress_changed_)
    publish_progress();
}

void Siparse::Parts::store_event(const Event* event, SQL_cache* service, int service_id, int freq, int ymd, int hms,
                                 int start, int duration) {
  bool changed = false;
  bool overlap = false;
  if (db_->lookup_epg_cache(&service->epg, event->getEventId(), start, duration, &changed, &overlap) != 0 || changed ||
      overlap)
    return;
  event_content_ = "0.0.0.0";
  event_rating_ = "0@est";
  for (Descriptor* descriptor : *event->getDescriptors())
    parse_descriptor_info(descriptor, CONTEXT_EVENT);
  const int oid =
      db_->eit_for_service(type_, conn_, freq, service_id, service, ymd, hms, static_cast<int>(event->getDuration()),
                           start, duration, event->getRunningStatus(), event->getFreeCaMode(), event->getEventId(),
                           &event_content_, &event_rating_, changed, overlap);
  for (const EIT_lang* language : epg_languages_) {
    if (oid > 0)
      db_->insert_epglist_lang(oid, language->lang.c_str(), language->ev_name.c_str(), language->ev_desc.c_str(),
                               language->ext_desc.c_str(), language->ext_list.c_str());
    if (language->started && !language->complete)
      KLOG(VERB_PROGRESS, "Fragmented extended event for source_oid %d\n", oid);
  }
  delete_all(epg_languages_);
  if (oid > 0)
    count_stored_event(service_id);
  // Deliberate: the count is printed at 1, 101, 201, and so on.
  if (eit_stored_++ % 100 == 0)
    KLOG(VERB_PROGRESS, "Stored %d EPG entries\n", eit_stored_.load());
}

void Siparse::Parts::open_next_eit_table(int freq, int table_id) {
  for (SQL_cache* service : *cache_list_) {
    service->active = true;
    service->done = false;
    service->count = 0;
    // Without it the table just waits for its sections.
    (void)polled_timer::arm(service->timer, TABLE_TIMEOUT_S, TABLE_TIMEOUT_S);
  }
  timers_due_ns_ = 0;
  filter_->removefilter(PID_EIT, table_id);
  db_->flush();
  if (table_id == PRESENT_FOLLOWING) {
    current_eit_table_ = FIRST_SCHEDULE;
    eit_info_available_ = true;
    KLOG(VERB_WARNING, "Pres-Following table 4E completed, next table 0x50\n");
    filter_->addfilter(PID_EIT, FIRST_SCHEDULE, freq);
  } else if (table_id != LAST_SCHEDULE) {
    current_eit_table_ = table_id + 1;
    KLOG(VERB_WARNING, "**** EIT loop completed, next table %x\n", static_cast<unsigned>(table_id) + 1);
    filter_->addfilter(PID_EIT, table_id + 1, freq);
  } else {
    guide_ended_ = true;
  }
  for (EIT_progress& service : progress_)
    service.table = current_eit_table_;
  publish_progress();
}

SQL_cache* Siparse::Parts::eit_scan_loop(int service_id, long, long, bool last_section, bool, bool* all_done, int freq,
                                         int table_id) {
  const int ttl = table_id == PRESENT_FOLLOWING ? PRESENT_FOLLOWING_TIMEOUT_S : TABLE_TIMEOUT_S;
  const auto name = [&] { return std::unique_ptr<std::string>(db_->get_serv_name(type_, conn_, freq, service_id)); };
  if (cache_list_->empty()) {
    *all_done = true;
    KLOG(VERB_TRACE, "Failed to locate service %d in eit scan cache, current cache is\n", service_id);
    return nullptr;
  }

  // One clock says when the first timer is due: to read them all for each event costs many times what the event does.
  timespec clock{};
  (void)clock_gettime(CLOCK_MONOTONIC, &clock);  // cannot fail for this clock
  const int64_t now_ns = nanoseconds(clock);
  const bool timers_due = now_ns >= timers_due_ns_;
  int64_t least_left_ns = std::numeric_limits<int64_t>::max();

  SQL_cache* found = nullptr;
  bool every_one_done = true;
  for (SQL_cache* service : *cache_list_) {
    if (service->pat_prnr == service_id)
      found = service;
    if (timers_due && !service->done) {
      timespec left{};
      (void)polled_timer::time_left(service->timer, &left);  // a timer that cannot be read has run out
      if (left.tv_sec == 0) {
        // Deliberate: printed at low verbosity only, and with the name of the section's service.
        if (verbosity_kelvo < VERB_INFO)
          KLOG_ALWAYS("Kill scan for service %d , %s table %x, ttl %d\n", service->pat_prnr, name()->c_str(),
                      static_cast<unsigned>(table_id), ttl);
        db_->flush();
        service->done = true;
        service->active = false;
        progress_changed_ = true;
      } else {
        least_left_ns = std::min(least_left_ns, nanoseconds(left));
      }
    }
    every_one_done = every_one_done && service->done;
  }
  *all_done = every_one_done;
  if (timers_due && !every_one_done)
    timers_due_ns_ = now_ns + least_left_ns - SECOND_NS;  // in its last second a timer counts as run out
  if (found == nullptr) {
    KLOG(VERB_TRACE, "Failed to locate service %d in eit scan cache, current cache is\n", service_id);
    for (const SQL_cache* service : *cache_list_)
      KLOG(VERB_TRACE, " %d ", service->pat_prnr);
    return nullptr;
  }

  if (found->active) {
    if (kelvo_log::enabled(VERB_WARNING))
      kelvo_log::print(VERB_WARNING, "****+ Started table %x scan %d %s\n", static_cast<unsigned>(table_id), service_id,
                       name()->c_str());
    found->active = false;
    progress_changed_ = true;
  } else if (last_section && !found->done) {
    ++found->count;
    if (table_id != PRESENT_FOLLOWING)
      db_->flush();
    if (found->count == ARRIVALS_OF_A_FINISHED_TABLE) {
      if (kelvo_log::enabled(VERB_WARNING))
        kelvo_log::print(VERB_WARNING, "****-  Finished table %x scan %d %s\n", static_cast<unsigned>(table_id),
                         service_id, name()->c_str());
      found->done = true;
      progress_changed_ = true;
    }
  }
  if (!eit_info_available_ &&
      ((selected_service_ == -1 && *all_done) || (selected_service_ == service_id && found->done))) {
    KLOG(VERB_TRACE, "Loop for all services\n");
    eit_info_available_ = true;
  }
  return found;
}
