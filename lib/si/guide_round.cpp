// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "si/guide_round.h"

#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <utility>

#include "base/ids.h"
#include "base/log.h"
#include "base/polled_timer.h"
#include "db/epg_cache.h"
#include "db/guide_services.h"
#include "db/sdbl_parts.h"

namespace {

constexpr int FIRST_WAIT_S = 10;  // after the list was made, or begun again
constexpr int TABLE_WAIT_S = 180;
constexpr int ARRIVALS_OF_A_FINISHED_TABLE = 2;
constexpr int MOST_REPEATS = 3;
constexpr int64_t SECOND_NS = 1000000000;

int64_t nanoseconds(const timespec& time) {
  return time.tv_sec * SECOND_NS + time.tv_nsec;
}

int64_t monotonic_ns() {
  timespec now{};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);  // cannot fail for this clock
  return nanoseconds(now);
}

timer_t create_timer() {
  const timer_t timer = polled_timer::create();
  if (timer == polled_timer::none())
    KLOG(VERB_ERROR, "ERROR: timer_create: %s\n", std::strerror(errno));
  return timer;
}

// A timer that could not be made cannot be armed, and has run out when it is read.
void arm(const SQL_cache& service, int seconds) {
  (void)polled_timer::arm(service.timer, seconds, seconds);
}

}  // namespace

Guide_round::Guide_round(Sdbl& db, int adapter, Input input) : db_(db), adapter_(adapter), input_(input) {}

Guide_round::~Guide_round() {
  clear();
}

void Guide_round::clear() {
  for (SQL_cache& service : services_) {
    polled_timer::remove(service.timer);
    for (const EPG_cache* event : service.epg)
      delete event;
  }
  services_.clear();
}

void Guide_round::load(int freq, SCAN_STATE stage) {
  clear();
  progress_.clear();
  for (sdbl::Guide_service& row : sdbl::guide_services(db_, adapter_, Multiplex{input_, freq}, stage)) {
    services_.push_back(
        {row.pat_prnr, row.pmt_pid, -1, row.channel, create_timer(), true, false, 0, std::move(row.epg)});
    const SQL_cache& service = services_.back();
    arm(service, FIRST_WAIT_S);
    progress_.push_back({service.pat_prnr, service.channel, 0, 0, true, false, static_cast<int>(service.epg.size())});
  }
  timers_due_ns_ = 0;
  ended_ = false;
  publish();
}

void Guide_round::begin_again() {
  for (SQL_cache& service : services_) {
    service.active = true;
    service.scan_mark = -1;
    service.done = false;
    service.count = 0;
    arm(service, FIRST_WAIT_S);
  }
  timers_due_ns_ = 0;
  publish();
}

SQL_cache* Guide_round::service(int programme) {
  const auto known = std::find_if(services_.begin(), services_.end(),
                                  [=](const SQL_cache& service) { return service.pat_prnr == programme; });
  return known == services_.end() ? nullptr : &*known;
}

void Guide_round::start() {
  seen_once_ = false;
  enter(table::EIT_PRESENT_FOLLOWING);
}

void Guide_round::close_table() {
  for (SQL_cache& service : services_) {
    service.active = true;
    service.done = false;
    service.count = 0;
    arm(service, TABLE_WAIT_S);
  }
  timers_due_ns_ = 0;
  if (table_ == table::EIT_PRESENT_FOLLOWING)
    seen_once_ = true;
}

void Guide_round::sections_lost() {
  const bool waits_anew = ++repeats_ <= MOST_REPEATS;
  for (SQL_cache& service : services_) {
    if (service.done && service.count < ARRIVALS_OF_A_FINISHED_TABLE)
      continue;
    service.done = false;
    service.count = 0;
    if (waits_anew)
      arm(service, table_ == table::EIT_PRESENT_FOLLOWING ? FIRST_WAIT_S : TABLE_WAIT_S);
  }
  timers_due_ns_ = 0;
  changed_ = true;
}

void Guide_round::enter(int table_id) {
  repeats_ = 0;
  ended_ = table_id == 0;
  if (!ended_)
    table_ = table_id;
  for (EIT_progress& service : progress_)
    service.table = table_;
  publish();
}

std::string Guide_round::name_of(int service_id, int freq) {
  return *db_.parts().channel_list.get_serv_name({input_, freq}, service_id);
}

void Guide_round::give_up(SQL_cache& service, int service_id, int table_id, int freq) {
  // Deliberate: printed at low verbosity only, and with the name of the section's service.
  if (verbosity_kelvo < VERB_INFO)
    KLOG_ALWAYS("Kill scan for service %d , %s table %x, ttl %d\n", service.pat_prnr, name_of(service_id, freq).c_str(),
                static_cast<unsigned>(table_id),
                table_id == table::EIT_PRESENT_FOLLOWING ? FIRST_WAIT_S : TABLE_WAIT_S);
  db_.flush();
  service.done = true;
  service.active = false;
  changed_ = true;
}

void Guide_round::count_last_section(SQL_cache& service, int table_id, int freq) {
  ++service.count;
  if (table_id != table::EIT_PRESENT_FOLLOWING)
    db_.flush();
  if (service.count != ARRIVALS_OF_A_FINISHED_TABLE)
    return;
  KLOG(VERB_WARNING, "****-  Finished table %x scan %d %s\n", static_cast<unsigned>(table_id), service.pat_prnr,
       name_of(service.pat_prnr, freq).c_str());
  service.done = true;
  changed_ = true;
}

SQL_cache* Guide_round::event_arrived(int service_id, int table_id, int freq, bool last_section, bool* all_done) {
  if (services_.empty()) {
    *all_done = true;
    KLOG(VERB_TRACE, "Failed to locate service %d in eit scan cache, current cache is\n", service_id);
    return nullptr;
  }

  // One clock says when the first timer is due: to read them all for each event costs many times what the event does.
  const int64_t now_ns = monotonic_ns();
  const bool timers_due = now_ns >= timers_due_ns_;
  int64_t least_left_ns = std::numeric_limits<int64_t>::max();
  SQL_cache* found = nullptr;
  bool every_one_done = true;
  for (SQL_cache& service : services_) {
    if (service.pat_prnr == service_id)
      found = &service;
    if (timers_due && !service.done) {
      timespec left{};
      (void)polled_timer::time_left(service.timer, &left);  // a timer that cannot be read has run out
      if (left.tv_sec == 0)
        give_up(service, service_id, table_id, freq);
      else
        least_left_ns = std::min(least_left_ns, nanoseconds(left));
    }
    every_one_done = every_one_done && service.done;
  }
  *all_done = every_one_done;
  if (timers_due && !every_one_done)
    timers_due_ns_ = now_ns + least_left_ns - SECOND_NS;  // in its last second a timer counts as run out
  if (found == nullptr) {
    KLOG(VERB_TRACE, "Failed to locate service %d in eit scan cache, current cache is\n", service_id);
    for (const SQL_cache& service : services_)
      KLOG(VERB_TRACE, " %d ", service.pat_prnr);
    return nullptr;
  }

  if (found->active) {
    KLOG(VERB_WARNING, "****+ Started table %x scan %d %s\n", static_cast<unsigned>(table_id), service_id,
         name_of(service_id, freq).c_str());
    found->active = false;
    changed_ = true;
  } else if (last_section && !found->done) {
    count_last_section(*found, table_id, freq);
  }
  if (!seen_once_ && *all_done) {
    KLOG(VERB_TRACE, "Loop for all services\n");
    seen_once_ = true;
  }
  return found;
}

void Guide_round::note_last_table(int service_id, int last_table) {
  for (EIT_progress& service : progress_) {
    if (service.service_id == service_id && last_table > service.last_table && last_table <= table::EIT_SCHEDULE_LAST) {
      service.last_table = last_table;
      changed_ = true;
    }
  }
}

void Guide_round::count_stored(int service_id) {
  for (EIT_progress& service : progress_) {
    if (service.service_id == service_id) {
      ++service.events;
      changed_ = true;
    }
  }
}

void Guide_round::publish_changes() {
  if (changed_)
    publish();
}

void Guide_round::publish() {
  changed_ = false;
  for (size_t i = 0; i < services_.size(); ++i) {
    progress_[i].active = services_[i].active && !ended_;
    progress_[i].done = services_[i].done || ended_;
  }
  const std::lock_guard<Mutex> lock(lock_);
  published_ = progress_;
}

void Guide_round::progress(std::vector<EIT_progress>* progress) const {
  const std::lock_guard<Mutex> lock(lock_);
  *progress = published_;
}
