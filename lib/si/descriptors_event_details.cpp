// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Descriptors of events, as values: EN 300 468, 6.2; content_identifier_descriptor: ETSI TS 102 323, 12.1.
#include <algorithm>
#include <cctype>
#include <string>

#include "base/ids.h"
#include "si/byte_reader.h"
#include "si/dvb_text.h"
#include "si/event_details.h"

namespace {

using Bytes = std::span<const uint8_t>;

constexpr size_t CODE = 3;  // bytes of a language or country

// Letters and digits; what is none is shown as a question mark, so that the database stays readable.
std::string code_of(Bytes bytes) {
  std::string code(bytes.begin(), bytes.begin() + CODE);
  for (char& c : code)
    if (std::isalnum(static_cast<unsigned char>(c)) == 0 || static_cast<unsigned char>(c) > 0x7F)
      c = '?';
  return code;
}

// component_descriptor (0x50, 6.2.8)
void read_component(Bytes body, Dvb_text& text, sdbl::Guide_details* details) {
  if (body.size() < 3 + CODE)
    return;
  const Bytes name = body.subspan(3 + CODE);
  details->components.push_back({body[2], body[0] & 0x0F, body[0] >> 4, body[1], code_of(body.subspan(3)),
                                 name.empty() ? "" : text.utf8(std::string(name.begin(), name.end()))});
}

// content_descriptor (0x54, 6.2.9)
void read_genres(Bytes body, sdbl::Guide_details* details) {
  for (; body.size() >= 2; body = body.subspan(2))
    details->genres.push_back({body[0] >> 4, body[0] & 0x0F, body[1]});
}

// parental_rating_descriptor (0x55, 6.2.29)
void read_ratings(Bytes body, sdbl::Guide_details* details) {
  for (; body.size() > CODE; body = body.subspan(CODE + 1))
    details->ratings.push_back({code_of(body), body[CODE]});
}

// content_identifier_descriptor (0x76)
void read_crids(Bytes body, sdbl::Guide_details* details) {
  while (!body.empty()) {
    const int type = body[0] >> 2;
    const int location = body[0] & 3;
    if (location > 1)
      return;
    if (location == 1) {
      body = body.subspan(std::min<size_t>(3, body.size()));
      continue;
    }
    if (body.size() < 2 || body.size() - 2 < body[1])
      return;
    const Bytes crid = body.subspan(2, body[1]);
    body = body.subspan(2 + crid.size());
    const bool readable = std::all_of(crid.begin(), crid.end(), [](uint8_t c) { return c > 0x20 && c < 0x7F; });
    std::string* target = type == 0x01 || type == 0x31   ? &details->programme_crid
                          : type == 0x02 || type == 0x32 ? &details->series_crid
                                                         : nullptr;
    if (readable && target != nullptr && target->empty())
      target->assign(crid.begin(), crid.end());
  }
}

}  // namespace

void read_event_details(Bytes loop, Dvb_text& text, sdbl::Guide_details* details) {
  for_each_descriptor(loop, [&](unsigned tag, Bytes body) {
    switch (tag) {
      case tag::COMPONENT:
        read_component(body, text, details);
        break;
      case tag::CONTENT:
        read_genres(body, details);
        break;
      case tag::PARENTAL_RATING:
        read_ratings(body, details);
        break;
      case tag::CONTENT_IDENTIFIER:
        read_crids(body, details);
        break;
      default:
        break;
    }
  });
}
