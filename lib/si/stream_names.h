// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <span>

#include "db/stream_detail.h"

// What a whole PMT section (ISO/IEC 13818-1, 2.4.4.8) says of its streams: kind and codec by stream_type and
// descriptors, languages with their roles, all teletext pages, all conditional-access systems of programme and streams.
// Whatever the bytes hold, nothing behind them is looked at; what is cut off is left out. Of two streams with one PID
// the first counts. *any-thread*
Programme_streams streams_of_pmt(std::span<const uint8_t> section);
