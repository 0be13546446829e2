// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>
#include <vector>

#include "db/channel_row.h"

namespace sdbl {

// A service as a scan has found it: who it may be.
struct Scanned_identity {
  int pat_prnr = 0;
  int orig_network_id = -1;  // -1 when it is not known
  int tstream_id = 0;
  std::string name;  // empty when it is not known
};

// Which rows are the services of a scan of one frequency. One object for each merge.
//
// A service is known by original network, transport stream and service id. On its frequency one of which either side
// does not know the ids is the same, and so is one whose ids have changed but whose name has not. One that is not on
// the frequency has moved there if its row elsewhere is lost; or if a single lost row of its original network, service
// id and name is there, of another transport stream. A row that is not lost stays where it is: until that frequency has
// been scanned nobody knows whether the service is gone from it, or is sent from two places. (See settle().)
//
// Connector, type, frequency and service id together are one row in the table. A row that another service takes the
// place of gets the frequency that this one leaves; where it leaves none, one a few kilohertz above its own
// (detail.set_aside), where it waits to be found elsewhere. Both are lost.
class Placement {
 public:
  // `rows` are all of one input.
  Placement(std::vector<Channel_row>& rows, int freq) : rows_(rows), freq_(freq) {}

  // The row of a scanned service, an index of `rows`; made when it is new. It is on the frequency then, whatever it was
  // before; the caller writes its values.
  size_t place(const Scanned_identity& service);

  // Marks the rows of the frequency that place() has not returned as lost. Returns how many were not before.
  int lose_others();

  // Of services of `freqs`, where nothing is received any more, those that a newer row has elsewhere are lost just now.
  void leave(const std::vector<int>& freqs);

  // A service that was lost just now may have been found elsewhere before, as a new row: the older row, with its
  // number, takes over its place and values, and the newer one is lost in its stead; or is no more, where the older one
  // was set aside. `exchanged` are the pairs of channels, `dropped` are channels without row now.
  struct Exchange {
    int older;
    int newer;
  };
  void settle(std::vector<Exchange>* exchanged, std::vector<int>* dropped);

 private:
  size_t find_here(int pat_prnr) const;
  size_t find_moved(const Scanned_identity& service) const;
  bool exists_elsewhere(const Scanned_identity& service) const;
  bool is_same(const Channel_row& row, const Scanned_identity& service) const;
  void displace(size_t row, size_t by);
  void lose(size_t row);
  size_t find_newer(const Channel_row& lost) const;

  std::vector<Channel_row>& rows_;
  const int freq_;
  std::vector<size_t> placed_;
  std::vector<int> lost_;  // channels
  int newly_lost_ = 0;
};

}  // namespace sdbl
