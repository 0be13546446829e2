// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// EIT sections, as far as the guide's extent and times go (EN 300 468, 5.2.4).
#include "si/whole_guide.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "base/ids.h"
#include "base/log.h"
#include "filter/section_filter.h"
#include "si/section_guard.h"

namespace {

constexpr size_t HEADER = 14;
constexpr size_t CRC = 4;
constexpr size_t EVENT_HEADER = 12;
constexpr int SEGMENT = 8;  // sections
constexpr int MJD_OF_1970 = 40587;
constexpr int DAY_S = 24 * 60 * 60;
constexpr unsigned UNDEFINED_BCD = 0xFFFFFF;
constexpr unsigned UNDEFINED_MJD = 0xFFFF;
// How often everything has to have come until what may be the past, or a gap, is waited for no more.
constexpr int ARRIVALS_WITHOUT_PAST = 2;
constexpr int ARRIVALS_WITH_GAPS = 3;
constexpr size_t SECTION_COST = 160;

unsigned u16(const uint8_t* at) {
  return static_cast<unsigned>(at[0] << 8 | at[1]);
}

unsigned u24(const uint8_t* at) {
  return u16(at) << 8 | at[2];
}

uint32_t u32(const uint8_t* at) {
  return static_cast<uint32_t>(u16(at)) << 16 | u16(at + 2);
}

bool is_present_following(int table_id) {
  return table_id == table::EIT_PRESENT_FOLLOWING || table_id == table::EIT_PRESENT_FOLLOWING_OTHER;
}

int first_schedule(bool other) {
  return other ? table::EIT_SCHEDULE_OTHER_FIRST : table::EIT_SCHEDULE_FIRST;
}

bool digits_only(unsigned bcd) {
  for (; bcd != 0; bcd >>= 4)
    if ((bcd & 0xF) > 9)
      return false;
  return true;
}

int seconds_of(unsigned bcd) {
  const auto two = [](unsigned digits) { return static_cast<int>((digits >> 4 & 0xF) * 10 + (digits & 0xF)); };
  return two(bcd >> 16) * 3600 + two(bcd >> 8) * 60 + two(bcd);
}

// False for an event without a time, which is what reference services have, and for a time that cannot be.
bool start_of(unsigned mjd, unsigned bcd, int* start) {
  if ((mjd == UNDEFINED_MJD && bcd == UNDEFINED_BCD) || !digits_only(bcd) || seconds_of(bcd) >= DAY_S)
    return false;
  const int64_t days = static_cast<int64_t>(mjd) - MJD_OF_1970;
  const int64_t seconds = days * DAY_S + seconds_of(bcd);
  *start = static_cast<int>(seconds);
  return seconds >= 0 && seconds <= std::numeric_limits<int32_t>::max();
}

// The first event that does not fit ends the list, as it does for the parser.
std::vector<Event_heard> events_of(const uint8_t* bytes, size_t size, int table_id) {
  std::vector<Event_heard> events;
  int index = 0;
  const size_t end = size - CRC;
  for (size_t at = HEADER; at + EVENT_HEADER <= end; ++index) {
    const uint8_t* event = bytes + at;
    const size_t length = EVENT_HEADER + (u16(event + 10) & 0x0FFF);
    if (length > end - at)
      break;
    at += length;
    int start = 0;
    if (!start_of(u16(event + 2), u24(event + 4), &start))
      continue;
    const unsigned duration = u24(event + 7);
    events.push_back({is_present_following(table_id), false, table_id, bytes[6], index, static_cast<int>(u16(event)),
                      start, digits_only(duration) ? seconds_of(duration) : 0,
                      Section_filter::crc32_be(0xFFFFFFFF, event, static_cast<unsigned>(length))});
  }
  return events;
}

}  // namespace

void Whole_guide::clear() {
  services_.clear();
  shrunk_.clear();
  repeated_.reset();
  used_ = 0;
  incomplete_ = 0;
  slowest_ms_ = 0;
  begun_ = false;
  announces_ = false;
  news_ = false;
}

void Whole_guide::started(int64_t now_ms) {
  begun_ = true;
  begun_ms_ = now_ms;
  announced_ms_ = now_ms;
  rest_complete_ms_ = now_ms;
}

void Whole_guide::expect(int service_id, bool present_following, bool schedule) {
  Service& service = services_[{false, 0, 0, service_id}];
  const bool is_new =
      !service.announced || service.present_following != present_following || service.schedule != schedule;
  announces_ = announces_ || is_new;
  news_ = news_ || is_new;
  service.announced = true;
  service.present_following = present_following;
  service.schedule = schedule;
}

size_t Whole_guide::cost(const Section& section) {
  return SECTION_COST + section.bytes.size() + section.events.size() * sizeof(Event_heard);
}

Whole_guide::Take Whole_guide::take(const uint8_t* bytes, size_t size, int64_t now_ms, Guide_key* key) {
  if (size < HEADER + CRC || (bytes[5] & 1) == 0)
    return Take::IGNORED;
  const int table_id = bytes[0];
  const int number = bytes[6];
  const int last_section = bytes[7];
  if (table_id < table::EIT_PRESENT_FOLLOWING || table_id > table::EIT_LAST || number > last_section)
    return Take::IGNORED;
  const int ts_id = static_cast<int>(u16(bytes + 8));
  const int orig_network_id = static_cast<int>(u16(bytes + 10));
  *key = {is_other(table_id), 0, 0, static_cast<int>(u16(bytes + 3))};
  if (key->other) {
    key->ts_id = ts_id;
    key->orig_network_id = orig_network_id;
  }

  const int version = bytes[5] >> 1 & 0x1F;
  const uint32_t crc = u32(bytes + size - CRC);
  const auto known_service = services_.find(*key);
  if (known_service != services_.end()) {
    const auto known_table = known_service->second.tables.find(table_id);
    if (known_table != known_service->second.tables.end()) {
      const auto known = known_table->second.sections.find(number);
      if (known != known_table->second.sections.end() && known->second.read && known->second.version == version &&
          known->second.crc == crc) {
        repeat(known_service->second, known_table->second, table_id, known->second, *key, now_ms);
        return Take::REPEATED;
      }
    }
  }

  if (const char* problem = section_guard::section_problem(bytes, size)) {
    KLOG(VERB_TRACE, "Section dropped: %s\n", problem);
    return Take::IGNORED;
  }
  Section section;
  section.version = version;
  section.crc = crc;
  section.last_ms = now_ms;
  section.events = events_of(bytes, size, table_id);
  const size_t slim = cost(section);
  if (used_ + slim + size <= most_bytes_)
    section.bytes.assign(bytes, bytes + size);
  else if (used_ + slim > most_bytes_ + most_bytes_ / 2)
    return Take::IGNORED;

  Service& service = services_[*key];
  const bool is_new_table = !service.tables.contains(table_id);
  Table& table = service.tables[table_id];
  if (is_new_table)
    ++incomplete_;
  if (table.ids.version != version)
    for (auto& [other_number, held] : table.sections)
      held.outdated = true;
  table.ids = {version, orig_network_id, ts_id};
  table.last_section = last_section;
  const auto old = table.sections.find(number);
  if (old != table.sections.end())
    drop(table, old);
  used_ += cost(section);
  table.sections.emplace(number, std::move(section));
  drop_what_is_no_more(service, table_id, number, bytes[12], bytes[13]);
  judge(service, service.tables[table_id], table_id, *key);
  if (is_present_following(table_id))
    judge_again(first_schedule(key->other), key, now_ms);
  note_complete(service, *key, now_ms);
  return Take::NEW;
}

void Whole_guide::drop(Table& table, std::map<int, Section>::iterator section) {
  used_ -= cost(section->second);
  table.sections.erase(section);
}

void Whole_guide::drop_what_is_no_more(Service& service, int table_id, int number, int segment_last, int last_table) {
  Table& table = service.tables[table_id];
  const int first = number / SEGMENT * SEGMENT;
  // A number that cannot be: as much is known as the section itself says.
  if (segment_last < number || segment_last >= first + SEGMENT)
    segment_last = number;
  if (!is_present_following(table_id))
    table.segment_last[static_cast<size_t>(number / SEGMENT)] = static_cast<uint8_t>(segment_last);
  for (auto at = table.sections.begin(); at != table.sections.end();) {
    const auto held = at++;
    const bool behind = !is_present_following(table_id) && held->first > segment_last && held->first < first + SEGMENT;
    if (held->first > table.last_section || behind)
      drop(table, held);
  }
  if (is_present_following(table_id) || last_table < table_id || is_other(last_table) != is_other(table_id))
    return;
  announces_ = announces_ || last_table > std::max(service.last_table, table_id);
  service.last_table = last_table;
  for (auto at = service.tables.upper_bound(last_table); at != service.tables.end();) {
    const auto gone = at++;
    if (is_present_following(gone->first))
      continue;
    while (!gone->second.sections.empty())
      drop(gone->second, gone->second.sections.begin());
    incomplete_ -= gone->second.complete ? 0 : 1;
    service.tables.erase(gone);
  }
}

void Whole_guide::repeat(Service& service, Table& table, int table_id, Section& section, const Guide_key& key,
                         int64_t now_ms) {
  const int64_t pause_ms = now_ms - std::exchange(section.last_ms, now_ms);
  if (pause_ms > service.carousel_ms) {
    service.carousel_ms = pause_ms;
    service.slowest_table = table_id;
    slowest_ms_ = std::max(slowest_ms_, pause_ms);
    news_ = true;
  }
  ++section.arrivals;
  const bool was_outdated = std::exchange(section.outdated, false);
  if (was_outdated)
    shrunk_.push_back(key);  // others may be hidden by it now
  const bool is_first = !repeated_[static_cast<size_t>(table_id)];
  repeated_.set(static_cast<size_t>(table_id));
  if (!table.complete || was_outdated)
    judge(service, table, table_id, key);
  if (is_first)
    judge_again(table_id, nullptr, now_ms);
  if (was_outdated && is_present_following(table_id))
    judge_again(first_schedule(key.other), &key, now_ms);
  note_complete(service, key, now_ms);
}

// The latest start of present/following; with one event alone its end. What begins later is to come.
int64_t Whole_guide::past_until(const Service& service, bool other) {
  int64_t until = std::numeric_limits<int64_t>::min();
  const auto table = service.tables.find(other ? table::EIT_PRESENT_FOLLOWING_OTHER : table::EIT_PRESENT_FOLLOWING);
  if (table == service.tables.end())
    return until;
  int events = 0;
  int64_t end = until;
  for (const auto& [number, section] : table->second.sections)
    for (const Event_heard& event : section.events) {
      if (section.outdated)
        continue;
      ++events;
      until = std::max(until, int64_t{event.start});
      end = int64_t{event.start} + event.duration;
    }
  return events == 1 ? end : until;
}

// Those that are not complete, when something else has come that may make them so: of one service or of all.
void Whole_guide::judge_again(int table_id, const Guide_key* only, int64_t now_ms) {
  for (auto& [key, service] : services_) {
    const auto table = service.tables.find(table_id);
    if ((only != nullptr && key != *only) || table == service.tables.end() || table->second.complete)
      continue;
    judge(service, table->second, table_id, key);
    if (!table->second.complete)
      continue;
    if (only == nullptr)
      shrunk_.push_back(key);  // rows that nobody has confirmed go
    note_complete(service, key, now_ms);
  }
}

// Counts what is here of a table, and finds out whether more can be expected.
void Whole_guide::judge(const Service& service, Table& table, int table_id, const Guide_key& key) {
  const bool may_lack_past = table_id == first_schedule(key.other);
  const int64_t until = may_lack_past ? past_until(service, key.other) : 0;
  int least_arrivals = std::numeric_limits<int>::max();
  std::array<int, 32> here{};
  int now_segment = -1;  // in which something begins that is not of the future
  table.seen = 0;
  for (const auto& [number, section] : table.sections) {
    if (section.outdated)
      continue;
    ++here[static_cast<size_t>(number / SEGMENT)];
    ++table.seen;
    least_arrivals = std::min(least_arrivals, section.arrivals);
    if (std::any_of(section.events.begin(), section.events.end(),
                    [=](const auto& event) { return event.start <= until; }))
      now_segment = number / SEGMENT;
  }
  bool only_unsent_missing = may_lack_past;  // before the first segment
  bool only_past_missing = may_lack_past && now_segment >= 0;
  if (is_present_following(table_id)) {
    table.of = table.last_section + 1;
  } else {
    table.of = 0;
    bool begun = false;
    for (int segment = 0; segment <= table.last_section / SEGMENT; ++segment) {
      const auto i = static_cast<size_t>(segment);
      const int of = here[i] == 0 ? 1 : table.segment_last[i] - segment * SEGMENT + 1;
      table.of += of;
      begun = begun || here[i] != 0;
      if (here[i] >= of)
        continue;
      only_unsent_missing = only_unsent_missing && !begun;
      only_past_missing = only_past_missing && segment < now_segment;
    }
  }
  const bool whole = table.seen >= table.of;
  const bool all_but_past = table.seen > 0 && ((only_past_missing && repeated_[static_cast<size_t>(table_id)]) ||
                                               (only_unsent_missing && least_arrivals >= ARRIVALS_WITHOUT_PAST));
  const bool given_up =
      !whole && !all_but_past && table.seen > 0 && !only_unsent_missing && least_arrivals >= ARRIVALS_WITH_GAPS;
  const bool complete = whole || given_up || all_but_past;
  if (complete) {
    for (auto at = table.sections.begin(); at != table.sections.end();) {
      const auto held = at++;
      if (!held->second.outdated)
        continue;
      drop(table, held);
      if (shrunk_.empty() || shrunk_.back() != key)
        shrunk_.push_back(key);
    }
  }
  if (complete != table.complete) {
    incomplete_ += complete ? -1 : 1;
    news_ = true;
  }
  table.complete = complete;
  table.given_up = given_up;
}

bool Whole_guide::has_absent(const Service& service, bool other, bool* is_announced) const {
  const auto has = [&](int table_id) { return service.tables.contains(table_id); };
  const bool wants_now = !has(other ? table::EIT_PRESENT_FOLLOWING_OTHER : table::EIT_PRESENT_FOLLOWING);
  const bool wants_schedule = service.last_table == 0;
  bool has_gap = false;
  for (int table_id = first_schedule(other); table_id <= service.last_table; ++table_id)
    has_gap = has_gap || !has(table_id);
  *is_announced = has_gap || (service.announced &&
                              ((wants_now && service.present_following) || (wants_schedule && service.schedule)));
  // Of who says nothing both may be sent; of other multiplexes what comes comes.
  const bool possible = !service.announced && !other && (wants_now || wants_schedule);
  return *is_announced || possible;
}

void Whole_guide::note_complete(Service& service, const Guide_key& key, int64_t now_ms) {
  if (std::exchange(announces_, false))
    announced_ms_ = now_ms;
  if (incomplete_ != 0)
    rest_complete_ms_ = -1;
  else if (rest_complete_ms_ < 0)
    rest_complete_ms_ = now_ms;
  bool is_announced = false;
  if (service.complete_ms != 0 || has_absent(service, key.other, &is_announced))
    return;
  const bool all = std::all_of(service.tables.begin(), service.tables.end(),
                               [](const auto& table) { return table.second.complete && !table.second.given_up; });
  if (all) {
    service.complete_ms = std::max<int64_t>(now_ms - begun_ms_, 1);
    news_ = true;
  }
}

bool Whole_guide::take_news(std::vector<Guide_key>* shrunk) {
  *shrunk = std::exchange(shrunk_, {});
  return std::exchange(news_, false) || !shrunk->empty();
}

std::vector<Event_heard> Whole_guide::events(const Guide_key& key) const {
  std::vector<Event_heard> all;
  const auto service = services_.find(key);
  if (service == services_.end())
    return all;
  for (const auto& [table_id, table] : service->second.tables)
    for (const auto& [number, section] : table.sections)
      for (const Event_heard& event : section.events) {
        all.push_back(event);
        all.back().outdated = section.outdated;
      }
  return all;
}

namespace {

template <typename Map>
auto* find_in(Map& map, const typename std::remove_const_t<Map>::key_type& key) {
  const auto at = map.find(key);
  return at == map.end() ? nullptr : &at->second;
}

}  // namespace

std::span<const uint8_t> Whole_guide::section(const Guide_key& key, int table_id, int number) const {
  const Service* service = find_in(services_, key);
  const Table* table = service != nullptr ? find_in(service->tables, table_id) : nullptr;
  const Section* section = table != nullptr ? find_in(table->sections, number) : nullptr;
  return section != nullptr ? std::span<const uint8_t>(section->bytes) : std::span<const uint8_t>();
}

void Whole_guide::read_again(const Guide_key& key, int table_id, int number) {
  Service* service = find_in(services_, key);
  Table* table = service != nullptr ? find_in(service->tables, table_id) : nullptr;
  if (Section* section = table != nullptr ? find_in(table->sections, number) : nullptr)
    section->read = false;
}

Whole_guide::Table_ids Whole_guide::table_ids(const Guide_key& key, int table_id) const {
  const Service* service = find_in(services_, key);
  const Table* table = service != nullptr ? find_in(service->tables, table_id) : nullptr;
  return table != nullptr ? table->ids : Table_ids{};
}

std::vector<Guide_key> Whole_guide::keys() const {
  std::vector<Guide_key> keys;
  for (const auto& [key, service] : services_)
    keys.push_back(key);
  return keys;
}

Whole_guide::Progress Whole_guide::progress(const Guide_key& key) const {
  Progress progress;
  const auto found = services_.find(key);
  if (found == services_.end()) {
    progress.absent = true;
    return progress;
  }
  const Service& service = found->second;
  progress.heard = !service.tables.empty();
  progress.absent = has_absent(service, key.other, &progress.announced);
  progress.complete = !progress.absent;
  for (const auto& [table_id, table] : service.tables) {
    progress.complete = progress.complete && table.complete;
    progress.given_up = progress.given_up || table.given_up;
    progress.sections += table.seen;
    progress.sections_of += table.of;
    progress.table = std::max(progress.table, table_id);
  }
  for (int table_id = first_schedule(key.other); table_id <= service.last_table; ++table_id)
    progress.sections_of += service.tables.contains(table_id) ? 0 : 1;
  progress.last_table = service.last_table;
  progress.complete_ms = service.complete_ms;
  progress.carousel_ms = service.carousel_ms;
  progress.slowest_table = service.slowest_table;
  return progress;
}

int64_t Whole_guide::absent_from_ms() const {
  if (!begun_ || rest_complete_ms_ < 0)
    return 0;
  return std::max(rest_complete_ms_, announced_ms_ + std::max(ABSENT_MS, slowest_ms_ + slowest_ms_ / 2));
}
