// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/export.h"
#include "db/programme.h"

class Sdbl;

// What is on a channel now, and what comes next, as the stored guide says. Reads it and changes nothing.
//
//   Now_next shown;
//   if (Now_and_next(&database).read(channel, {"est", "eng"}, &shown) && shown.now)
//     puts(shown.now->title.c_str());
//
// Times: an event is on from its start, that second included, to its start plus its duration, that second not; over
// midnight and changes of local time as well, because all times are UTC. One without a duration is never on, but may be
// next. Of several that are on, as where a block holds shorter programmes, `now` is the one that began last. `next` is
// the first one that starts later, also behind a gap, and also while `now` goes on beyond its start.
//
// An event that runs longer than announced is `now` for as long as the guide says. Where the guide is collected whole
// (Receiver_profile::Guide::WHOLE) the broadcast's own present and following correct that as soon as they change; table
// by table, the first announcement stays. Where the clock is wrong, so is `now`: see Kelvo::time_valid().
//
// Failure: where the guide cannot be read (no guide file is attached, it is damaged, or locked by another program for
// two seconds), the failure is printed, read() returns false and leaves `out` alone. A channel of which nothing is
// stored is none: true, and both empty.
//
// Threads: any-thread. A section of the guide is seen whole or not at all. Callbacks may use it.
class KELVO_EXPORT Now_and_next {
 public:
  // `database` is not owned and outlives this object.
  explicit Now_and_next(const Sdbl* database) : database_(database) {}

  // Fills `out` for `channel`, a row of kanalid, at the time `at`: seconds since 1970, UTC; without it by the system's
  // clock. `languages` are ISO 639 codes, best first, capital and small letters the same; an event whose title is in
  // none of them is shown as it was stored first. German is "ger" or "deu", French "fre" or "fra": name both.
  bool read(int channel, const std::vector<std::string>& languages, int64_t at, Now_next* out) const;
  bool read(int channel, const std::vector<std::string>& languages, Now_next* out) const;

 private:
  const Sdbl* database_;
};
