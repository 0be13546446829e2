// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <memory>
#include <string>
#include <vector>

#include "base/multiplex.h"
#include "db/ca_pid.h"
#include "db/one_shot.h"
#include "db/statements.h"

namespace sdbl {

// Single rows: readers of the channel list, and writers of one column of a row. The operations are those of Sdbl with
// the same names, which has their contracts. Any-thread.
class Channel_list {
 public:
  Channel_list(One_shot& sql, const Statements& statements) : sql_(sql), statements_(statements) {}

  int append_table_oid(int oid, const char* table, const char* column, const char* text);
  int modify_table_oid(int oid, const char* table, const char* column, const char* text);
  int modify_table_oid(int oid, const char* table, const char* column, int value);
  int append_lang_table_oid(int source_oid, const char* table, const char* lang, const char* column, const char* text);
  int modify_lang_table_oid(int source_oid, const char* table, const char* lang, const char* column, const char* text);

  int get_pat_prnr(int channel, int freq);
  int get_freq(int channel);
  // Of a multiplex, -1 when no service of it is stored. Not an operation of Sdbl.
  int original_network_id(const Multiplex& multiplex);
  std::unique_ptr<std::string> get_serv_name(const Multiplex& multiplex, int pat_prnr);
  int fill_pids_for_channel(int channel, std::vector<CA_pid*>* pids);

 private:
  One_shot& sql_;
  const Statements& statements_;
};

}  // namespace sdbl
