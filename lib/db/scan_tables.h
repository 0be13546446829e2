// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <list>

#include "base/multiplex.h"
#include "base/types.h"
#include "db/pmt_subtxt_lang.h"
#include "db/schema.h"
#include "db/statements.h"

namespace sdbl {

// What a scan finds, until it is merged: the TEMP tables kanalid_scan_N, kanalid_lang_scan_N and estreams_scan_N of
// adapter N. The operations are those of Sdbl with the same names, which has their contracts. Worker-only.
class Scan_tables {
 public:
  Scan_tables(Connection& connection, One_shot& sql, const Statements& statements, Schema& schema)
      : connection_(connection), sql_(sql), statements_(statements), schema_(schema) {}

  void create_temp_tables(int n);
  void clear_temp_tables(int n);

  int pat_for_network(int dvbnr, const Multiplex& multiplex, int pat_prnr, int ts_id, int pmt_pid);
  int sdt_for_service(int dvbnr, const Multiplex& multiplex, int pat_prnr, int run_status, int free_ca);
  int pmt_for_service(int dvbnr, int channel, int es_pid, int es_type, int es_subtype, const char* codec,
                      const char* languages, const char* lang_codes, int ca_sysid, int ca_pid,
                      std::list<PMT_subtxt_lang*>* subtxt);
  int pmt_channel_number(int dvbnr, const Multiplex& multiplex, int pat_prnr, int pcr_pid, SCAN_STATE state);
  int nit_for_network(int dvbnr, const Multiplex& multiplex, const char* column, int value);
  int nit_lcn(int dvbnr, const Input& input, int ts_id, int onet_id, int serv_id, int lcn);
  int nit_network_name(int dvbnr, const Multiplex& multiplex, int netid, const char* name);
  int nit_multilingual_network_name(int dvbnr, const Multiplex& multiplex, int net_id, const char* lang,
                                    const char* name);

 private:
  Connection& connection_;
  One_shot& sql_;
  const Statements& statements_;
  Schema& schema_;
};

}  // namespace sdbl
