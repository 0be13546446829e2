// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "tools/trace/timeline.h"

// Takes the text of a file piece by piece.
using Text_sink = std::function<void(std::string_view)>;

// The trace-event format, which Chromium's chrome://tracing and Perfetto's viewer open: a process for each kind of
// lane, a thread for each lane, complete events for spans and instant events for notes. Times are microseconds.
void print_trace_json(const Timeline& timeline, const Text_sink& out);

// A picture: a lane for each task, interrupt and so on over a common axis of time. `title` is cleaned. However long the
// trace, the picture has a bounded number of shapes: spans that are too short to be told apart are drawn as one.
void print_trace_svg(const Timeline& timeline, const std::string& title, const Text_sink& out);

// A time as people read it: "1.25 s", "12.5 ms", "800 µs", "3.13 ns".
std::string ticks_text(int64_t ticks);
