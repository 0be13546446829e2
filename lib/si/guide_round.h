// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/multiplex.h"
#include "base/mutex.h"
#include "base/types.h"
#include "db/sql_cache.h"
#include "si/eit_progress.h"

class Sdbl;

// One round of the programme guide: which services of the multiplex it is collected for, which table is being read, and
// who is waited for. The only owner of that list and of its timers. It knows nothing of sections and filters; eit.cpp
// drives it.
//
// A round goes through the tables one by one: present and following, then the schedule tables. In each table a service
// is waited for (active) until its first section, then until its last section has come twice more (done). A service
// whose timer runs out is given up, which makes it done as well. The table is finished when all services are done.
//
// Worker-only, but for progress(). The services' timers go on between tables, so that a round that is not driven costs
// nothing.
class Guide_round {
 public:
  // `db` is not owned and outlives the object. The list is empty.
  Guide_round(Sdbl& db, int adapter, Input input);
  ~Guide_round();
  Guide_round(const Guide_round&) = delete;
  Guide_round& operator=(const Guide_round&) = delete;

  // --- The list ----------------------------------------------------------------------------------------------------

  // Replaces the list by the services of `freq` (Hz) in the database, with their stored events, all active, with 10 s
  // to come. A database that fails leaves it empty. Pointers to services end here.
  void load(int freq, SCAN_STATE stage);

  // Makes every service active again, with 10 s to come and no PMT version. The table stays.
  void begin_again();

  const std::vector<SQL_cache>& services() const { return services_; }

  // The first service of this number, for its PMT; null when it is not listed.
  SQL_cache* service(int programme);

  // --- The tables --------------------------------------------------------------------------------------------------

  // Table id that sections are taken from; 0 before the first enter().
  int table() const { return table_; }

  // True since the first time that every service was done, until the next start().
  bool seen_once() const { return seen_once_; }

  // Goes to the present/following table: the guide is not seen, and not ended.
  void start();

  // Books an event of a service: gives up services whose time is over, starts the service, or counts its section when
  // it is the last one of its part. `freq` is for names in messages. Sets `*all_done` to whether the table is finished;
  // so it is at once when the list is empty. Returns the service, the last one of this number; null when it is not
  // listed.
  SQL_cache* event_arrived(int service_id, int table_id, int freq, bool last_section, bool* all_done);

  // Every service is active again, with 180 s to come.
  void close_table();

  // Sections of the table were lost: of nobody who has not been given up it is known any more that all have come, so
  // the last section has to come twice again. Everybody is waited for anew, up to three times a table: where sections
  // are lost for ever the timers end it.
  void sections_lost();

  // The table that follows, or 0 after the last one, whose id stays in table().
  void enter(int table_id);

  // --- Progress ----------------------------------------------------------------------------------------------------

  // A section of this service names the highest schedule table that it has.
  void note_last_table(int service_id, int last_table);

  // One more event of this service is stored.
  void count_stored(int service_id);

  // Shows hosts what has changed since the last time.
  void publish_changes();

  // Replaces the contents of `progress` by a copy of what was published last. Any-thread; never waits for the worker's
  // work.
  void progress(std::vector<EIT_progress>* progress) const;

 private:
  void clear();
  void publish();
  std::string name_of(int service_id, int freq);
  void give_up(SQL_cache& service, int service_id, int table_id, int freq);
  void count_last_section(SQL_cache& service, int table_id, int freq);

  Sdbl& db_;
  const int adapter_;
  const Input input_;

  std::vector<SQL_cache> services_;  // scan_mark holds the version of the service's PMT that was read last
  int64_t timers_due_ns_ = 0;        // of CLOCK_MONOTONIC; until then nobody has waited too long
  int table_ = 0;
  int repeats_ = 0;  // of this table, for lost sections
  bool seen_once_ = false;
  bool ended_ = false;  // the last table has been closed

  std::vector<EIT_progress> progress_;                             // the worker's, one entry a service
  bool changed_ = false;                                           // since the last publish()
  mutable Mutex lock_{Lock_rank::ALONE, "progress of the guide"};  // guards published_; a leaf
  std::vector<EIT_progress> published_;
};
