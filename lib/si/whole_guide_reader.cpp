// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "si/whole_guide_reader.h"

#include <algorithm>
#include <utility>

#include <dvbsi++/event_information_section.h>

#include "base/ids.h"
#include "base/log.h"
#include "base/monotonic.h"
#include "db/sdbl_parts.h"
#include "filter/section_filter_parts.h"
#include "si/descriptors.h"
#include "si/event_details.h"
#include "si/scan_rows.h"
#include "si/siparse_parts.h"

namespace {

// 0x40 to 0x7F, of which the guide's PID has no others than EIT.
constexpr unsigned char FIRST_TABLE = 0x40;
constexpr unsigned char TABLE_MASK = 0xC0;
constexpr int FILTER_TIMEOUT_S = 2;
constexpr int64_t TURN_MS = 50;      // of storing, between two looks for requests
constexpr int64_t BACKLOG_MS = 250;  // that sections may take to be read before something is stored between them
constexpr int64_t RETRY_MS = 1000;
constexpr int64_t RETRY_WITHOUT_ROOM_MS = 10000;
constexpr int RUNNING = 4;
constexpr size_t LOOP_HEADER = 12;

int now_epoch() {
  return sdbl::saturated(sdbl::clock_now());
}

int64_t digest_of(const Event_shown& shown) {
  const uint32_t also = shown.also != nullptr ? shown.also->digest : 0;
  return shown.event->digest ^ (also << 7 | also >> 25);
}

bool overlaps(const sdbl::Guide_row& row, const Event_heard& event) {
  return row.start == event.start ||
         (row.start < int64_t{event.start} + event.duration && event.start < int64_t{row.start} + row.duration);
}

bool starts_before(const sdbl::Guide_row& a, const sdbl::Guide_row& b) {
  return a.start < b.start;
}

sdbl::Guide_text text_of(const EIT_lang& text) {
  return {text.lang, text.ev_name, text.ev_desc, text.ext_desc, text.ext_list, text.items};
}

// What the present/following table leaves out, the schedule may have.
void complete_from(const sdbl::Guide_text& also, sdbl::Guide_text* text) {
  if (text->ev_name.empty())
    text->ev_name = also.ev_name;
  if (text->ev_desc.empty())
    text->ev_desc = also.ev_desc;
  if (text->ext_desc.empty() && text->ext_list.empty()) {
    text->ext_desc = also.ext_desc;
    text->ext_list = also.ext_list;
    text->items = also.items;
  }
}

}  // namespace

struct Whole_guide_reader::Reading {
  bool read = false;
  int ymd_bcd = 0;
  int hms_bcd = 0;
  int dur_bcd = 0;
  int run_status = 0;
  int free_ca = 0;
  std::string content, rating;
  std::vector<sdbl::Guide_text> texts;
  sdbl::Guide_details details;

  void complete_from(const Reading& also);
};

void Whole_guide_reader::Reading::complete_from(const Reading& also) {
  for (const sdbl::Guide_text& text : also.texts) {
    const auto same = std::find_if(texts.begin(), texts.end(), [&](const auto& own) { return own.lang == text.lang; });
    if (same == texts.end())
      texts.push_back(text);
    else
      ::complete_from(text, &*same);
  }
  const Event_found nothing;
  if (content == nothing.content)
    content = also.content;
  if (rating == nothing.rating)
    rating = also.rating;
  if (details.series_crid.empty())
    details.series_crid = also.details.series_crid;
  if (details.programme_crid.empty())
    details.programme_crid = also.details.programme_crid;
  if (details.components.empty())
    details.components = also.details.components;
  if (details.ratings.empty())
    details.ratings = also.details.ratings;
  if (details.genres.empty())
    details.genres = also.details.genres;
}

Whole_guide_reader::Whole_guide_reader(Siparse::Parts& parser, Section_filter& filter, Sdbl& db, int adapter,
                                       Input input, bool others)
    : parser_(parser),
      filter_(filter),
      events_(db.parts().guide_events),
      adapter_(adapter),
      input_(input),
      others_(others) {}

void Whole_guide_reader::begin(int freq) {
  guide_.clear();
  seen_once_ = false;
  load(freq);
  // The scan takes longer than some tables take to come round.
  open(freq);
  publish();
}

void Whole_guide_reader::load(int freq) {
  freq_ = freq;
  std::map<int, Channel> before = std::exchange(channels_, {});
  channel_of_.clear();
  for (const sdbl::Guide_channel& row : events_.channels({input_, freq})) {
    const Guide_key key{false, 0, 0, row.pat_prnr};
    const auto known = before.find(row.channel);
    Channel& channel = channels_[row.channel];
    if (known != before.end() && known->second.key == key && guide_.is_started())
      channel = std::move(known->second);
    channel.key = key;
    channel.pat_prnr = row.pat_prnr;
    channel_of_[key] = row.channel;
  }
}

void Whole_guide_reader::scan_ended(int freq, bool merged) {
  if (merged || freq != freq_) {
    load(freq);
    for (const Guide_key& key : guide_.keys())
      if (Channel* channel = channel_of(key))
        channel->waits = true;
    any_waits_ = true;
    retry_ms_ = 0;
  }
  open(freq);
  publish();
}

void Whole_guide_reader::catch_up() {
  if (!any_waits_)
    return;
  // Sections that wait to be read are lost when their buffer is full, and what they bring can be stored together.
  const int64_t now_ms = monotonic_ms();
  if (now_ms - looked_ms_ < BACKLOG_MS && filter_.parts().is_ready(pid::EIT))
    return;
  store_waiting();
  looked_ms_ = monotonic_ms();
}

void Whole_guide_reader::start(int freq) {
  open(freq);
}

void Whole_guide_reader::open(int freq) {
  if (!guide_.is_started())
    guide_.started(monotonic_ms());
  if (filter_.pid_tid_in_list(pid::EIT, FIRST_TABLE) == 0)
    (void)filter_.addfilter(pid::EIT, freq, &FIRST_TABLE, &TABLE_MASK, 1, filter_.parts().crc_flags(),
                            FILTER_TIMEOUT_S);
}

void Whole_guide_reader::announced(int service_id, bool present_following, bool schedule) {
  guide_.expect(service_id, present_following, schedule);
}

bool Whole_guide_reader::takes(unsigned table_id) const {
  return table_id >= table::EIT_PRESENT_FOLLOWING && table_id <= table::EIT_LAST;
}

void Whole_guide_reader::section(const uint8_t* bytes, size_t size, int) {
  if (is_other(bytes[0]) && !others_)
    return;
  if (!guide_.is_started())
    guide_.started(monotonic_ms());
  Guide_key key;
  const Whole_guide::Take take = guide_.take(bytes, size, monotonic_ms(), &key);
  if (take == Whole_guide::Take::IGNORED)
    return;
  std::vector<Guide_key> shrunk;
  const bool news = guide_.take_news(&shrunk);
  if (take == Whole_guide::Take::NEW || news) {
    shrunk.push_back(key);
    for (const Guide_key& changed : shrunk) {
      Channel* channel = channel_of(changed);
      const bool complete = guide_.progress(changed).complete;
      if (channel == nullptr ||
          (take != Whole_guide::Take::NEW && changed == key && shrunk.size() == 1 && channel->complete == complete))
        continue;
      channel->complete = complete;
      channel->waits = any_waits_ = true;
    }
    seen_once_ = seen_once_ || guide_.absent_from_ms() != 0;
    publish();
  }
}

Whole_guide_reader::Channel* Whole_guide_reader::channel_of(const Guide_key& key) {
  const auto known = channel_of_.find(key);
  int channel = known != channel_of_.end() ? known->second : 0;
  if (known == channel_of_.end() && key.other) {
    channel = events_.channel_of(key.orig_network_id, key.ts_id, key.service_id);
    // The actual multiplex's own tables win.
    const auto actual = channels_.find(channel);
    if (actual != channels_.end() && !actual->second.key.other)
      channel = 0;
    channel_of_[key] = channel;
    if (channel != 0) {
      channels_[channel].key = key;
      channels_[channel].pat_prnr = key.service_id;
    }
  }
  const auto state = channels_.find(channel);
  return state == channels_.end() ? nullptr : &state->second;
}

void Whole_guide_reader::store_waiting() {
  const int64_t now_ms = monotonic_ms();
  if (now_ms < retry_ms_)
    return;
  any_waits_ = false;
  for (auto& [channel, state] : channels_) {
    if (!state.waits)
      continue;
    // A host that scans one multiplex after the other does not wait for the guide of each.
    if (monotonic_ms() - now_ms >= TURN_MS) {
      any_waits_ = true;
      break;
    }
    store(channel, state);
  }
  publish();
}

bool Whole_guide_reader::load_rows(int channel, Channel& state) {
  std::vector<sdbl::Guide_row> rows;
  if (!events_.rows(channel, &rows))
    return false;
  state.own.clear();
  if (state.key.other) {
    const auto others = std::stable_partition(rows.begin(), rows.end(),
                                              [](const sdbl::Guide_row& row) { return !is_other(row.table_id); });
    state.own.assign(rows.begin(), others);
    rows.erase(rows.begin(), others);
  }
  const std::vector<sdbl::Guide_row> before = std::exchange(state.rows, std::move(rows));
  for (sdbl::Guide_row& row : state.rows)
    row.confirmed = std::any_of(before.begin(), before.end(),
                                [&](const sdbl::Guide_row& old) { return old.confirmed && old.entry == row.entry; });
  state.loaded = true;
  return true;
}

// What is not stored now is tried again after a while.
void Whole_guide_reader::put_off(Channel& state, int64_t ms) {
  state.loaded = false;
  state.waits = any_waits_ = true;
  retry_ms_ = monotonic_ms() + ms;
}

void Whole_guide_reader::store(int channel, Channel& state) {
  if (!state.loaded && !load_rows(channel, state)) {
    put_off(state, RETRY_MS);
    return;
  }
  const std::vector<Event_heard> heard = guide_.events(state.key);
  std::vector<Event_shown> shown = visible_events(heard);
  // What a multiplex says of its own services counts, also when it was heard another day.
  std::erase_if(shown, [&](const Event_shown& one) {
    return std::any_of(state.own.begin(), state.own.end(),
                       [&](const sdbl::Guide_row& row) { return overlaps(row, *one.event); });
  });
  std::vector<sdbl::Guide_wish> wishes;
  wishes.reserve(shown.size());
  for (const Event_shown& one : shown)
    wishes.push_back({one.event->event_id, one.event->start, one.event->duration, digest_of(one)});
  const Whole_guide::Progress progress = guide_.progress(state.key);
  const bool all = progress.complete && !progress.given_up;
  const sdbl::Guide_plan plan = plan_guide(state.rows, wishes, now_epoch(), all);

  std::vector<Reading> readings(shown.size());
  state.waits = !read(state.key, shown, plan, &readings);
  std::vector<sdbl::Guide_write> writes;
  std::vector<size_t> written;  // the wish of each
  const auto row_of = [&](size_t i) {
    return plan.row_of[i] < 0 ? nullptr : &state.rows[static_cast<size_t>(plan.row_of[i])];
  };
  for (size_t i = 0; i < shown.size(); ++i)
    if (plan.to_write[i] && readings[i].read)
      writes.push_back(write_of(channel, state, shown[i], readings[i], row_of(i), wishes[i].digest));
  std::vector<int> removed;
  for (const size_t row : plan.removed)
    removed.push_back(state.rows[row].entry);

  if (!removed.empty() || !writes.empty()) {
    const auto applied = events_.apply(removed, &writes);
    if (applied != sdbl::Guide_events::Applied::DONE) {
      const bool no_room = applied == sdbl::Guide_events::Applied::NO_ROOM;
      put_off(state, no_room ? RETRY_WITHOUT_ROOM_MS : RETRY_MS);
      return;
    }
  }

  std::vector<Guide_change> changes;
  for (const size_t row : plan.removed)
    changes.push_back(
        {adapter_, channel, state.rows[row].ev_id, state.rows[row].start, GUIDE_REMOVED, state.rows[row].entry});
  std::vector<sdbl::Guide_row> rows;
  std::vector<bool> gone(state.rows.size(), false);
  for (const size_t row : plan.removed)
    gone[row] = true;
  std::map<int, const sdbl::Guide_write*> by_start;
  for (const sdbl::Guide_write& write : writes)
    by_start[write.start] = &write;
  for (size_t i = 0; i < shown.size(); ++i) {
    const sdbl::Guide_row* old = row_of(i);
    if (old != nullptr)
      gone[static_cast<size_t>(plan.row_of[i])] = true;
    const auto write = by_start.find(wishes[i].start);
    if (write == by_start.end()) {
      if (old != nullptr)
        rows.push_back(*old);
    } else {
      const sdbl::Guide_write& w = *write->second;
      rows.push_back(
          {w.entry, w.ev_id, w.start, w.duration, w.digest, true, w.run_status, w.running_since, w.details.table_id});
      const int32_t kind = old == nullptr ? GUIDE_ADDED : old->start != w.start ? GUIDE_MOVED : GUIDE_CHANGED;
      changes.push_back({adapter_, channel, w.ev_id, w.start, kind, w.entry});
      if (old == nullptr)
        parser_.count_stored_event();
    }
    if (!rows.empty())
      rows.back().confirmed = true;
  }
  for (size_t i = 0; i < state.rows.size(); ++i)
    if (!gone[i])
      rows.push_back(state.rows[i]);
  std::sort(rows.begin(), rows.end(), starts_before);
  state.rows = std::move(rows);
  if (!changes.empty())
    parser_.tell(changes);
}

// Reads what is to be written. False when a section is not held, which is read again when it comes.
bool Whole_guide_reader::read(const Guide_key& key, const std::vector<Event_shown>& shown, const sdbl::Guide_plan& plan,
                              std::vector<Reading>* readings) {
  std::map<std::pair<int, int>, std::vector<Wanted>> wanted;  // by table and section
  std::vector<Reading> also(shown.size());
  const auto want = [&](const Event_heard* event, Reading* into) {
    if (event != nullptr)
      wanted[{event->table_id, event->section}].push_back({event, into});
  };
  for (size_t i = 0; i < shown.size(); ++i) {
    if (!plan.to_write[i])
      continue;
    want(shown[i].event, &(*readings)[i]);
    want(shown[i].also, &also[i]);
  }
  for (const auto& [place, events] : wanted)
    read_section(key, events);
  bool all = true;
  for (size_t i = 0; i < shown.size(); ++i) {
    if (!plan.to_write[i])
      continue;
    all = all && (*readings)[i].read;
    if (shown[i].also != nullptr)
      (*readings)[i].complete_from(also[i]);
  }
  return all;
}

void Whole_guide_reader::read_section(const Guide_key& key, const std::vector<Wanted>& wanted) {
  const Event_heard& first = *wanted.front().event;
  std::span<const uint8_t> bytes = guide_.section(key, first.table_id, first.section);
  if (bytes.empty()) {
    guide_.read_again(key, first.table_id, first.section);
    return;
  }
  const Whole_guide::Table_ids ids = guide_.table_ids(key, first.table_id);
  Scan_rows rows(parser_.database(), parser_.place_on(freq_));
  parser_.read_guide_section(bytes.data(), [&](const EventInformationSection& section) {
    for (const Wanted& one : wanted) {
      if (static_cast<size_t>(one.event->index) >= section.getEvents()->size())
        continue;
      const Event& event = **std::next(section.getEvents()->begin(), one.event->index);
      Reading& reading = *one.into;
      Found found;
      Event_found& event_found = found.event.emplace();
      Site site{loop::EVENT, CONTEXT_EVENT, rows, parser_.text(), found};
      for (const Descriptor* descriptor : *event.getDescriptors())
        parse_descriptor(*descriptor, site);
      reading.read = true;
      reading.ymd_bcd = static_cast<int>(Siparse::mjd_to_bcd(event.getStartTimeMjd()));
      reading.hms_bcd = static_cast<int>(event.getStartTimeBcd());
      reading.dur_bcd = static_cast<int>(event.getDuration());
      reading.run_status = event.getRunningStatus();
      reading.free_ca = event.getFreeCaMode();
      reading.content = event_found.content;
      reading.rating = event_found.rating;
      for (const EIT_lang* text : event_found.texts.list())
        reading.texts.push_back(text_of(*text));
      reading.details.table_id = first.table_id;
      reading.details.version = bytes[5] >> 1 & 0x1F;
      reading.details.orig_network_id = ids.orig_network_id;
      reading.details.ts_id = ids.ts_id;
    }
  });
  // The details stand in the bytes alone.
  size_t at = 14;
  for (int index = 0; at + LOOP_HEADER + 4 <= bytes.size(); ++index) {
    const size_t length = static_cast<size_t>((bytes[at + 10] & 0x0F) << 8 | bytes[at + 11]);
    if (length > bytes.size() - 4 - at - LOOP_HEADER)
      break;
    for (const Wanted& one : wanted)
      if (one.event->index == index)
        read_event_details(bytes.subspan(at + LOOP_HEADER, length), parser_.text(), &one.into->details);
    at += LOOP_HEADER + length;
  }
}

sdbl::Guide_write Whole_guide_reader::write_of(int channel, const Channel& state, const Event_shown& shown,
                                               const Reading& reading, const sdbl::Guide_row* row,
                                               int64_t digest) const {
  sdbl::Guide_write write;
  write.channel = channel;
  write.pat_prnr = state.pat_prnr;
  write.ev_id = shown.event->event_id;
  write.start = shown.event->start;
  write.duration = shown.event->duration;
  write.digest = digest;
  write.ymd_bcd = reading.ymd_bcd;
  write.hms_bcd = reading.hms_bcd;
  write.dur_bcd = reading.dur_bcd;
  write.run_status = reading.run_status;
  write.free_ca = reading.free_ca;
  write.content = reading.content;
  write.rating = reading.rating;
  write.texts = reading.texts;
  write.details = reading.details;
  const bool same_event = row != nullptr && row->ev_id == write.ev_id;
  if (row != nullptr) {
    write.entry = row->entry;
    write.moves = row->start != write.start;
    write.keeps_texts = same_event;
  }
  if (same_event && row->running_since != 0)
    write.running_since = row->running_since;
  else if (write.run_status == RUNNING)
    write.running_since = now_epoch();
  return write;
}

void Whole_guide_reader::publish() {
  std::vector<EIT_progress> all;
  std::vector<bool> absent;
  std::vector<bool> awaited;
  const bool begun = guide_.is_started();
  for (const auto& [channel, state] : channels_) {
    const Whole_guide::Progress p = guide_.progress(state.key);
    EIT_progress entry{state.pat_prnr,
                       channel,
                       0,
                       p.last_table,
                       !p.heard,
                       begun && p.complete && !state.waits,
                       static_cast<int32_t>(state.rows.size() + state.own.size())};
    entry.whole = true;
    entry.given_up = p.given_up;
    entry.table = !begun ? 0 : p.heard ? p.table : table::EIT_PRESENT_FOLLOWING;
    if (entry.done)
      entry.table = std::max(entry.table, entry.last_table);
    entry.sections = p.sections;
    entry.sections_of = p.sections_of;
    entry.complete_ms = sdbl::saturated(p.complete_ms);
    entry.carousel_ms = sdbl::saturated(p.carousel_ms);
    entry.slowest_table = p.slowest_table;
    all.push_back(entry);
    absent.push_back(p.absent && !state.waits);
    awaited.push_back(p.announced);
  }
  const std::lock_guard<Mutex> lock(lock_);
  published_ = std::move(all);
  absent_ = std::move(absent);
  awaited_ = std::move(awaited);
  absent_from_ms_ = guide_.absent_from_ms();
}

// Only time tells that something does not come, and nothing may come that would say so: it is looked at here.
void Whole_guide_reader::progress(std::vector<EIT_progress>* progress) const {
  const std::lock_guard<Mutex> lock(lock_);
  *progress = published_;
  if (absent_from_ms_ == 0 || monotonic_ms() < absent_from_ms_)
    return;
  for (size_t i = 0; i < progress->size(); ++i) {
    EIT_progress& entry = (*progress)[i];
    if (entry.done || !absent_[i])
      continue;
    entry.done = true;
    entry.given_up = entry.given_up || awaited_[i];
    entry.table = std::max(entry.table, entry.last_table);
  }
}
