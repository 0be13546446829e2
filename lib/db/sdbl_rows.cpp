#include <sqlite3.h>

#include <memory>

#include "base/log.h"
#include "db/sdbl.h"
#include "db/sdbl_internal.h"

using sdbl::Db_lock;

int Sdbl::append_table_oid(int oid, const char* table, const char* column, const char* text) {
  return parts_->errors.report_exec(
      sql_exec(db, "UPDATE %s SET %s =  %s || %Q WHERE OID = %d;", table, column, column, text, oid), SDBL_HERE);
}

int Sdbl::modify_table_oid(int oid, const char* table, const char* column, const char* text) {
  return parts_->errors.report_exec(sql_exec(db, "UPDATE %s SET %s = %Q WHERE OID = %d;", table, column, text, oid),
                                    SDBL_HERE);
}

int Sdbl::modify_table_oid(int oid, const char* table, const char* column, int value) {
  return parts_->errors.report_exec(sql_exec(db, "UPDATE %s SET %s = %d WHERE OID = %d;", table, column, value, oid),
                                    SDBL_HERE);
}

int Sdbl::append_lang_table_oid(int source_oid, const char* table, const char* lang, const char* column,
                                const char* text) {
  int oid = 0;
  const int rc = parts_->errors.report_get_int(
      sql_get_int(&oid, 0, "SELECT oid from %s WHERE source_oid = %d AND lang = %Q;", table, source_oid, lang),
      SDBL_HERE);
  if (rc != 0) {
    KLOG(VERB_PROGRESS, "Attempting append on non-existing entry");
    return SQLITE_DONE;
  }
  return parts_->errors.report_exec(
      sql_exec(db, "UPDATE %s SET %s = %s || %Q where oid = %d", table, column, column, text, oid), SDBL_HERE);
}

int Sdbl::modify_lang_table_oid(int source_oid, const char* table, const char* lang, const char* column,
                                const char* text) {
  int oid = 0;
  const int rc = parts_->errors.report_get_int(
      sql_get_int(&oid, 0, "SELECT oid from %s WHERE source_oid = %d AND lang = %Q;", table, source_oid, lang),
      SDBL_HERE);
  if (rc != 0)
    return parts_->errors.report_exec(sql_exec(db, "INSERT into %s (source_oid, lang, %s) VALUES (%d, %Q, %Q)", table,
                                               column, source_oid, lang, text),
                                      SDBL_HERE);
  return parts_->errors.report_exec(sql_exec(db, "UPDATE %s SET %s = %Q where oid = %d", table, column, text, oid),
                                    SDBL_HERE);
}

int Sdbl::get_pat_prnr(int channel, int freq) {
  int pat_prnr = -1;
  const int rc =
      sql_get_int(&pat_prnr, 0, "SELECT pat_prnr FROM kanalid WHERE channel = %d AND freq = %d;", channel, freq);
  if (rc != 0) {
    parts_->errors.report_get_int(rc, SDBL_HERE);
    KLOG(VERB_ERROR, "ERROR: No freq %d channel %d entry in kanalid", freq, channel);
  }
  return pat_prnr;
}

int Sdbl::get_freq(int channel) {
  int freq = -1;
  parts_->errors.report_get_int(sql_get_int(&freq, 0, "SELECT freq FROM kanalid WHERE channel = %d;", channel),
                                SDBL_HERE);
  return freq;
}

std::string* Sdbl::get_serv_name(DVB_TYPE_ID dvb_type, HF_CONN_ID hf_conn, int freq, int pat_prnr) {
  auto name = std::make_unique<std::string>();
  parts_->errors.report_get_txt(
      sql_get_txt(name.get(), 0,
                  "SELECT serv_name FROM kanalid WHERE dvb_type = %d AND hf_conn = %d AND freq = %d AND "
                  "pat_prnr = %d;",
                  dvb_type, hf_conn, freq, pat_prnr),
      SDBL_HERE);
  KLOG(VERB_TRACE, "Serv name is %s\n", name->c_str());
  return name.release();
}

int Sdbl::fill_pids_for_channel(int channel, std::vector<CA_pid*>* pids) {
  Db_lock lock(db);
  sqlite3_stmt* stmt = sql_cache(false, 0,
                                 "SELECT es_pid, ca_sysid, ca_pid from estreams where  channel = $channel AND ca_sysid "
                                 "!= 0 AND ca_pid != 0;",
                                 channel);
  if (stmt == nullptr)
    return 1;
  while (sqlite3_step(stmt) == SQLITE_ROW) {
    auto pid = std::make_unique<CA_pid>(
        CA_pid{sqlite3_column_int(stmt, 0), sqlite3_column_int(stmt, 2), sqlite3_column_int(stmt, 1), 0});
    pids->push_back(pid.get());
    (void)pid.release();  // the vector's owner has it
  }
  return parts_->errors.report_reset(sqlite3_reset(stmt), SDBL_HERE);
}
