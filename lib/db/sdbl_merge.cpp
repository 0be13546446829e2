#include <sqlite3.h>
#include <time.h>

#include <utility>

#include "base/log.h"
#include "db/sdbl.h"
#include "db/sdbl_internal.h"

using sdbl::Db_lock;

namespace {

// Values of row_status, meaningful during a merge only.
enum : int { ROW_CONFIRMED = 0, ROW_OLD = 1, ROW_NEW = 2 };

// Values of kanalid.scan_state.
enum : int { SERVICE_LOST = 0, SERVICE_FOUND = 1, SERVICE_TIMED_OUT = 2 };

// Bits of the result.
enum : int { CHANNELS_LOST = 1, CHANNELS_ADDED = 2, STREAMS_DELETED = 16, STREAMS_ADDED = 32 };

// The helpers report under the name of the operation that they belong to.
#define MERGE_HERE "update_master_scan_data", __LINE__

constexpr char RENUMBER_STREAMS[] = "UPDATE estreams_scan_DVBNR SET channel = $oid_db where channel = $oid_scan;";

}  // namespace

struct Sdbl::Merge {
  int dvbnr;
  DVB_TYPE_ID dvb_type;
  HF_CONN_ID hf_conn;
  int freq;
  int now;
  int channels_added;
  int channels_lost;
  int streams_added;
  int streams_deleted;
};

struct Sdbl::Scanned_service {
  int oid;
  int net_id;
  int onet_id;
  int ts_id;
  int pat_prnr;
};

int Sdbl::update_master_scan_data(int dvbnr, DVB_TYPE_ID dvb_type, HF_CONN_ID hf_conn, int freq, SCAN_STATE state) {
  Merge merge{dvbnr, dvb_type, hf_conn, freq, sdbl::saturated(time(nullptr)), 0, 0, 0, 0};
  if (state != SCAN_PAT && state != SCAN_PMT) {
    KLOG(VERB_ERROR, "ERROR: Incorrect scan state entered: %d\n", state);
  } else {
    if (state == SCAN_PAT && !merge_services(&merge))
      return 0;
    merge_streams(&merge);
    // Deliberate: new services without a PCR PID stay unconfirmed, and are counted as back at the next full scan.
    if (state == SCAN_PAT)
      parts_->errors.report_run(
          run_cached(dvbnr,
                     "UPDATE kanalid SET scan_state = $scan_state , row_status = $row_status WHERE freq = $freq "
                     "AND dvb_type = $dvb_type AND pcr_pid != 0 AND hf_conn = $hf_conn AND row_status = "
                     "$row_status_new",
                     SERVICE_FOUND, ROW_CONFIRMED, freq, dvb_type, hf_conn, ROW_NEW)
              .result,
          SDBL_HERE);
  }

  KLOG(VERB_PROGRESS, "Scan from %d for freq %d, ch_add %d, ch_delete %d, estrm_add %d, estrm_delete %d\n", state, freq,
       merge.channels_added, merge.channels_lost, merge.streams_added, merge.streams_deleted);
  int changes = 0;
  if (merge.channels_added != 0) {
    KLOG(VERB_PROGRESS, "%d Channels added\n", merge.channels_added);
    changes |= CHANNELS_ADDED;
  }
  if (merge.channels_lost != 0) {
    KLOG(VERB_PROGRESS, "%d Channels deleted\n", merge.channels_lost);
    changes |= CHANNELS_LOST;
  }
  if (merge.streams_added != 0) {
    KLOG(VERB_PROGRESS, "%d Estreams added\n", merge.streams_added);
    changes |= STREAMS_ADDED;
  }
  if (merge.streams_deleted != 0) {
    KLOG(VERB_PROGRESS, "%d Estreams deleted\n", merge.streams_deleted);
    changes |= STREAMS_DELETED;
  }
  return changes;
}

// The services, and the numbers of their scanned streams. False when the scan found nothing.
bool Sdbl::merge_services(Merge* merge) {
  KLOG(VERB_PROGRESS, "Master update PAT\n");
  const int dvbnr = merge->dvbnr;
  const int freq = merge->freq;
  int net_id = 0;
  int onet_id = 0;
  int ts_id = 0;
  {
    Db_lock lock(db);
    sqlite3_stmt* stmt =
        sql_cache(false, dvbnr,
                  "SELECT network_id, orig_network_id, tstream_id FROM kanalid_scan_DVBNR WHERE freq = $freq;", freq);
    const int step = stmt != nullptr ? sqlite3_step(stmt) : SQLITE_ERROR;
    if (step != SQLITE_ROW) {
      KLOG(VERB_WARNING, "WARNING: PAT scan timed out for freq %d, no entries in scan table\n", freq);
      if (step != SQLITE_DONE)
        KLOG(VERB_WARNING, "Error code %d, %s", step, sqlite3_errmsg(db));
      parts_->errors.report_reset(sqlite3_reset(stmt), MERGE_HERE);
      return false;
    }
    net_id = sqlite3_column_int(stmt, 0);
    onet_id = sqlite3_column_int(stmt, 1);
    ts_id = sqlite3_column_int(stmt, 2);
    parts_->errors.report_reset(sqlite3_reset(stmt), MERGE_HERE);
  }
  KLOG(VERB_PROGRESS,
       "update_master_scan_data: instance %d dvb_type %d hf_conn %d Freq %d net_id %d, onet_id %d, tstream_id %d\n",
       dvbnr, merge->dvb_type, merge->hf_conn, freq, net_id, onet_id, ts_id);

  parts_->errors.report_run(
      run_cached(dvbnr,
                 "UPDATE kanalid SET row_status = $row_stat  WHERE network_id = $net_id AND orig_network_id = "
                 "$onet_id AND tstream_id = $ts_id AND freq = $freq",
                 ROW_OLD, net_id, onet_id, ts_id, freq)
          .result,
      MERGE_HERE);
  parts_->errors.report_run(run_cached(dvbnr,
                                       "UPDATE kanalid_scan_DVBNR SET row_status = $rstat  WHERE network_id = $nid AND "
                                       "orig_network_id = $onid AND tstream_id = $tsid;",
                                       ROW_NEW, net_id, onet_id, ts_id)
                                .result,
                            MERGE_HERE);

  std::vector<Scanned_service> services;
  {
    Db_lock lock(db);
    sqlite3_stmt* stmt = sql_cache(false, dvbnr,
                                   "SELECT channel, network_id, orig_network_id, tstream_id, pat_prnr FROM "
                                   "kanalid_scan_DVBNR WHERE freq = $freq;",
                                   freq);
    if (stmt != nullptr) {
      while (sqlite3_step(stmt) == SQLITE_ROW)
        services.push_back(Scanned_service{sqlite3_column_int(stmt, 0), sqlite3_column_int(stmt, 1),
                                           sqlite3_column_int(stmt, 2), sqlite3_column_int(stmt, 3),
                                           sqlite3_column_int(stmt, 4)});
      parts_->errors.report_reset(sqlite3_reset(stmt), MERGE_HERE);
    }
  }
  // Scan rows and channels share one number space. The streams first move out of it, or a stream that has just got its
  // channel's number could be taken for one of the scan row of that number.
  for (const Scanned_service& service : services)
    parts_->errors.report_run(run_cached(dvbnr, RENUMBER_STREAMS, -service.oid, service.oid).result, MERGE_HERE);

  int channel = 0;
  for (const Scanned_service& service : services) {
    channel = merge_service(merge, service, channel);
    parts_->errors.report_run(run_cached(dvbnr, RENUMBER_STREAMS, channel, -service.oid).result, MERGE_HERE);
  }

  // Deliberate: services that stay lost are counted at every full scan.
  const Run lost = run_cached(dvbnr,
                              "UPDATE kanalid SET scan_state = $state , modified = $timestamp  WHERE freq = $freq AND "
                              "dvb_type = $dvb_type AND hf_conn = $hf_conn AND row_status = $rstat;",
                              SERVICE_LOST, merge->now, freq, merge->dvb_type, merge->hf_conn, ROW_OLD);
  parts_->errors.report_run(lost.result, MERGE_HERE);
  merge->channels_lost = lost.changes;
  return true;
}

// Returns the channel of a scanned service: the known one, a new one, or 0 when it was refused.
int Sdbl::merge_service(Merge* merge, const Scanned_service& service, int previous_channel) {
  KLOG(VERB_PROGRESS, "Pat scan table: oid_scan %d net_id %d onet_id %d ts_id %d service %d", service.oid,
       service.net_id, service.onet_id, service.ts_id, service.pat_prnr);
  const int dvbnr = merge->dvbnr;
  int channel = previous_channel;  // Deliberate: where the streams go when the look-up fails.
  int step;
  {
    Db_lock lock(db);
    // Deliberate: the input is not compared.
    sqlite3_stmt* stmt = sql_cache(false, dvbnr,
                                   "SELECT channel FROM kanalid WHERE network_id = $netid AND orig_network_id = $onid "
                                   "AND tstream_id = $tsid AND pat_prnr = $prnr AND freq = $freq; ",
                                   service.net_id, service.onet_id, service.ts_id, service.pat_prnr, merge->freq);
    step = stmt != nullptr ? sqlite3_step(stmt) : SQLITE_ERROR;
    if (step == SQLITE_ROW)
      channel = sqlite3_column_int(stmt, 0);
    else if (step != SQLITE_DONE)
      KLOG(VERB_ERROR, "ERROR: Select into main table returned %d, %s\n", step, sqlite3_errmsg(db));
    parts_->errors.report_reset(sqlite3_reset(stmt), MERGE_HERE);
  }
  if (step == SQLITE_ROW)
    confirm_channel(merge, channel);
  else if (step == SQLITE_DONE)
    channel = add_channel(merge, service.oid);
  return channel;
}

// Deliberate: the other columns of a known service are not refreshed.
void Sdbl::confirm_channel(Merge* merge, int channel) {
  const int dvbnr = merge->dvbnr;
  KLOG(VERB_PROGRESS, "Updating ROW status for ch oid %d\n", channel);
  parts_->errors.report_run(
      run_cached(dvbnr, "UPDATE kanalid SET row_status = $rstat WHERE channel = $ch;", ROW_CONFIRMED, channel).result,
      MERGE_HERE);
  bool was_lost = false;
  {
    Db_lock lock(db);
    sqlite3_stmt* stmt =
        sql_cache(false, dvbnr, "SELECT network_id FROM kanalid WHERE channel = $ch AND scan_state = $state;", channel,
                  SERVICE_LOST);
    was_lost = stmt != nullptr && sqlite3_step(stmt) == SQLITE_ROW;
    parts_->errors.report_reset(sqlite3_reset(stmt), MERGE_HERE);
  }
  if (was_lost) {
    KLOG(VERB_PROGRESS, "flag from 0->1, increment ch found flag\n");
    parts_->errors.report_run(
        run_cached(dvbnr, "UPDATE kanalid SET modified = $timestamp WHERE channel = $ch;", merge->now, channel).result,
        MERGE_HERE);
    ++merge->channels_added;
  }
  parts_->errors.report_run(
      run_cached(dvbnr, "UPDATE kanalid SET scan_state = $state WHERE channel = $ch;", SERVICE_FOUND, channel).result,
      MERGE_HERE);
}

// Returns the new channel; 0 when the table refused the service, which its unique index does to a program that is
// listed twice or was known under other network ids.
int Sdbl::add_channel(Merge* merge, int scan_oid) {
  const int dvbnr = merge->dvbnr;
  const Run inserted = run_cached(
      dvbnr,
      "INSERT INTO kanalid (dvb_type, hf_conn, freq, pat_prnr, pmt_pid, network_id, orig_network_id, tstream_id, lcn, "
      "pcr_pid, serv_name, serv_type, prov_name, network_name, run_status, free_ca, scan_state, row_status) SELECT "
      "dvb_type, hf_conn, freq, pat_prnr, pmt_pid, network_id, orig_network_id, tstream_id, lcn, pcr_pid, serv_name, "
      "serv_type, prov_name, network_name, run_status, free_ca, scan_state, row_status  FROM kanalid_scan_DVBNR WHERE "
      "oid = $oid_scan;",
      scan_oid);
  parts_->errors.report_run(inserted.result, MERGE_HERE);
  if (!inserted.done || inserted.changes == 0)
    return 0;

  const int channel = inserted.rowid;
  parts_->errors.report_run(
      run_cached(dvbnr, "UPDATE kanalid set modified = $timestamp where oid = $oid", merge->now, channel).result,
      MERGE_HERE);
  KLOG(VERB_PROGRESS, "inserted row %d@kanalid_scan -> %d@kanalid\n", scan_oid, channel);
  ++merge->channels_added;
  parts_->errors.report_run(
      run_cached(dvbnr,
                 "INSERT INTO kanalid_lang (source_oid, lang, serv_name, prov_name, network_name) SELECT  "
                 "$oid_db, lang, serv_name, prov_name, network_name FROM kanalid_lang_scan_DVBNR WHERE "
                 "source_oid = $oid_scan;",
                 channel, scan_oid)
          .result,
      MERGE_HERE);
  return channel;
}

void Sdbl::merge_streams(Merge* merge) {
  KLOG(VERB_PROGRESS, "Master update PMT\n");
  const int dvbnr = merge->dvbnr;
  std::vector<int> channels;
  {
    Db_lock lock(db);
    sqlite3_stmt* stmt = sql_cache(false, dvbnr,
                                   "SELECT channel FROM kanalid WHERE hf_conn = $hfc AND dvb_type = $dvbt AND freq = "
                                   "$freq AND row_status != $rowstat;",
                                   merge->hf_conn, merge->dvb_type, merge->freq, ROW_OLD);
    if (stmt != nullptr) {
      while (sqlite3_step(stmt) == SQLITE_ROW)
        channels.push_back(sqlite3_column_int(stmt, 0));
      parts_->errors.report_reset(sqlite3_reset(stmt), MERGE_HERE);
    }
  }
  parts_->errors.report_run(
      run_cached(dvbnr, "UPDATE estreams_scan_DVBNR SET row_status = $row_status", ROW_NEW).result, MERGE_HERE);
  for (const int channel : channels)
    merge_streams_of_channel(merge, channel);

  if (merge->streams_added != 0 || merge->streams_deleted != 0) {
    KLOG(VERB_INFO, "estreams modified, reindexing");
    parts_->errors.report_run(run_cached(dvbnr, "REINDEX estreams").result, MERGE_HERE);
  }
}

void Sdbl::merge_streams_of_channel(Merge* merge, int channel) {
  const int dvbnr = merge->dvbnr;
  KLOG(VERB_PROGRESS, "Streams for ch %d (Scan = Main): ", channel);
  parts_->errors.report_run(
      run_cached(dvbnr, "UPDATE estreams  SET row_status = $row_status where channel = $channel;", ROW_OLD, channel)
          .result,
      MERGE_HERE);

  std::vector<std::pair<int, int>> equal;  // scan row, master row
  {
    Db_lock lock(db);
    sqlite3_stmt* stmt = sql_cache(
        false, dvbnr,
        "SELECT s.oid, e.oid FROM  estreams e, estreams_scan_DVBNR s WHERE e.es_pid = s.es_pid AND e.es_type = "
        "s.es_type AND e.es_subtype = s.es_subtype AND e.codec = s.codec AND e.languages = s.languages AND "
        "e.lang_codes = s.lang_codes AND e.p1 = s.p1 AND e.p2 = s.p2 AND e.ca_sysid = s.ca_sysid AND e.ca_pid = "
        "s.ca_pid AND e.channel = $oid1 and s.channel = $oid2",
        channel, channel);
    if (stmt != nullptr) {
      while (sqlite3_step(stmt) == SQLITE_ROW)
        equal.emplace_back(sqlite3_column_int(stmt, 0), sqlite3_column_int(stmt, 1));
      parts_->errors.report_reset(sqlite3_reset(stmt), MERGE_HERE);
    }
  }
  for (const auto& [scan_row, master_row] : equal) {
    KLOG(VERB_PROGRESS, "%d = ", scan_row);
    KLOG(VERB_PROGRESS, "%d ", master_row);
    parts_->errors.report_run(
        run_cached(dvbnr, "UPDATE estreams_scan_DVBNR SET row_status = $row_status where OID = $oid", ROW_CONFIRMED,
                   scan_row)
            .result,
        MERGE_HERE);
    parts_->errors.report_run(
        run_cached(dvbnr, "UPDATE estreams SET row_status = $row_status where OID = $oid", ROW_CONFIRMED, master_row)
            .result,
        MERGE_HERE);
  }
  KLOG(VERB_PROGRESS, "\n");

  const Run added = run_cached(
      dvbnr,
      "INSERT INTO estreams SELECT * from estreams_scan_DVBNR where row_status = $row_status and channel = $channel",
      ROW_NEW, channel);
  parts_->errors.report_run(added.result, MERGE_HERE);
  if (added.changes != 0) {
    KLOG(VERB_INFO, "Added %d estream entries for channel %d\n", added.changes, channel);
    merge->streams_added += added.changes;
  } else if (equal.empty()) {
    return;  // its PMT was not received: the streams stay as they are
  }

  const Run deleted = run_cached(dvbnr, "DELETE FROM estreams WHERE  row_status = $row_status AND channel = $channel",
                                 ROW_OLD, channel);
  parts_->errors.report_run(deleted.result, MERGE_HERE);
  if (deleted.changes != 0) {
    KLOG(VERB_INFO, "Deleted %d estream entries for channel %d\n", deleted.changes, channel);
    merge->streams_deleted += deleted.changes;
  }
}

int Sdbl::set_master_scan_timeout(DVB_TYPE_ID dvb_type, HF_CONN_ID hf_conn, int freq) {
  KLOG(VERB_WARNING, "WARNING: Setting timeout for mux %d\n", freq);
  const Run run = run_cached(0,
                             "UPDATE kanalid SET scan_state = $state WHERE dvb_type = $dvb_type AND hf_conn = $hf_conn "
                             "AND freq = $freq;",
                             SERVICE_TIMED_OUT, dvb_type, hf_conn, freq);
  return parts_->errors.report_run(run.result, SDBL_HERE);
}
