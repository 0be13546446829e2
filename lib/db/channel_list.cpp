// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/channel_list.h"

#include "base/log.h"

namespace sdbl {

int Channel_list::append_table_oid(int oid, const char* table, const char* column, const char* text) {
  return sql_.exec(__func__, "UPDATE %s SET %s =  %s || %Q WHERE OID = %d;", table, column, column, text, oid);
}

int Channel_list::modify_table_oid(int oid, const char* table, const char* column, const char* text) {
  return sql_.exec(__func__, "UPDATE %s SET %s = %Q WHERE OID = %d;", table, column, text, oid);
}

int Channel_list::modify_table_oid(int oid, const char* table, const char* column, int value) {
  return sql_.exec(__func__, "UPDATE %s SET %s = %d WHERE OID = %d;", table, column, value, oid);
}

int Channel_list::append_lang_table_oid(int source_oid, const char* table, const char* lang, const char* column,
                                        const char* text) {
  int oid = 0;
  if (sql_.get_int(__func__, &oid, "SELECT oid from %s WHERE source_oid = %d AND lang = %Q;", table, source_oid,
                   lang) != 0) {
    KLOG(VERB_PROGRESS, "Attempting append on non-existing entry");
    return SQLITE_DONE;
  }
  return sql_.exec(__func__, "UPDATE %s SET %s = %s || %Q where oid = %d", table, column, column, text, oid);
}

int Channel_list::modify_lang_table_oid(int source_oid, const char* table, const char* lang, const char* column,
                                        const char* text) {
  int oid = 0;
  if (sql_.get_int(__func__, &oid, "SELECT oid from %s WHERE source_oid = %d AND lang = %Q;", table, source_oid,
                   lang) != 0)
    return sql_.exec(__func__, "INSERT into %s (source_oid, lang, %s) VALUES (%d, %Q, %Q)", table, column, source_oid,
                     lang, text);
  return sql_.exec(__func__, "UPDATE %s SET %s = %Q where oid = %d", table, column, text, oid);
}

int Channel_list::get_pat_prnr(int channel, int freq) {
  int pat_prnr = -1;
  if (sql_.get_int(__func__, &pat_prnr, "SELECT pat_prnr FROM kanalid WHERE channel = %d AND freq = %d;", channel,
                   freq) != 0)
    KLOG(VERB_ERROR, "ERROR: No freq %d channel %d entry in kanalid", freq, channel);
  return pat_prnr;
}

int Channel_list::get_freq(int channel) {
  int freq = -1;
  sql_.get_int(__func__, &freq, "SELECT freq FROM kanalid WHERE channel = %d;", channel);
  return freq;
}

int Channel_list::original_network_id(const Multiplex& multiplex) {
  Rows rows(statements_, __func__, 0,
            "SELECT orig_network_id FROM kanalid WHERE hf_conn = $hf_conn AND dvb_type = $dvb_type AND freq = $freq",
            number(multiplex.input.connector), number(multiplex.input.delivery), multiplex.freq);
  return rows.next() ? rows.number(0) : -1;
}

std::unique_ptr<std::string> Channel_list::get_serv_name(const Multiplex& multiplex, int pat_prnr) {
  auto name = std::make_unique<std::string>();
  sql_.get_txt(__func__, name.get(),
               "SELECT serv_name FROM kanalid WHERE dvb_type = %d AND hf_conn = %d AND freq = %d AND "
               "pat_prnr = %d;",
               number(multiplex.input.delivery), number(multiplex.input.connector), multiplex.freq, pat_prnr);
  KLOG(VERB_TRACE, "Serv name is %s\n", name->c_str());
  return name;
}

int Channel_list::fill_pids_for_channel(int channel, std::vector<CA_pid*>* pids) {
  Rows rows(statements_, __func__, 0,
            "SELECT es_pid, ca_sysid, ca_pid from estreams where  channel = $channel AND ca_sysid "
            "!= 0 AND ca_pid != 0;",
            channel);
  if (!rows.bound())
    return 1;
  while (rows.next()) {
    auto pid = std::make_unique<CA_pid>(CA_pid{rows.number(0), rows.number(2), rows.number(1), 0});
    pids->push_back(pid.get());
    (void)pid.release();  // the vector's owner has it
  }
  return rows.end();
}

}  // namespace sdbl
