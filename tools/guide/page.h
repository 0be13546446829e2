// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include "tools/guide/embedded.h"

// The programme guide as one page of HTML for a browser; its parts are files in page/. It needs nothing but itself, and
// its Content-Security-Policy lets nothing else in: script and style by their hashes, nothing off the air is ever
// markup.
enum class Page_kind {
  STORED,  // holds its data and never touches a network
  LIVE,    // takes "channels.json" and "guide.json" from where it is itself, and listens to "changes" (server-sent
           // events)
};

// `channels` and `guide` are the documents of `kelvo channels --format json` and `kelvo epg --format json`; a live page
// takes neither.
std::string guide_page(const nlohmann::ordered_json& channels, const nlohmann::ordered_json& guide, Page_kind kind);

extern const Embedded_text GUIDE_STYLE;
// The drawings of the buttons, for pages that stand beside this one, too: <use href="#i-theme"/>.
extern const Embedded_text GUIDE_SYMBOLS;
