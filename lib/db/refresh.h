// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <map>
#include <string>
#include <vector>

#include "base/multiplex.h"
#include "base/types.h"
#include "db/channel_change.h"
#include "db/channel_row.h"
#include "db/placement.h"
#include "db/scan_details.h"
#include "db/scan_merge.h"
#include "db/sdbl_parts.h"
#include "db/stream_merge.h"
#include "db/transaction.h"

namespace sdbl {

// Brings kanalid, kanalid_lang, estreams and service_detail up to date with the scan tables of adapter `dvbnr`, so that
// known services follow the air: Placement says which rows they are, plan_numbers() their channel numbers. What was not
// received this time, or is empty, stays as it is known. One transaction: a failure leaves the file as it was. One
// object does one merge, on the thread that calls run().
class Refresh {
 public:
  Refresh(Sdbl::Parts& database, int dvbnr, const Multiplex& multiplex)
      : db_(database), dvbnr_(dvbnr), multiplex_(multiplex), streams_(database.statements, dvbnr, multiplex) {}

  // Scan_merger has the contract.
  Merge_end run(SCAN_STATE state, const Scan_details& details, std::vector<Channel_change>* changes);
  // Sdbl::keep_moved_channels has the contract. Of `multiplex` the input counts alone.
  Merge_end leave(const std::vector<int>& freqs, std::vector<Channel_change>* changes);

 private:
  // A service of the scan tables.
  struct Scanned {
    int oid = 0;
    Channel_row row;
    size_t place = 0;  // its row
    int channel = 0;
  };
  using Rows_by_channel = std::map<int, Channel_row>;

  Merge_end not_begun(const Transaction& transaction);
  bool read_scanned(const Scan_details& details);
  void read_known();
  void place_services(const Scan_details& details);
  void take_values(Channel_row& row, const Scanned& scanned, const Scan_details& details);
  void take_numbers(const Scan_details& details);
  void take_names(const Scan_details& details);
  void add_up(std::vector<Channel_change>* changes) const;

  void keep_number(int older, int newer);
  bool write();
  bool write_row(const Channel_row& row, const Channel_row* before);
  bool insert_row(Channel_row& row);
  bool write_exchanges();
  bool has_stream_tables() const;
  void forget_guides();
  bool write_languages(const Scanned& scanned);

  Sdbl::Parts& db_;
  const int dvbnr_;
  const Multiplex multiplex_;
  Stream_merge streams_;

  int now_ = 0;
  std::vector<Scanned> scanned_;
  Rows_by_channel before_;
  std::vector<Channel_row> rows_;
  std::vector<Placement::Exchange> exchanged_;
  std::vector<int> dropped_;
  std::map<int, unsigned> translated_;  // channels
  int added_ = 0;
  int lost_ = 0;
};

}  // namespace sdbl
