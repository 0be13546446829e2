// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <string>

// One language of a teletext or subtitling descriptor of a PMT's stream. Owned by the list that holds it, which
// Sdbl::pmt_for_service empties.
struct PMT_subtxt_lang {
  std::string lang;    // ISO 639 code; column `languages`
  int32_t es_subtype;  // 0x80003000 | teletext_type, or 0x80004000 | subtitling_type
  int32_t p1;          // teletext page number (BCD), or ancillary page id
  int32_t p2;          // teletext magazine number, or composition page id
};
