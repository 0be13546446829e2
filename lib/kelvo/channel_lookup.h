// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>
#include <vector>

#include "base/export.h"
#include "db/listed_channel.h"

class Sdbl;

// The channel list as a host shows it, and the channel that a viewer means by a number or a name. Reads what is stored
// and changes nothing.
//
//   std::vector<Listed_channel> found;
//   if (Channel_lookup(&database).by_number(101, &found) && !found.empty())
//     kelvo.tune_to_freq(found.front().freq, found.front().channel, nullptr, nullptr);
//
// What surprises:
//   - Several services may have one number or one name: networks of two regions, a multiplex that two transmitters
//     send; with Receiver_profile::Channel_numbers::ALL clashes of numbers have been resolved (docs/database.md). All
//     are given; the first is the one that a viewer means.
//   - A channel of the list may have vanished when it is used: look it up anew after DB_CHANNELS_CHANGED.
//
// Order, here and below: by number, those without one last; of one number those on air before lost ones, visible before
// hidden ones, television, radio, others, and then by row. Those without a number stand by kind and name.
//
// Failure: an operation that cannot read the database (closed, damaged, or locked by another program for two seconds)
// is printed by it, returns false and leaves `channels` alone. That nothing is found is none: true, and an empty list.
//
// Threads: any-thread. Each operation reads in one go what is stored then, so a merge is seen whole or not at all.
// Callbacks may use it.
class KELVO_EXPORT Channel_lookup {
 public:
  enum Which : int {
    SHOWN = 0,  // what a viewer's list has: neither lost nor hidden
    ALL = 1,
  };

  // `database` is not owned and outlives this object.
  explicit Channel_lookup(const Sdbl* database) : database_(database) {}

  // Replaces the contents of `channels` by the list in its order.
  bool list(std::vector<Listed_channel>* channels, Which which = SHOWN) const;

  // The services with this logical channel number, hidden and lost ones too. 0, negative numbers and 65535 are none.
  bool by_number(int number, std::vector<Listed_channel>* channels) const;

  // The services with this name, in any of their languages, hidden and lost ones too; where there is none, those whose
  // name has it as a part. Capital and small letters are the same, beyond ASCII where the system has the locale
  // C.UTF-8, whatever the host's own locale is. `name` is UTF-8; an empty one names nothing.
  bool by_name(const std::string& name, std::vector<Listed_channel>* channels) const;

 private:
  const Sdbl* database_;
};
