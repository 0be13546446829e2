// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tools/guide/embedded.h"
#include "tools/serve/station.h"
#include "tools/serve/stored.h"

// The server's own pages, besides the guide. They are whole without a script; with PAGE_SCRIPT they follow what
// changes. Colours, letters and the bar at the top are the guide's. Every text is escaped.

// A text as it is shown between tags and in attributes.
std::string html_text(std::string_view text);

struct Page_source {
  const Station_state* station = nullptr;             // none: nothing is received
  bool control = false;                               // scans may be started by who has the token
  std::string token;                                  // of who asks, where it is the right one
  const std::vector<std::string>* remarks = nullptr;  // with a token: what a scan looks at
};

// The channels by multiplex, with its signal and what is on.
std::string channels_page(const std::vector<Service>& services, const std::map<int, Stored::On_now>& now,
                          const Page_source& source);

// The scan that runs or was last, and a button where the reader may use it.
std::string scan_page(const Page_source& source);

extern const Embedded_text PAGE_STYLE;
extern const Embedded_text PAGE_SCRIPT;
