// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <memory>
#include <vector>

#include "base/multiplex.h"
#include "base/types.h"
#include "db/channel_change.h"
#include "db/scan_details.h"
#include "db/scan_merge.h"
#include "db/sdbl.h"

namespace sdbl {

// A bit of merge()'s result beside those of Sdbl::update_master_scan_data: known services have changed.
inline constexpr int CHANNELS_REFRESHED = 256;

// How a finished scan becomes channels. Worker-only.
class Scan_merger {
 public:
  virtual ~Scan_merger() = default;

  // Brings the channel list up to date with the scan tables of adapter `dvbnr`, as Sdbl::update_master_scan_data says.
  // Replaces the contents of `changes` by what has become of known services. One that refreshes does all of it or
  // nothing (Merge_outcome::BUSY or FAILED: printed).
  virtual Merge_end merge(int dvbnr, const Multiplex& multiplex, SCAN_STATE state, const Scan_details& details,
                          std::vector<Channel_change>* changes) = 0;
};

// One that leaves known services as they are, or one that has them follow the air. `database` is not owned and outlives
// it.
std::unique_ptr<Scan_merger> make_scan_merger(Sdbl& database, bool refresh);

}  // namespace sdbl
