// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/epg/component_words.h"

#include <array>

namespace {

// From MPEG-2 come four aspects in four groups: 25 and 30 Hz of SD, and of HD. H.264 keeps those numbers.
void describe_video(int type, Component_words* out) {
  if (type >= 0x80 && type <= 0x84) {
    out->aspect = "16:9";
    out->quality = "HD";
  } else if (type >= 0x01 && type <= 0x10) {
    constexpr std::array<const char*, 4> ASPECTS = {"4:3", "16:9", "16:9", "wide"};
    out->aspect = ASPECTS[static_cast<size_t>(type - 1) % ASPECTS.size()];
    out->quality = type >= 0x09 ? "HD" : "SD";
  }
}

void describe_plain_audio(int type, Component_words* out) {
  switch (type) {
    case 0x01:
      out->sound = "mono";
      break;
    case 0x02:
      out->sound = "dual mono";
      break;
    case 0x03:
    case 0x43:
      out->sound = "stereo";
      break;
    case 0x05:
      out->sound = "surround";
      break;
    case 0x40:
    case 0x44:
    case 0x47:
    case 0x48:
    case 0x49:
    case 0x4A:
      out->role = "audio description";
      break;
    case 0x41:
    case 0x45:
      out->role = "hard of hearing";
      break;
    case 0x42:
    case 0x46:
      out->role = "supplementary";
      break;
    default:
      break;
  }
}

// EN 300 468, D.1: number of channels in the lowest bits, above them the kind of service.
void describe_ac3(int type, Component_words* out) {
  constexpr std::array<const char*, 8> SOUNDS = {"mono",     "dual mono", "stereo", "stereo",
                                                 "surround", "surround",  "",       ""};
  constexpr std::array<const char*, 8> ROLES = {"",         "music and effects", "audio description", "hard of hearing",
                                                "dialogue", "commentary",        "emergency",         ""};
  out->codec = (type & 0x80) != 0 ? "E-AC-3" : "AC-3";
  out->sound = SOUNDS[static_cast<size_t>(type & 7)];
  out->role = ROLES[static_cast<size_t>(type >> 3 & 7)];
}

void describe_text(int type, Component_words* out) {
  if (type == 0x01 || (type >= 0x10 && type <= 0x16)) {
    out->kind = "subtitles";
  } else if (type >= 0x20 && type <= 0x26) {
    out->kind = "subtitles";
    out->role = "hard of hearing";
  } else if (type == 0x02) {
    out->kind = "teletext";
  } else if (type == 0x30 || type == 0x31) {
    out->kind = "sign language";
  }
}

// Contents behind 0x0B need the extension, whose numbers mean something else for each.
void describe_newer(int extension, int type, Component_words* out) {
  if (extension == 0) {
    out->kind = "video";
    out->quality = type <= 0x03 ? "HD" : type <= 0x08 ? "UHD" : "";
  } else if (extension == 1) {
    out->kind = "audio";
    out->codec = "AC-4";
    out->sound = type <= 0x01 ? "mono" : type <= 0x03 ? "stereo" : type <= 0x05 ? "surround" : "";
  }
}

}  // namespace

Component_words component_words(const Event_component& component) {
  Component_words out;
  switch (component.content) {
    case 0x01:
    case 0x05:
      out.kind = "video";
      describe_video(component.type, &out);
      break;
    case 0x02:
    case 0x06:
      out.kind = "audio";
      describe_plain_audio(component.type, &out);
      break;
    case 0x03:
      describe_text(component.type, &out);
      break;
    case 0x04:
      out.kind = "audio";
      describe_ac3(component.type, &out);
      break;
    case 0x07:
      out.kind = "audio";
      out.codec = "DTS";
      break;
    case 0x09:
      describe_newer(component.extension, component.type, &out);
      break;
    default:
      break;
  }
  return out;
}
