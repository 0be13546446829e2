// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>

#include "tools/database/guide_db.h"

// A component of an event in words (EN 300 468, table 26 and annex D). Empty where the standard or the broadcast has
// none: what is not certain is not said.
struct Component_words {
  std::string kind;     // "video", "audio", "subtitles", "teletext", "sign language"
  std::string aspect;   // of video: "4:3", "16:9", "wide" (wider than 16:9)
  std::string quality;  // of video: "SD", "HD", "UHD"
  std::string sound;    // of audio: "mono", "dual mono", "stereo", "surround"
  std::string codec;    // of audio where the numbers say it: "AC-3", "E-AC-3", "AC-4", "DTS"
  std::string role;     // "audio description", "hard of hearing", "supplementary", ...; empty for the main one
};

Component_words component_words(const Event_component& component);
