// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <functional>
#include <string>

#include "softdvb/mux/description.h"

namespace softdvb_mux {

inline constexpr size_t PACKET = 188;

// The whole multiplex as transport packets, the null packets included. Played in a loop it stays whole: every section
// is complete, each PID's continuity counter goes on from the last packet to the first one, the PCRs jump back with the
// discontinuity indicator set. The same description with the same "now" gives the same bytes.
// `progress` (may be null) is told the part done, 0 to 1. Throws Description_error, for one when the bit rate is too
// low.
Bytes make_stream(const Description& all, const std::function<void(double)>& progress = nullptr);

// Both steps for tests and hosts that hold the JSON text.
Bytes make_stream(const std::string& json, int64_t machine_now);

}  // namespace softdvb_mux
