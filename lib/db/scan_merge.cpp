// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/scan_merge.h"

#include <algorithm>
#include <string>

#include "base/log.h"
#include "db/merge.h"
#include "db/transaction.h"

namespace sdbl {

namespace {

// More pages than the tables and their indexes can take for growing by a level each; and how often what was found is
// written at most: in rows and in indexes, with pages half full.
constexpr int64_t PAGES_OF_LEVELS = 32;
constexpr int64_t COPIES = 4;

// Bytes of everything in the scan tables, as rows and as keys.
constexpr char BYTES_OF_SERVICES[] =
    "SELECT 150 * count(*) + total(length(CAST(serv_name || prov_name || network_name AS BLOB))) FROM "
    "kanalid_scan_DVBNR";
constexpr char BYTES_OF_NAMES[] =
    "SELECT 60 * count(*) + total(length(CAST(lang || serv_name || prov_name || network_name AS BLOB))) FROM "
    "kanalid_lang_scan_DVBNR";
constexpr char BYTES_OF_STREAMS[] =
    "SELECT 150 * count(*) + total(length(CAST(codec || languages || languages || lang_codes AS BLOB))) FROM "
    "estreams_scan_DVBNR";

// What makes rows longer: services and streams that are not stored as they are, and a first time in `modified`.
constexpr char NEW_SERVICES[] =
    "SELECT count(*) FROM kanalid_scan_DVBNR s WHERE NOT EXISTS (SELECT 1 FROM kanalid k WHERE k.network_id = "
    "s.network_id AND k.orig_network_id = s.orig_network_id AND k.tstream_id = s.tstream_id AND k.pat_prnr = "
    "s.pat_prnr AND k.freq = s.freq)";
constexpr char NEW_STREAMS_OF_SERVICES[] =
    "SELECT count(*) FROM estreams_scan_DVBNR s JOIN kanalid_scan_DVBNR c ON c.channel = s.channel WHERE NOT EXISTS "
    "(SELECT 1 FROM kanalid k JOIN estreams e ON e.channel = k.channel WHERE k.network_id = c.network_id AND "
    "k.orig_network_id = c.orig_network_id AND k.tstream_id = c.tstream_id AND k.pat_prnr = c.pat_prnr AND k.freq = "
    "c.freq AND e.es_pid = s.es_pid AND e.es_type = s.es_type AND e.es_subtype = s.es_subtype AND e.codec = s.codec "
    "AND e.languages = s.languages AND e.lang_codes = s.lang_codes AND e.p1 = s.p1 AND e.p2 = s.p2 AND e.ca_sysid = "
    "s.ca_sysid AND e.ca_pid = s.ca_pid)";
constexpr char NEW_STREAMS[] =
    "SELECT count(*) FROM estreams_scan_DVBNR s WHERE NOT EXISTS (SELECT 1 FROM estreams e WHERE e.channel = s.channel "
    "AND e.es_pid = s.es_pid AND e.es_type = s.es_type AND e.es_subtype = s.es_subtype AND e.codec = s.codec AND "
    "e.languages = s.languages AND e.lang_codes = s.lang_codes AND e.p1 = s.p1 AND e.p2 = s.p2 AND e.ca_sysid = "
    "s.ca_sysid AND e.ca_pid = s.ca_pid)";
constexpr char NEVER_MODIFIED[] = "SELECT count(*) FROM kanalid WHERE modified < 8388608 AND freq = ";

}  // namespace

int64_t Scan_merge::number_of(int dvbnr, const char* sql) {
  return sql_.silent_number(statement_of_instance(sql, dvbnr));
}

// At most; 0 when the tables cannot be read, which shows itself at the merge.
int64_t Scan_merge::bytes_found(int dvbnr) {
  int64_t bytes = 0;
  for (const char* sql : {BYTES_OF_SERVICES, BYTES_OF_NAMES, BYTES_OF_STREAMS})
    bytes += std::max<int64_t>(number_of(dvbnr, sql), 0);
  return bytes;
}

// True when what was found is in the tables already, so that every row keeps its length.
bool Scan_merge::adds_nothing(int dvbnr, int freq, SCAN_STATE state) {
  if (state == SCAN_PMT)
    return number_of(dvbnr, NEW_STREAMS) == 0;
  return number_of(dvbnr, NEW_SERVICES) == 0 && number_of(dvbnr, NEW_STREAMS_OF_SERVICES) == 0 &&
         sql_.silent_number(NEVER_MODIFIED + std::to_string(freq)) == 0;
}

bool Scan_merge::fits(int dvbnr) {
  const int64_t left = room_.pages_left("main");
  const int64_t page_size = sql_.silent_number("PRAGMA main.page_size");
  return left < 0 || page_size <= 0 || left >= PAGES_OF_LEVELS + COPIES * bytes_found(dvbnr) / page_size;
}

bool lacks_memory(const Errors& errors, int dvbnr, int freq) {
  if (!errors.short_of_memory(dvbnr))
    return false;
  KLOG(VERB_ERROR, "ERROR: No memory for the channels of %d Hz: nothing is stored\n", freq);
  return true;
}

void report_moved(Errors& errors, int freq) {
  errors.remember(SQLITE_READONLY_DBMOVED, MERGE_OPERATION);
  KLOG(VERB_ERROR, "ERROR: Another program has moved or replaced the file: the channels of %d Hz are not stored\n",
       freq);
}

Merge_end Scan_merge::run(int dvbnr, const Multiplex& multiplex, SCAN_STATE state) {
  // Without one (the file cannot be written) the statements say one by one what is wrong.
  Transaction transaction(connection_, Db_file::CHANNELS, {.tries_disk = true});
  if (transaction.busy()) {
    errors_.remember(SQLITE_BUSY, MERGE_OPERATION);
    KLOG(VERB_ERROR, "ERROR: Another program keeps the channels locked: those of %d Hz are not stored, rc = %d\n",
         multiplex.freq, SQLITE_BUSY);
    return {Merge_outcome::BUSY, 0};
  }
  if (transaction.moved()) {
    report_moved(errors_, multiplex.freq);
    return {Merge_outcome::FAILED, 0};
  }
  if (lacks_memory(errors_, dvbnr, multiplex.freq))
    return {Merge_outcome::FAILED, 0};
  if ((state == SCAN_PAT || state == SCAN_PMT) && !fits(dvbnr) && !adds_nothing(dvbnr, multiplex.freq, state)) {
    errors_.remember(SQLITE_FULL, MERGE_OPERATION);
    KLOG(VERB_ERROR, "ERROR: No room for the channels of %d Hz: nothing is stored, rc = %d\n", multiplex.freq,
         SQLITE_FULL);
    return {Merge_outcome::NO_ROOM, 0};
  }
  const Merge_end end{Merge_outcome::DONE, Merge(statements_, dvbnr, multiplex).run(state)};
  if (details_.any(dvbnr) && fits(dvbnr))  // the details are no longer than what they belong to
    (void)details_.store(dvbnr, multiplex);
  if (!transaction.is_open())
    return end;
  if (lacks_memory(errors_, dvbnr, multiplex.freq))
    return {Merge_outcome::FAILED, 0};
  if (const int rc = transaction.commit(); rc != SQLITE_OK) {
    errors_.remember(rc, MERGE_OPERATION);
    KLOG(VERB_ERROR, "ERROR: The channels of %d Hz are not stored, rc = %d\n", multiplex.freq, rc);
    return {Merge_outcome::FAILED, 0};
  }
  return end;
}

}  // namespace sdbl
