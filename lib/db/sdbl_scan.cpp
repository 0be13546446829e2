#include <sqlite3.h>

#include "base/log.h"
#include "db/sdbl.h"
#include "db/sdbl_internal.h"

using sdbl::Db_lock;

namespace {

// Binds a parameter by its name, sign included. `name` of the message is without it.
void rebind_int(sqlite3_stmt* stmt, const char* name, int value) {
  const int index = sqlite3_bind_parameter_index(stmt, name);
  if (index == 0)
    KLOG(VERB_ERROR, "ERROR: Cannot bind integer %s in %s %d\n", name + 1, __FILE__, __LINE__);
  else
    (void)sqlite3_bind_int(stmt, index, value);  // cannot fail for an index that exists
}

void rebind_text(sqlite3_stmt* stmt, const char* name, const std::string& text) {
  const int index = sqlite3_bind_parameter_index(stmt, name);
  if (index == 0)
    KLOG(VERB_ERROR, "ERROR: Cannot bind text %s in %s %d\n", name + 1, __FILE__, __LINE__);
  else
    (void)sqlite3_bind_text(stmt, index, text.c_str(), -1, SQLITE_TRANSIENT);  // fails without memory only
}

}  // namespace

int Sdbl::pat_for_network(int dvbnr, DVB_TYPE_ID dvb_type, HF_CONN_ID hf_conn, int freq, int pat_prnr, int ts_id,
                          int pmt_pid) {
  const Run run = run_cached(dvbnr,
                             "INSERT INTO kanalid_scan_DVBNR (channel, dvb_type, hf_conn, freq, pat_prnr, tstream_id, "
                             "pmt_pid ) VALUES (NULL, $dvb_type, $conn, $freq,$pat_prnr,$ts_id, $pmt_id);",
                             dvb_type, hf_conn, freq, pat_prnr, ts_id, pmt_pid);
  parts_->errors.report_run(run.result, SDBL_HERE);
  return run.rowid;
}

int Sdbl::sdt_for_service(int dvbnr, DVB_TYPE_ID dvb_type, HF_CONN_ID hf_conn, int freq, int pat_prnr, int run_status,
                          int free_ca) {
  const int channel = first_number(SDBL_HERE, dvbnr,
                                   "SELECT channel FROM kanalid_scan_DVBNR WHERE hf_conn = $hf_conn AND dvb_type = "
                                   "$dvb_type AND freq = $freq AND pat_prnr = $pat_prnr;",
                                   hf_conn, dvb_type, freq, pat_prnr);
  const Run run = run_cached(
      dvbnr, "UPDATE kanalid_scan_DVBNR SET run_status = $run_status, free_ca = $free_ca WHERE channel = $oid;",
      run_status, free_ca, channel);
  parts_->errors.report_run(run.result, SDBL_HERE);
  return channel;
}

int Sdbl::pmt_channel_number(int dvbnr, DVB_TYPE_ID dvb_type, HF_CONN_ID hf_conn, int freq, int pat_prnr, int pcr_pid,
                             SCAN_STATE state) {
  if (state != SCAN_PAT)
    return first_number(SDBL_HERE, dvbnr,
                        "SELECT channel FROM kanalid WHERE hf_conn = $hf_conn AND dvb_type = $dvb_type AND freq = "
                        "$freq AND pat_prnr = $pat_prnr",
                        hf_conn, dvb_type, freq, pat_prnr);
  const int channel = first_number(SDBL_HERE, dvbnr,
                                   "SELECT channel FROM kanalid_scan_DVBNR WHERE hf_conn = $hf_conn AND dvb_type = "
                                   "$dvb_type AND freq = $freq AND pat_prnr = $pat_prnr",
                                   hf_conn, dvb_type, freq, pat_prnr);
  if (pcr_pid == 0)
    KLOG(VERB_WARNING, "WARNING: pmt_for_service:  pcr_pid = 0\n");
  const Run run =
      run_cached(dvbnr, "UPDATE kanalid_scan_DVBNR SET pcr_pid = $pcr_pid WHERE channel = $channel;", pcr_pid, channel);
  parts_->errors.report_run(run.result, SDBL_HERE);
  return channel;
}

int Sdbl::pmt_for_service(int dvbnr, int channel, int es_pid, int es_type, int es_subtype, const char* codec,
                          const char* languages, const char* lang_codes, int ca_sysid, int ca_pid,
                          std::list<PMT_subtxt_lang*>* subtxt) {
  sqlite3_stmt* stmt = sql_cache(
      false, dvbnr,
      "INSERT INTO estreams_scan_DVBNR (channel, es_pid, es_type, es_subtype, codec, languages, lang_codes, p1, p2, "
      "ca_sysid, ca_pid)VALUES ($channel,$es_pid, $es_type, $es_subtype, @codec, @languages, @lang_codes, $p1, $p2, "
      "$ca_sysid, $ca_pid)",
      channel, es_pid, es_type, es_subtype, codec, languages, lang_codes, 0, 0, ca_sysid, ca_pid);

  std::lock_guard<std::mutex> writing(second_lock);
  if (subtxt == nullptr || subtxt->empty()) {
    KLOG(VERB_TRACE, "Inserting AV entry \n");
    if (stmt != nullptr) {
      parts_->errors.report_run(sqlite3_step(stmt), SDBL_HERE);
      parts_->errors.report_reset(sqlite3_reset(stmt), SDBL_HERE);
    }
    return 1;
  }

  KLOG(VERB_TRACE, "Inserting SUB/TXT entry \n");
  for (const PMT_subtxt_lang* entry : *subtxt) {
    if (stmt != nullptr) {
      rebind_int(stmt, "$es_subtype", entry->es_subtype);
      rebind_text(stmt, "@languages", entry->lang);
      rebind_int(stmt, "$p1", entry->p1);
      rebind_int(stmt, "$p2", entry->p2);
      parts_->errors.report_run(sqlite3_step(stmt), SDBL_HERE);
      parts_->errors.report_reset(sqlite3_reset(stmt), SDBL_HERE);
    }
    delete entry;
  }
  subtxt->clear();
  return 1;
}

int Sdbl::nit_for_network(int dvbnr, int dvb_type, int hf_conn, int freq, const char* column, int value) {
  parts_->errors.report_exec(
      sql_exec(db, "UPDATE kanalid_scan_%d SET %s = %d WHERE hf_conn = %d AND dvb_type = %d AND freq = %d;", dvbnr,
               column, value, hf_conn, dvb_type, freq),
      SDBL_HERE);
  int channel = 0;
  parts_->errors.report_get_int(
      sql_get_int(&channel, 0,
                  "SELECT channel FROM kanalid_scan_%d WHERE hf_conn = %d AND dvb_type = %d AND freq = %d AND %s = %d;",
                  dvbnr, hf_conn, dvb_type, freq, column, value),
      SDBL_HERE);
  return channel;
}

int Sdbl::nit_lcn(int dvbnr, int dvb_type, int hf_conn, int ts_id, int onet_id, int serv_id, int lcn) {
  KLOG(VERB_TRACE, "Set LCN = %d at dvb_nr %d, type %d, conn %d, net_id %d, serv_id %d, ts_id %d\n", lcn, dvbnr,
       dvb_type, hf_conn, onet_id, serv_id, ts_id);
  const Run run = run_cached(dvbnr,
                             "UPDATE kanalid_scan_DVBNR SET lcn = $lcn WHERE hf_conn = $hf_conn AND dvb_type = "
                             "$dvb_type AND orig_network_id = $onet_id AND pat_prnr = $serv_id AND tstream_id = "
                             "$ts_id;",
                             lcn, hf_conn, dvb_type, onet_id, serv_id, ts_id);
  return parts_->errors.report_run(run.result, SDBL_HERE);
}

int Sdbl::nit_network_name(int dvbnr, int dvb_type, int hf_conn, int freq, int netid, const char* name) {
  const Run run = run_cached(dvbnr,
                             "UPDATE kanalid_scan_DVBNR SET network_name = @netname WHERE hf_conn = $hf_conn AND "
                             "dvb_type = $dvb_type AND freq = $freq AND network_id = $netid",
                             name, hf_conn, dvb_type, freq, netid);
  return parts_->errors.report_run(run.result, SDBL_HERE);
}

int Sdbl::nit_multilingual_network_name(int dvbnr, int dvb_type, int hf_conn, int freq, int net_id, const char* lang,
                                        const char* name) {
  std::vector<int> oids;
  int rc = 1;
  {
    Db_lock lock(db);
    sqlite3_stmt* stmt = sql_cache(false, dvbnr,
                                   "SELECT oid from kanalid_scan_DVBNR where  hf_conn = $hf_conn AND dvb_type = "
                                   "$dvb_type AND freq = $freq AND network_id = $net_id;",
                                   hf_conn, dvb_type, freq, net_id);
    if (stmt == nullptr)
      return parts_->errors.report_run(rc, SDBL_HERE);
    while (sqlite3_step(stmt) == SQLITE_ROW)
      oids.push_back(sqlite3_column_int(stmt, 0));
    rc = parts_->errors.report_reset(sqlite3_reset(stmt), SDBL_HERE);
  }
  KLOG(VERB_TRACE, "OIDs for freq %d lang %s network %s are: ", freq, lang, name);
  for (const int oid : oids)
    KLOG(VERB_TRACE, "%d ", oid);
  KLOG(VERB_TRACE, "\n");

  for (const int oid : oids) {
    const int lang_oid =
        first_number(SDBL_HERE, dvbnr,
                     "SELECT oid from kanalid_lang_scan_DVBNR WHERE source_oid = $oid and lang = @lang;", oid, lang);
    const Run run =
        lang_oid != 0
            ? run_cached(dvbnr, "UPDATE kanalid_lang_scan_DVBNR SET network_name = @net_name WHERE oid = $oid;", name,
                         lang_oid)
            : run_cached(dvbnr,
                         "INSERT INTO kanalid_lang_scan_DVBNR (source_oid, lang, network_name) VALUES ( $koid, "
                         "@lang_code, @net_name);",
                         oid, lang, name);
    parts_->errors.report_run(run.result, SDBL_HERE);
  }
  return rc;
}
