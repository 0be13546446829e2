// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>

#include "base/export.h"

// One stored event, as the cache of a service remembers it. Owned by the vector that holds it.
struct EPG_cache {
  int32_t start_epoch;  // seconds since 1970, UTC; the vector is sorted by it
  int32_t ev_id;        // event_id last seen in this slot
  int32_t dur_sec;
};

// Order of the cache: by start. Any-thread.
KELVO_EXPORT bool cmp_epg_cache(const EPG_cache* a, const EPG_cache* b);
