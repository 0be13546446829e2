// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <string>

#include "base/multiplex.h"
#include "base/mutex.h"
#include "db/statements.h"

namespace sdbl {

// What became of the box's zone.
enum class Zone_outcome {
  UNTOUCHED,  // not of the preferred network, or no zone's name
  RIGHT,      // it is that one already
  SET,        // compiled and installed
  FAILED,     // its source could not be written, compiled or copied
  KEPT,       // another one, and left so
};

// The box's time zone, from the local time offset that the preferred network broadcasts.
class Zone {
 public:
  explicit Zone(const Statements& statements) : statements_(statements) {}

  // Sdbl::set_preferred_provider. Any-thread.
  void set_preferred_provider(const char* name);

  // The same for an offset that counts whatever the network, which is compared with the zone's at `utc`, seconds since
  // 1970, to the minute. Worker-only.
  Zone_outcome follow(int offset_min, const char* zone_name, int zone_nr, int64_t utc, bool sets);

  // Sdbl::update_system_timezone; if not `sets`, the zone is compared only. Worker-only.
  Zone_outcome update(int offset_min, const char* zone_name, int zone_nr, const Multiplex& multiplex, bool sets);

 private:
  const Statements& statements_;
  Mutex lock_{Lock_rank::DATABASE_LEAF, "name of the zone"};  // guards the name
  std::string preferred_provider_ = "levira";
};

}  // namespace sdbl
