// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/merge.h"

#include <vector>

#include "base/log.h"
#include "db/channel_row.h"

namespace sdbl {

int Merge::run(SCAN_STATE state) {
  now_ = saturated(clock_now());
  if (state != SCAN_PAT && state != SCAN_PMT) {
    KLOG(VERB_ERROR, "ERROR: Incorrect scan state entered: %d\n", state);
    return summary(state);
  }
  if (state == SCAN_PAT && !merge_services())
    return 0;
  streams_.run();
  // Deliberate: new services without a PCR PID stay unconfirmed, and are counted as back at the next full scan.
  if (state == SCAN_PAT)
    statements_.run(MERGE_OPERATION, dvbnr_,
                    "UPDATE kanalid SET scan_state = $scan_state , row_status = $row_status WHERE freq = $freq "
                    "AND dvb_type = $dvb_type AND pcr_pid != 0 AND hf_conn = $hf_conn AND row_status = "
                    "$row_status_new",
                    SERVICE_FOUND, ROW_CONFIRMED, multiplex_.freq, number(multiplex_.input.delivery),
                    number(multiplex_.input.connector), ROW_NEW);
  return summary(state);
}

// Prints the counts and returns their bits.
int Merge::summary(SCAN_STATE state) const {
  KLOG(VERB_PROGRESS, "Scan from %d for freq %d, ch_add %d, ch_delete %d, estrm_add %d, estrm_delete %d\n", state,
       multiplex_.freq, channels_added_, channels_lost_, streams_.added(), streams_.deleted());
  int changes = 0;
  if (channels_added_ != 0) {
    KLOG(VERB_PROGRESS, "%d Channels added\n", channels_added_);
    changes |= CHANNELS_ADDED;
  }
  if (channels_lost_ != 0) {
    KLOG(VERB_PROGRESS, "%d Channels deleted\n", channels_lost_);
    changes |= CHANNELS_LOST;
  }
  if (streams_.added() != 0) {
    KLOG(VERB_PROGRESS, "%d Estreams added\n", streams_.added());
    changes |= STREAMS_ADDED;
  }
  if (streams_.deleted() != 0) {
    KLOG(VERB_PROGRESS, "%d Estreams deleted\n", streams_.deleted());
    changes |= STREAMS_DELETED;
  }
  return changes;
}

// The ids of the multiplex, from the first scanned service. False when the scan found nothing.
bool Merge::read_network_ids(Scanned_service* first) const {
  Rows rows(statements_, MERGE_OPERATION, dvbnr_,
            "SELECT network_id, orig_network_id, tstream_id FROM kanalid_scan_DVBNR WHERE freq = $freq;",
            multiplex_.freq);
  if (!rows.next()) {
    KLOG(VERB_WARNING, "WARNING: PAT scan timed out for freq %d, no entries in scan table\n", multiplex_.freq);
    if (rows.code() != SQLITE_DONE)
      KLOG(VERB_WARNING, "Error code %d, %s", rows.code(), rows.message());
    return false;
  }
  first->net_id = rows.number(0);
  first->onet_id = rows.number(1);
  first->ts_id = rows.number(2);
  return true;
}

// The services, and the numbers of their scanned streams. False when the scan found nothing.
bool Merge::merge_services() {
  KLOG(VERB_PROGRESS, "Master update PAT\n");
  const int freq = multiplex_.freq;
  const int dvb_type = number(multiplex_.input.delivery);
  const int hf_conn = number(multiplex_.input.connector);
  Scanned_service ids{};
  if (!read_network_ids(&ids))
    return false;
  KLOG(VERB_PROGRESS,
       "update_master_scan_data: instance %d dvb_type %d hf_conn %d Freq %d net_id %d, onet_id %d, tstream_id %d\n",
       dvbnr_, dvb_type, hf_conn, freq, ids.net_id, ids.onet_id, ids.ts_id);

  statements_.run(MERGE_OPERATION, dvbnr_,
                  "UPDATE kanalid SET row_status = $row_stat  WHERE network_id = $net_id AND orig_network_id = "
                  "$onet_id AND tstream_id = $ts_id AND freq = $freq",
                  ROW_OLD, ids.net_id, ids.onet_id, ids.ts_id, freq);
  statements_.run(MERGE_OPERATION, dvbnr_,
                  "UPDATE kanalid_scan_DVBNR SET row_status = $rstat  WHERE network_id = $nid AND "
                  "orig_network_id = $onid AND tstream_id = $tsid;",
                  ROW_NEW, ids.net_id, ids.onet_id, ids.ts_id);

  std::vector<Scanned_service> services;
  Rows rows(statements_, MERGE_OPERATION, dvbnr_,
            "SELECT channel, network_id, orig_network_id, tstream_id, pat_prnr FROM "
            "kanalid_scan_DVBNR WHERE freq = $freq;",
            freq);
  while (rows.next())
    services.push_back({rows.number(0), rows.number(1), rows.number(2), rows.number(3), rows.number(4)});
  rows.end();

  // Scan rows and channels share one number space. The streams first move out of it, or a stream that has just got its
  // channel's number could be taken for one of the scan row of that number.
  for (const Scanned_service& service : services)
    streams_.renumber(service.oid, -service.oid);

  int channel = 0;
  for (const Scanned_service& service : services) {
    channel = merge_service(service, channel);
    streams_.renumber(-service.oid, channel);
  }

  // Deliberate: services that stay lost are counted at every full scan.
  channels_lost_ = statements_
                       .run(MERGE_OPERATION, dvbnr_,
                            "UPDATE kanalid SET scan_state = $state , modified = $timestamp  WHERE freq = $freq AND "
                            "dvb_type = $dvb_type AND hf_conn = $hf_conn AND row_status = $rstat;",
                            SERVICE_LOST, now_, freq, dvb_type, hf_conn, ROW_OLD)
                       .changes;
  return true;
}

// Returns the channel of a scanned service: the known one, a new one, or 0 when it was refused.
int Merge::merge_service(const Scanned_service& service, int previous_channel) {
  KLOG(VERB_PROGRESS, "Pat scan table: oid_scan %d net_id %d onet_id %d ts_id %d service %d", service.oid,
       service.net_id, service.onet_id, service.ts_id, service.pat_prnr);
  // Deliberate: the input is not compared.
  Rows known(statements_, MERGE_OPERATION, dvbnr_,
             "SELECT channel FROM kanalid WHERE network_id = $netid AND orig_network_id = $onid "
             "AND tstream_id = $tsid AND pat_prnr = $prnr AND freq = $freq; ",
             service.net_id, service.onet_id, service.ts_id, service.pat_prnr, multiplex_.freq);
  if (known.next()) {
    const int channel = known.number(0);
    known.end();
    confirm_channel(channel);
    return channel;
  }
  if (known.code() == SQLITE_DONE) {
    known.end();
    return add_channel(service.oid);
  }
  KLOG(VERB_ERROR, "ERROR: Select into main table returned %d, %s\n", known.code(), known.message());
  return previous_channel;  // Deliberate: where the streams go when the look-up fails.
}

// Deliberate: the other columns of a known service are not refreshed.
void Merge::confirm_channel(int channel) {
  KLOG(VERB_PROGRESS, "Updating ROW status for ch oid %d\n", channel);
  statements_.run(MERGE_OPERATION, dvbnr_, "UPDATE kanalid SET row_status = $rstat WHERE channel = $ch;", ROW_CONFIRMED,
                  channel);
  Rows lost(statements_, MERGE_OPERATION, dvbnr_,
            "SELECT network_id FROM kanalid WHERE channel = $ch AND scan_state = $state;", channel, SERVICE_LOST);
  const bool was_lost = lost.next();
  lost.end();
  if (was_lost) {
    KLOG(VERB_PROGRESS, "flag from 0->1, increment ch found flag\n");
    statements_.run(MERGE_OPERATION, dvbnr_, "UPDATE kanalid SET modified = $timestamp WHERE channel = $ch;", now_,
                    channel);
    ++channels_added_;
  }
  statements_.run(MERGE_OPERATION, dvbnr_, "UPDATE kanalid SET scan_state = $state WHERE channel = $ch;", SERVICE_FOUND,
                  channel);
}

// Returns the new channel; 0 when the table refused the service, which its unique index does to a program that is
// listed twice or was known under other network ids.
int Merge::add_channel(int scan_oid) {
  const Run inserted = statements_.run(
      MERGE_OPERATION, dvbnr_,
      "INSERT INTO kanalid (dvb_type, hf_conn, freq, pat_prnr, pmt_pid, network_id, orig_network_id, tstream_id, lcn, "
      "pcr_pid, serv_name, serv_type, prov_name, network_name, run_status, free_ca, scan_state, row_status) SELECT "
      "dvb_type, hf_conn, freq, pat_prnr, pmt_pid, network_id, orig_network_id, tstream_id, lcn, pcr_pid, serv_name, "
      "serv_type, prov_name, network_name, run_status, free_ca, scan_state, row_status  FROM kanalid_scan_DVBNR WHERE "
      "oid = $oid_scan;",
      scan_oid);
  if (!inserted.done || inserted.changes == 0)
    return 0;

  const int channel = inserted.rowid;
  statements_.run(MERGE_OPERATION, dvbnr_, "UPDATE kanalid set modified = $timestamp where oid = $oid", now_, channel);
  KLOG(VERB_PROGRESS, "inserted row %d@kanalid_scan -> %d@kanalid\n", scan_oid, channel);
  ++channels_added_;
  statements_.run(MERGE_OPERATION, dvbnr_,
                  "INSERT INTO kanalid_lang (source_oid, lang, serv_name, prov_name, network_name) SELECT  "
                  "$oid_db, lang, serv_name, prov_name, network_name FROM kanalid_lang_scan_DVBNR WHERE "
                  "source_oid = $oid_scan;",
                  channel, scan_oid);
  return channel;
}

int set_master_scan_timeout(const Statements& statements, const Multiplex& multiplex) {
  KLOG(VERB_WARNING, "WARNING: Setting timeout for mux %d\n", multiplex.freq);
  return statements
      .run(__func__, 0,
           "UPDATE kanalid SET scan_state = $state WHERE dvb_type = $dvb_type AND hf_conn = $hf_conn "
           "AND freq = $freq;",
           SERVICE_TIMED_OUT, number(multiplex.input.delivery), number(multiplex.input.connector), multiplex.freq)
      .result;
}

}  // namespace sdbl
