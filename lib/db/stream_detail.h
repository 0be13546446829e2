// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>
#include <vector>

// A language of a stream, or one teletext page of it.
struct Stream_language {
  std::string code;  // ISO 639, as broadcast; what is no printable ASCII is shown as '?'
  std::string role;  // "" for the main one; "audio description", "hard of hearing", "index", ...: docs/database.md
  int page = 0;      // teletext: 100 to 899, as a viewer types it; subtitles: composition page id; else 0
  bool operator==(const Stream_language&) const = default;
};

// What the descriptors of a PMT say of one elementary stream, in words.
struct Stream_detail {
  int es_pid = 0;
  int es_type = 0;         // stream_type (ISO/IEC 13818-1, table 2-34)
  int component_tag = -1;  // of its stream_identifier_descriptor (EN 300 468, 6.2.39); -1 for none
  std::string kind;        // "video", "audio", "subtitles", "teletext", "application" or "data"
  std::string codec;       // "HEVC", "E-AC-3", "TTML", "HbbTV", ...; empty where none is known
  std::string profile;     // "Main 10@L5.1", ...; empty where it is not said
  std::vector<Stream_language> languages;
  bool operator==(const Stream_detail&) const = default;
};

// A conditional-access system, and where its entitlement control messages are (ISO/IEC 13818-1, 2.6.16).
struct Stream_ca {
  int es_pid = 0;  // the stream that is scrambled; 0 for the whole programme
  int ca_sysid = 0;
  int ca_pid = 0;
  bool operator==(const Stream_ca&) const = default;
};

// A programme, streams and systems in the order of its PMT. A value; nothing in it is owned elsewhere.
struct Programme_streams {
  std::vector<Stream_detail> streams;
  std::vector<Stream_ca> ca;
  bool operator==(const Programme_streams&) const = default;
};
