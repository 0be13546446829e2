// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "base/multiplex.h"
#include "base/types.h"
#include "db/statements.h"
#include "db/stream_merge.h"

namespace sdbl {

// Brings kanalid, kanalid_lang and estreams up to date with the scan tables of adapter `dvbnr`, as
// Sdbl::update_master_scan_data says. One object does one merge, on the thread that calls run().
class Merge {
 public:
  Merge(const Statements& statements, int dvbnr, const Multiplex& multiplex)
      : statements_(statements), dvbnr_(dvbnr), multiplex_(multiplex), streams_(statements, dvbnr, multiplex) {}

  // The bits of what changed.
  int run(SCAN_STATE state);

 private:
  struct Scanned_service {
    int oid;
    int net_id;
    int onet_id;
    int ts_id;
    int pat_prnr;
  };

  bool read_network_ids(Scanned_service* first) const;
  bool merge_services();
  int merge_service(const Scanned_service& service, int previous_channel);
  void confirm_channel(int channel);
  int add_channel(int scan_oid);
  int summary(SCAN_STATE state) const;

  const Statements& statements_;
  const int dvbnr_;
  const Multiplex multiplex_;
  Stream_merge streams_;
  int now_ = 0;
  int channels_added_ = 0;
  int channels_lost_ = 0;
};

// Sdbl::set_master_scan_timeout.
int set_master_scan_timeout(const Statements& statements, const Multiplex& multiplex);

}  // namespace sdbl
