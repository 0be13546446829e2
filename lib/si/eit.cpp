// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// EIT of the actual multiplex (EN 300 468, 5.2.4): events, and the way from table to table.
#include <utility>
#include <vector>

#include <dvbsi++/event_information_section.h>

#include "base/ids.h"
#include "base/lock_order.h"
#include "base/log.h"
#include "db/guide_section.h"
#include "db/sdbl_parts.h"
#include "filter/section_filter_parts.h"
#include "si/scan_rows.h"
#include "si/siparse_parts.h"

namespace {

int seconds_of(unsigned hms_bcd) {
  return static_cast<int>(Siparse::bcd_to_int(hms_bcd >> 16 & 0xFF) * 3600 +
                          Siparse::bcd_to_int(hms_bcd >> 8 & 0xFF) * 60 + Siparse::bcd_to_int(hms_bcd & 0xFF));
}

Event_times times_of(const Event& event) {
  const int ymd = static_cast<int>(Siparse::mjd_to_bcd(event.getStartTimeMjd()));
  const int hms = static_cast<int>(event.getStartTimeBcd());
  return {event.getEventId(),
          ymd,
          hms,
          static_cast<int>(event.getDuration()),
          Sdbl::ymd_hms_to_tzepoch(ymd, hms),
          seconds_of(event.getDuration()),
          event.getRunningStatus(),
          event.getFreeCaMode()};
}

}  // namespace

// The events of a section that were not known, all of which are stored or none.
struct Siparse::Parts::Section_events {
  struct One {
    SQL_cache* service;
    Event_times times;
  };

  explicit Section_events(Sdbl& db) : rows(db.parts().connection, db.parts().guide) {}

  sdbl::Guide_section rows;
  std::vector<One> all;
  size_t counted = 0;
};

int Siparse::Parts::start_eit_scan(int freq, SCAN_STATE) {
  guide_reader_->start(freq);
  return 0;
}

void Siparse::Parts::start_guide_by_table(int freq) {
  filter_.remove_filter_range(pid::EIT, table::EIT_PRESENT_FOLLOWING, table::EIT_SCHEDULE_LAST);
  filter_.addfilter(pid::EIT, table::EIT_PRESENT_FOLLOWING, freq);
  guide_.start();
  eit_losses_ = filter_.parts().losses(pid::EIT);
}

void Siparse::Parts::set_guide_listener(void (*listener)(void* data, const std::vector<Guide_change>& changes),
                                        void* data) {
  const std::lock_guard<Mutex> lock(listener_lock_);
  guide_listener_ = {listener, data};
}

void Siparse::Parts::tell(const std::vector<Guide_change>& changes) {
  Guide_listener listener;
  {
    const std::lock_guard<Mutex> lock(listener_lock_);
    listener = guide_listener_;
  }
  lock_order::hold_none("listener");
  if (listener.call != nullptr)
    listener.call(listener.data, changes);
}

void Siparse::Parts::note_lost_sections() {
  if (!repeat_lost_)
    return;
  const int losses = filter_.parts().losses(pid::EIT);
  if (losses != std::exchange(eit_losses_, losses))
    guide_.sections_lost();
}

bool Siparse::Parts::get_eit_info_available() {
  const bool seen = guide_reader_->seen_once();
  KLOG(VERB_TRACE, "%d ", static_cast<int>(seen));
  return seen;
}

void Siparse::Parts::parse_section_eit(EventInformationSection* section, int freq) {
  const int service_id = section->getTableIdExtension();
  const int table_id = section->getTableId();
  const auto ts_id = static_cast<unsigned>(section->getTransportStreamId());
  const auto orig_network_id = static_cast<unsigned>(section->getOriginalNetworkId());
  const auto segment_last = static_cast<unsigned>(section->getSegmentLastSectionNumber());
  const auto last_table = static_cast<unsigned>(section->getLastTableId());
  if (table_id != guide_.table()) {
    KLOG(VERB_ERROR, "ERROR: \n ##### EIT table current nr is %x, scanned table %x cnt %d#####\n",
         static_cast<unsigned>(guide_.table()), static_cast<unsigned>(table_id), eit_mismatches_);
    ++eit_mismatches_;
    return;
  }
  note_lost_sections();
  KLOG(VERB_TRACE, "TableNr: %x, TSid %x, ONetID %x, lastsecNr %x, LastTableId %x, service ID %d\n",
       static_cast<unsigned>(table_id), ts_id, orig_network_id, segment_last, last_table, service_id);
  if (table_id != table::EIT_PRESENT_FOLLOWING)
    guide_.note_last_table(service_id, static_cast<int>(last_table));
  if (section->getEvents()->empty()) {
    KLOG(VERB_TRACE, "parse_section_eit: event list equal, exiting scan\n");
    KLOG(VERB_TRACE, "TSid %x, ONetID %x, SecNr %x, lastsecNr %x, LastTableId %x, service ID %d\n", ts_id,
         orig_network_id, static_cast<unsigned>(section->getSectionNumber()), segment_last, last_table, service_id);
    guide_.publish_changes();
    return;
  }

  Scan_rows rows(db_, place(freq));
  Found found;
  Section_events events(db_);
  bool all_done = false;
  bool last_section = section->getSectionNumber() == section->getLastSectionNumber();
  for (const Event* event : *section->getEvents()) {
    const Event_times times = times_of(*event);
    SQL_cache* service = guide_.event_arrived(service_id, table_id, freq, last_section, &all_done);
    if (all_done) {
      end_section(events);
      open_next_eit_table(freq);
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
      store_event(*event, times, service, rows, found, events);
  }
  end_section(events);
  guide_.publish_changes();
}

void Siparse::Parts::store_event(const Event& event, const Event_times& times, SQL_cache* service, Scan_rows& rows,
                                 Found& found, Section_events& events) {
  bool changed = false;
  bool overlap = false;
  if (db_.lookup_epg_cache(&service->epg, times.event_id, times.start, times.duration, &changed, &overlap) != 0 ||
      changed || overlap)
    return;
  Event_found& event_found = found.event.emplace();
  Site site{loop::EVENT, CONTEXT_EVENT, rows, text_, found};
  for (const Descriptor* descriptor : *event.getDescriptors())
    parse_descriptor(*descriptor, site);
  const int row = Scan_rows::event(events.rows, rows.place(), service->pat_prnr, *service, times, &event_found);
  events.all.push_back({service, times});
  if (row != 0 && !events.rows.is_dropped())
    count_event(events);
}

void Siparse::Parts::count_event(Section_events& events) {
  ++events.counted;
  // Deliberate: the count is printed at 1, 101, 201, and so on.
  if (eit_stored_++ % 100 == 0)
    KLOG(VERB_PROGRESS, "Stored %d EPG entries\n", eit_stored_.load());
}

// A section that was not stored is as one that did not come: its events are not known, and it is waited for again.
void Siparse::Parts::end_section(Section_events& events) {
  const bool stored = events.rows.end();
  while (stored && events.counted < events.all.size())  // those that waited for the end
    count_event(events);
  for (size_t i = 0; i < events.all.size(); ++i) {
    const Section_events::One& one = events.all[i];
    if (!stored)
      sdbl::Event_cache::take_back(&one.service->epg, one.times.event_id, one.times.start, one.times.duration);
    else if (events.rows.row(i) > 0)
      guide_.count_stored(one.service->pat_prnr);
  }
  if (stored)
    return;
  eit_stored_ -= static_cast<int>(events.counted);
  guide_.sections_lost();
}

void Siparse::Parts::open_next_eit_table(int freq) {
  const int closed = guide_.table();
  guide_.close_table();
  filter_.removefilter(pid::EIT, closed);
  db_.flush();
  int next = 0;
  if (closed == table::EIT_PRESENT_FOLLOWING) {
    next = table::EIT_SCHEDULE_FIRST;
    KLOG(VERB_WARNING, "Pres-Following table 4E completed, next table 0x50\n");
  } else if (closed != table::EIT_SCHEDULE_LAST) {
    next = closed + 1;
    KLOG(VERB_WARNING, "**** EIT loop completed, next table %x\n", static_cast<unsigned>(next));
  }
  if (next != 0)
    filter_.addfilter(pid::EIT, next, freq);
  guide_.enter(next);
}
