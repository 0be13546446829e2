// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/scan_tables.h"

#include <string>
#include <vector>

#include "base/log.h"

namespace sdbl {

void Scan_tables::create_temp_tables(int n) {
  sql_.exec(__func__, "DROP TABLE IF EXISTS kanalid_scan_%d;", n);
  sql_.exec(__func__, "DROP TABLE IF EXISTS kanalid_lang_scan_%d;", n);
  sql_.exec(__func__, "DROP TABLE IF EXISTS estreams_scan_%d", n);

  const std::string number = std::to_string(n);
  schema_.create_table_kanalid(("kanalid_scan_" + number).c_str(), true);
  schema_.create_table_kanalid_lang(("kanalid_lang_scan_" + number).c_str(), true);
  schema_.create_table_estreams(("estreams_scan_" + number).c_str(), true);
}

void Scan_tables::clear_temp_tables(int n) {
  sql_.exec(__func__, "DELETE FROM estreams_scan_%d;", n);
  sql_.exec(__func__, "DELETE FROM kanalid_scan_%d;", n);
  sql_.exec(__func__, "DELETE FROM kanalid_lang_scan_%d;", n);
}

int Scan_tables::pat_for_network(int dvbnr, const Multiplex& multiplex, int pat_prnr, int ts_id, int pmt_pid) {
  return statements_
      .run(__func__, dvbnr,
           "INSERT INTO kanalid_scan_DVBNR (channel, dvb_type, hf_conn, freq, pat_prnr, tstream_id, "
           "pmt_pid ) VALUES (NULL, $dvb_type, $conn, $freq,$pat_prnr,$ts_id, $pmt_id);",
           number(multiplex.input.delivery), number(multiplex.input.connector), multiplex.freq, pat_prnr, ts_id,
           pmt_pid)
      .rowid;
}

int Scan_tables::sdt_for_service(int dvbnr, const Multiplex& multiplex, int pat_prnr, int run_status, int free_ca) {
  const int channel = statements_.first_number(
      __func__, dvbnr,
      "SELECT channel FROM kanalid_scan_DVBNR WHERE hf_conn = $hf_conn AND dvb_type = "
      "$dvb_type AND freq = $freq AND pat_prnr = $pat_prnr;",
      number(multiplex.input.connector), number(multiplex.input.delivery), multiplex.freq, pat_prnr);
  statements_.run(__func__, dvbnr,
                  "UPDATE kanalid_scan_DVBNR SET run_status = $run_status, free_ca = $free_ca WHERE channel = $oid;",
                  run_status, free_ca, channel);
  return channel;
}

int Scan_tables::pmt_channel_number(int dvbnr, const Multiplex& multiplex, int pat_prnr, int pcr_pid,
                                    SCAN_STATE state) {
  const int hf_conn = number(multiplex.input.connector);
  const int dvb_type = number(multiplex.input.delivery);
  if (state != SCAN_PAT)
    return statements_.first_number(
        __func__, dvbnr,
        "SELECT channel FROM kanalid WHERE hf_conn = $hf_conn AND dvb_type = $dvb_type AND freq = "
        "$freq AND pat_prnr = $pat_prnr",
        hf_conn, dvb_type, multiplex.freq, pat_prnr);
  const int channel =
      statements_.first_number(__func__, dvbnr,
                               "SELECT channel FROM kanalid_scan_DVBNR WHERE hf_conn = $hf_conn AND dvb_type = "
                               "$dvb_type AND freq = $freq AND pat_prnr = $pat_prnr",
                               hf_conn, dvb_type, multiplex.freq, pat_prnr);
  if (pcr_pid == 0)
    KLOG(VERB_WARNING, "WARNING: pmt_for_service:  pcr_pid = 0\n");
  statements_.run(__func__, dvbnr, "UPDATE kanalid_scan_DVBNR SET pcr_pid = $pcr_pid WHERE channel = $channel;",
                  pcr_pid, channel);
  return channel;
}

int Scan_tables::pmt_for_service(int dvbnr, int channel, int es_pid, int es_type, int es_subtype, const char* codec,
                                 const char* languages, const char* lang_codes, int ca_sysid, int ca_pid,
                                 std::list<PMT_subtxt_lang*>* subtxt) {
  std::lock_guard<Mutex> writing(connection_.second_lock);
  Insert insert(
      statements_, __func__, dvbnr,
      "INSERT INTO estreams_scan_DVBNR (channel, es_pid, es_type, es_subtype, codec, languages, lang_codes, p1, p2, "
      "ca_sysid, ca_pid)VALUES ($channel,$es_pid, $es_type, $es_subtype, @codec, @languages, @lang_codes, $p1, $p2, "
      "$ca_sysid, $ca_pid)",
      channel, es_pid, es_type, es_subtype, codec, languages, lang_codes, 0, 0, ca_sysid, ca_pid);
  if (subtxt == nullptr || subtxt->empty()) {
    KLOG(VERB_TRACE, "Inserting AV entry \n");
    insert.run();
    return 1;
  }

  KLOG(VERB_TRACE, "Inserting SUB/TXT entry \n");
  for (const PMT_subtxt_lang* entry : *subtxt) {
    insert.set("$es_subtype", entry->es_subtype);
    insert.set("@languages", entry->lang);
    insert.set("$p1", entry->p1);
    insert.set("$p2", entry->p2);
    insert.run();
    delete entry;
  }
  subtxt->clear();
  return 1;
}

int Scan_tables::nit_for_network(int dvbnr, const Multiplex& multiplex, const char* column, int value) {
  const int hf_conn = number(multiplex.input.connector);
  const int dvb_type = number(multiplex.input.delivery);
  sql_.exec(__func__, "UPDATE kanalid_scan_%d SET %s = %d WHERE hf_conn = %d AND dvb_type = %d AND freq = %d;", dvbnr,
            column, value, hf_conn, dvb_type, multiplex.freq);
  int channel = 0;
  sql_.get_int(__func__, &channel,
               "SELECT channel FROM kanalid_scan_%d WHERE hf_conn = %d AND dvb_type = %d AND freq = %d AND %s = %d;",
               dvbnr, hf_conn, dvb_type, multiplex.freq, column, value);
  return channel;
}

int Scan_tables::nit_lcn(int dvbnr, const Input& input, int ts_id, int onet_id, int serv_id, int lcn) {
  const int hf_conn = number(input.connector);
  const int dvb_type = number(input.delivery);
  KLOG(VERB_TRACE, "Set LCN = %d at dvb_nr %d, type %d, conn %d, net_id %d, serv_id %d, ts_id %d\n", lcn, dvbnr,
       dvb_type, hf_conn, onet_id, serv_id, ts_id);
  return statements_
      .run(__func__, dvbnr,
           "UPDATE kanalid_scan_DVBNR SET lcn = $lcn WHERE hf_conn = $hf_conn AND dvb_type = "
           "$dvb_type AND orig_network_id = $onet_id AND pat_prnr = $serv_id AND tstream_id = "
           "$ts_id;",
           lcn, hf_conn, dvb_type, onet_id, serv_id, ts_id)
      .result;
}

int Scan_tables::nit_network_name(int dvbnr, const Multiplex& multiplex, int netid, const char* name) {
  return statements_
      .run(__func__, dvbnr,
           "UPDATE kanalid_scan_DVBNR SET network_name = @netname WHERE hf_conn = $hf_conn AND "
           "dvb_type = $dvb_type AND freq = $freq AND network_id = $netid",
           name, number(multiplex.input.connector), number(multiplex.input.delivery), multiplex.freq, netid)
      .result;
}

int Scan_tables::nit_multilingual_network_name(int dvbnr, const Multiplex& multiplex, int net_id, const char* lang,
                                               const char* name) {
  Rows rows(statements_, __func__, dvbnr,
            "SELECT oid from kanalid_scan_DVBNR where  hf_conn = $hf_conn AND dvb_type = "
            "$dvb_type AND freq = $freq AND network_id = $net_id;",
            number(multiplex.input.connector), number(multiplex.input.delivery), multiplex.freq, net_id);
  if (!rows.bound())
    return statements_.report_missing(__func__);
  std::vector<int> oids;
  while (rows.next())
    oids.push_back(rows.number(0));
  const int rc = rows.end();
  KLOG(VERB_TRACE, "OIDs for freq %d lang %s network %s are: ", multiplex.freq, lang, name);
  for (const int oid : oids)
    KLOG(VERB_TRACE, "%d ", oid);
  KLOG(VERB_TRACE, "\n");

  for (const int oid : oids) {
    const int lang_oid = statements_.first_number(
        __func__, dvbnr, "SELECT oid from kanalid_lang_scan_DVBNR WHERE source_oid = $oid and lang = @lang;", oid,
        lang);
    if (lang_oid != 0)
      statements_.run(__func__, dvbnr, "UPDATE kanalid_lang_scan_DVBNR SET network_name = @net_name WHERE oid = $oid;",
                      name, lang_oid);
    else
      statements_.run(__func__, dvbnr,
                      "INSERT INTO kanalid_lang_scan_DVBNR (source_oid, lang, network_name) VALUES ( $koid, "
                      "@lang_code, @net_name);",
                      oid, lang, name);
  }
  return rc;
}

}  // namespace sdbl
