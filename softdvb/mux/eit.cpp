// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <algorithm>
#include <set>

#include <fmt/format.h>

#include "base/ids.h"
#include "softdvb/mux/sections.h"
#include "softdvb/mux/tables.h"

extern "C" {
#include <dvbpsi/eit.h>
}

namespace softdvb_mux {

namespace {

constexpr size_t MAX_EVENTS_SIZE = 4096 - 14 - 4;
constexpr int64_t DAY = 86400;
constexpr int64_t SEGMENT = 3 * 3600;
constexpr int SEGMENTS = 32;  // of a table, four days
constexpr int TABLES = 16;

struct Eit_ids {
  uint8_t table_id = 0;
  uint8_t last_table_id = 0;
  uint16_t service_id = 0;
  uint16_t transport_stream_id = 0;
  uint16_t original_network_id = 0;
  uint8_t version = 0;
};

// The status depends on when the table is sent, which the event itself does not know.
struct Timed_event {
  const Event* event;
  uint8_t running_status;
};

int64_t midnight(int64_t epoch) {
  return epoch - ((epoch % DAY) + DAY) % DAY;
}

// One section; the caller numbers it.
Bytes section_of(const Eit_ids& ids, const std::vector<Timed_event>& events, Encoder* encoder) {
  const auto eit = owned(dvbpsi_eit_new(ids.table_id, ids.service_id, ids.version, true, ids.transport_stream_id,
                                        ids.original_network_id, 0, ids.last_table_id),
                         dvbpsi_eit_delete);
  for (const Timed_event& timed : events) {
    const Event& event = *timed.event;
    // EN 300 468, 5.2.4: an undefined start has all bits set.
    const uint64_t start = event.start ? mjd_bcd(*event.start) : 0xFFFFFFFFFF;
    dvbpsi_eit_event_t* added =
        dvbpsi_eit_event_add(eit.get(), event.event_id, start, bcd_duration(event.duration), timed.running_status,
                             event.free_ca, static_cast<uint16_t>(size_of(event.descriptors)));
    add_all(event.descriptors, [&](uint8_t tag, uint8_t length, uint8_t* data) {
      dvbpsi_eit_event_descriptor_add(added, tag, length, data);
    });
  }
  const std::vector<Bytes> sections =
      encoder->take(dvbpsi_eit_sections_generate(encoder->handle(), eit.get(), ids.table_id), "an EIT");
  // The callers count bytes before, as a segment has to know how many sections it has.
  if (sections.size() != 1)
    throw Description_error("libdvbpsi did not make one section of the events that fit into one");
  return sections.front();
}

// EN 300 468, 5.2.4. libdvbpsi numbers sections from 0 without gaps; segments need gaps.
void number_section(Bytes* section, size_t number, size_t last, size_t segment_last) {
  (*section)[6] = static_cast<uint8_t>(number);
  (*section)[7] = static_cast<uint8_t>(last);
  (*section)[12] = static_cast<uint8_t>(segment_last);
  write_crc(section);
}

bool running(const Event& event, int64_t at) {
  return event.start && *event.start <= at && at < *event.start + event.duration;
}

std::vector<Bytes> present_following(Eit_ids ids, const Service& service, int64_t at, Encoder* encoder) {
  const Event* present = nullptr;
  const Event* following = nullptr;
  for (const Event& event : service.events) {
    if (running(event, at))
      present = &event;
    // The first one that starts later, as events are sorted by their start.
    else if (event.start && *event.start > at && following == nullptr)
      following = &event;
  }
  std::vector<Bytes> sections;
  const auto section = [&](const Event* event, uint8_t status) {
    std::vector<Timed_event> events;
    if (event != nullptr)
      events.push_back({event, event->running_status.value_or(status)});
    sections.push_back(section_of(ids, events, encoder));
  };
  // Both sections are always there; one without an event tells that nothing is on. 4 is running, 1 not running.
  section(present, 4);
  section(following, 1);
  number_section(&sections[0], 0, 1, 1);
  number_section(&sections[1], 1, 1, 1);
  return sections;
}

Table pf_table(const Description& all, Eit_ids ids, const Service& service, bool actual, Encoder* encoder) {
  Table table;
  table.kind = actual ? EIT_PF_ACTUAL : EIT_PF_OTHER;
  table.interval = all.intervals.table[table.kind];
  std::set<int64_t> moments = {0};
  for (const Event& event : service.events) {
    if (!event.start)
      continue;
    // The table changes whenever an event begins or ends while the stream is played.
    for (int64_t edge : {*event.start - all.now, *event.start + event.duration - all.now})
      if (edge > 0 && static_cast<double>(edge) < all.duration)
        moments.insert(edge);
  }
  ids.table_id = actual ? table::EIT_PRESENT_FOLLOWING : table::EIT_PRESENT_FOLLOWING_OTHER;
  ids.last_table_id = ids.table_id;
  for (int64_t moment : moments) {
    ids.version = static_cast<uint8_t>((all.version[table.kind] + table.variants.size()) & 31);
    table.variants.push_back({static_cast<double>(moment), present_following(ids, service, all.now + moment, encoder)});
  }
  return table;
}

// The segment that an event belongs to, counted from the midnight before now; -1 outside.
int segment_of(const Event& event, int64_t now) {
  if (!event.start)
    return 0;
  const int64_t since = *event.start - midnight(now);
  // What began before midnight and still runs stands in the first segment of the day.
  if (since < 0)
    return *event.start + event.duration > now ? 0 : -1;
  return since / SEGMENT < SEGMENTS * TABLES ? static_cast<int>(since / SEGMENT) : -1;
}

std::vector<Bytes> segment_sections(const Eit_ids& ids, const Service& service, int segment, int64_t now,
                                    Encoder* encoder) {
  std::vector<Bytes> sections;
  std::vector<Timed_event> events;
  size_t size = 0;
  for (const Event& event : service.events) {
    if (segment_of(event, now) != segment)
      continue;
    const size_t needed = 12 + size_of(event.descriptors);
    if (size + needed > MAX_EVENTS_SIZE) {
      sections.push_back(section_of(ids, events, encoder));
      events.clear();
      size = 0;
    }
    events.push_back({&event, event.running_status.value_or(0)});
    size += needed;
  }
  // A segment without events is sent empty, so that a receiver knows that nothing is missing.
  sections.push_back(section_of(ids, events, encoder));
  if (sections.size() > 8)
    throw Description_error(fmt::format("service {}: the events of three hours need {} sections, at most 8 are allowed",
                                        service.service_id, sections.size()));
  return sections;
}

void add_schedule(const Description& all, Eit_ids ids, const Service& service, bool actual, Encoder* encoder,
                  std::vector<Table>* tables) {
  const Table_kind kind = actual ? EIT_SCHEDULE_ACTUAL : EIT_SCHEDULE_OTHER;
  const uint8_t first_table_id = actual ? table::EIT_SCHEDULE_FIRST : table::EIT_SCHEDULE_OTHER_FIRST;
  int last = -1;
  for (const Event& event : service.events)
    last = std::max(last, segment_of(event, all.now));
  if (last < 0)
    return;
  ids.version = all.version[kind];
  ids.last_table_id = static_cast<uint8_t>(first_table_id + last / SEGMENTS);
  for (int first = 0; first <= last; first += SEGMENTS) {
    ids.table_id = static_cast<uint8_t>(first_table_id + first / SEGMENTS);
    const int end = std::min(first + SEGMENTS, last + 1);
    std::vector<std::vector<Bytes>> segments;
    for (int segment = first; segment < end; ++segment)
      segments.push_back(segment_sections(ids, service, segment, all.now, encoder));
    const size_t last_number = 8 * (segments.size() - 1) + segments.back().size() - 1;
    for (size_t i = 0; i < segments.size(); ++i) {
      for (size_t j = 0; j < segments[i].size(); ++j)
        number_section(&segments[i][j], 8 * i + j, last_number, 8 * i + segments[i].size() - 1);
      Table table;
      table.kind = kind;
      // A segment of the day that follows midnight belongs to the first day while it is less than 24 hours away.
      const bool first_day = midnight(all.now) + (first + static_cast<int64_t>(i)) * SEGMENT < all.now + DAY;
      table.interval = first_day ? all.intervals.table[kind]
                       : actual  ? all.intervals.later_actual
                                 : all.intervals.later_other;
      table.variants.push_back({0, segments[i]});
      tables->push_back(std::move(table));
    }
  }
}

}  // namespace

void make_eits(const Description& all, const std::vector<Service>& services, uint16_t transport_stream_id,
               uint16_t original_network_id, bool actual, std::vector<Table>* tables) {
  Encoder encoder;
  for (const Service& service : services) {
    std::vector<Table> own;
    Eit_ids ids;
    ids.service_id = service.service_id;
    ids.transport_stream_id = transport_stream_id;
    ids.original_network_id = original_network_id;
    if (service.eit_pf)
      own.push_back(pf_table(all, ids, service, actual, &encoder));
    if (service.eit_schedule)
      add_schedule(all, ids, service, actual, &encoder, &own);
    for (Table& table : own) {
      table.pid = pid::EIT;
      table.service_id = service.service_id;
      table.transport_stream_id = transport_stream_id;
      for (Variant& variant : table.variants)
        variant.from = std::max(variant.from, service.appears);
      if (service.vanishes < all.duration)
        table.variants.push_back({service.vanishes, {}});
      tables->push_back(std::move(table));
    }
  }
}

}  // namespace softdvb_mux
