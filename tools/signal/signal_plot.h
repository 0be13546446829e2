// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>
#include <vector>

#include "tools/signal/signal_log.h"

// A picture (SVG) of samples over time: a panel for each reading and scale that there is, and a lane that shows when
// there was a lock. Times are those of the reader's zone.
std::string signal_picture(const std::vector<Signal_sample>& samples, const std::string& title);
