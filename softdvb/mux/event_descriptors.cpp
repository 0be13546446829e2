// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <algorithm>
#include <cstring>

#include <fmt/format.h>

#include "base/ids.h"
#include "softdvb/mux/dvbpsi_glue.h"
#include "softdvb/mux/time_text.h"

extern "C" {
#include <dvbpsi/dr_4d.h>
#include <dvbpsi/dr_50.h>
#include <dvbpsi/dr_58.h>
}

namespace softdvb_mux {

namespace {

// The selector that a text begins with, so that a text that goes on in the next descriptor can repeat it
// (EN 300 468, A.2).
Bytes selector_of(const Bytes& text) {
  if (text.empty() || text[0] >= 0x20)
    return {};
  const size_t length = text[0] == 0x10 ? 3 : text[0] == 0x1F ? 2 : 1;
  return Bytes(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(std::min(length, text.size())));
}

// How the extended event descriptors of a text are filled.
struct Filling {
  size_t room = 249;   // bytes of items and text in each
  bool torn = false;   // characters and items are cut where the room ends
  bool units = false;  // characters behind selector 0x14 have two bytes each
};

// Where a text may be cut at or before `most` bytes, so that no character is torn.
size_t cut_point(const Bytes& text, size_t most, const Filling& filling) {
  if (text.size() <= most)
    return text.size();
  if (filling.torn)
    return most;
  const uint8_t selector = text.empty() ? 0x20 : text[0];
  size_t cut = most;
  if (selector == 0x15) {
    while (cut > 1 && (text[cut] & 0xC0) == 0x80)
      --cut;
  } else if (selector == 0x11 || (selector == 0x14 && filling.units)) {
    cut -= (cut - 1) % 2;
  } else if (selector >= 0x12 && selector <= 0x14) {
    size_t at = 1;
    while (at < text.size() && at + (text[at] >= 0x80 ? 2u : 1u) <= most)
      at += text[at] >= 0x80 ? 2 : 1;
    cut = at;
  } else if (selector >= 0x20 && cut > 0 && text[cut - 1] >= 0xC1 && text[cut - 1] <= 0xCF) {
    --cut;  // ISO 6937: the accent stands before its letter
  }
  return cut;
}

void append(Bytes* to, const std::string& letters) {
  to->insert(to->end(), letters.begin(), letters.end());
}

void append_counted(Bytes* to, const Bytes& from) {
  to->push_back(static_cast<uint8_t>(from.size()));
  to->insert(to->end(), from.begin(), from.end());
}

struct Item {
  Bytes name;
  Bytes text;
};

struct Extended_part {
  std::vector<Item> items;
  Bytes text;
};

// The first `most` bytes of a text; what is left of it begins with the selector again.
Bytes take_front(Bytes* text, size_t most) {
  const Bytes selector = selector_of(*text);
  const auto end = text->begin() + static_cast<std::ptrdiff_t>(std::min(most, text->size()));
  Bytes front(text->begin(), end);
  text->erase(text->begin(), end);
  if (!text->empty())
    text->insert(text->begin(), selector.begin(), selector.end());
  return front;
}

// Fills descriptors: items first, then the text.
std::vector<Extended_part> split_extended(const std::vector<Item>& items, const Bytes& text, const Filling& filling) {
  const size_t room = filling.room;
  std::vector<Extended_part> parts(1);
  size_t used = 0;
  for (Item item : items) {
    size_t size = 2 + item.name.size() + item.text.size();
    if (filling.torn) {
      while (used + size > room) {
        const size_t head = used + 2 + item.name.size() + selector_of(item.text).size();
        if (head < room) {
          parts.back().items.push_back({item.name, take_front(&item.text, room - used - 2 - item.name.size())});
          item.name.clear();
        }
        parts.emplace_back();
        used = 0;
        size = 2 + item.name.size() + item.text.size();
      }
    } else if (used + size > room) {
      parts.emplace_back();
      used = 0;
    }
    parts.back().items.push_back(item);
    used += size;
  }
  const Bytes selector = selector_of(text);
  Bytes rest = text;
  while (!rest.empty()) {
    const size_t cut = cut_point(rest, room - used, filling);
    if (cut > selector.size())
      parts.back().text = take_front(&rest, cut);
    if (!rest.empty())
      parts.emplace_back();
    used = 0;
  }
  return parts;
}

// EN 300 468, 6.2.15. libdvbpsi's generator leaves length_of_items out.
void add_extended(const Json_node& node, const Text_defaults& defaults, Descriptors* loop) {
  node.allow_only({"language", "charset", "items", "text", "room", "torn"});
  const Text_defaults mine = defaults.inside(node);
  // Below this, a name and one byte of its item have no room.
  constexpr int LEAST_ROOM = 16;
  Filling filling;
  filling.room = static_cast<size_t>(node.number_or("room", LEAST_ROOM, 249, 249));
  filling.torn = node.flag_or("torn", false);
  filling.units = mine.charset == "0x14/utf-16";
  const size_t longest = filling.torn ? 255 : filling.room - 2;
  std::vector<Item> items;
  for (const Json_node& item : node.list("items")) {
    item.allow_only({"name", "text"});
    items.push_back({read_text(item.get("name"), mine, filling.room - 2), read_text(item.get("text"), mine, longest)});
    const Item& last = items.back();
    if (filling.torn ? last.name.size() + 6 > filling.room : last.name.size() + last.text.size() + 2 > filling.room)
      item.fail(fmt::format("name and text together take more than {} bytes", filling.room - 2));
  }
  const Bytes text = node.has("text") ? read_text(node.get("text"), mine, 16 * filling.room) : Bytes();
  std::vector<Extended_part> parts = split_extended(items, text, filling);
  if (parts.size() > 16)
    node.fail(fmt::format("the text needs {} descriptors, at most 16 are allowed", parts.size()));
  for (size_t i = 0; i < parts.size(); ++i) {
    Bytes data = {static_cast<uint8_t>(i << 4 | (parts.size() - 1))};
    append(&data, mine.language);
    Bytes list;
    for (const Item& item : parts[i].items) {
      append_counted(&list, item.name);
      append_counted(&list, item.text);
    }
    append_counted(&data, list);
    append_counted(&data, parts[i].text);
    loop->push_back({tag::EXTENDED_EVENT, data});
  }
}

void add_short(const Json_node& node, const Text_defaults& mine, Descriptors* loop) {
  const Bytes none;
  const Bytes name = node.has("name") ? read_text(node.get("name"), mine, 250) : none;
  const Bytes text = node.has("text") ? read_text(node.get("text"), mine, 250) : none;
  if (name.size() + text.size() > 250)
    node.fail(fmt::format("name and text together take {} bytes, at most 250 are allowed; use \"extended\"",
                          name.size() + text.size()));
  dvbpsi_short_event_dr_t record = {};
  std::memcpy(record.i_iso_639_code, mine.language.data(), 3);
  record.i_event_name_length = static_cast<int>(name.size());
  std::copy(name.begin(), name.end(), record.i_event_name);
  record.i_text_length = static_cast<int>(text.size());
  std::copy(text.begin(), text.end(), record.i_text);
  loop->push_back(taken(dvbpsi_GenShortEventDr(&record, false)));
}

}  // namespace

void add_short_events(const Json_node& event, const Text_defaults& defaults, Descriptors* loop) {
  if (event.has("name") || event.has("text"))
    add_short(event, defaults, loop);
  for (const Json_node& node : event.list("texts")) {
    node.allow_only({"language", "charset", "name", "text"});
    add_short(node, defaults.inside(node), loop);
  }
}

void add_extended_events(const Json_node& event, const Text_defaults& defaults, Descriptors* loop) {
  if (!event.has("extended"))
    return;
  if (event.get("extended").value().is_object()) {
    add_extended(event.get("extended"), defaults, loop);
    return;
  }
  for (const Json_node& node : event.list("extended"))
    add_extended(node, defaults, loop);
}

void add_components(const Json_node& event, const Text_defaults& defaults, Descriptors* loop) {
  for (const Json_node& node : event.list("components")) {
    node.allow_only({"stream_content", "component_type", "component_tag", "language", "charset", "text"});
    const Text_defaults mine = defaults.inside(node);
    Bytes text = node.has("text") ? read_text(node.get("text"), mine, 249) : Bytes();
    dvbpsi_component_dr_t record = {};
    record.i_stream_content = static_cast<uint8_t>(node.get("stream_content").number(0, 15));
    record.i_component_type = static_cast<uint8_t>(node.get("component_type").number(0, 255));
    record.i_component_tag = static_cast<uint8_t>(node.number_or("component_tag", 0, 255, 0));
    std::memcpy(record.i_iso_639_code, mine.language.data(), 3);
    record.i_text_length = static_cast<int>(text.size());
    record.i_text = text.data();
    loop->push_back(taken(dvbpsi_GenComponentDr(&record, false)));
  }
}

// EN 300 468, 6.2.9. libdvbpsi's generator writes one entry right, further ones not.
void add_content(const Json_node& event, Descriptors* loop) {
  if (!event.has("content"))
    return;
  const auto nodes = event.list("content");
  if (nodes.size() > 127)
    event.get("content").fail(fmt::format("{} entries, at most 127 are allowed", nodes.size()));
  Bytes data;
  for (const Json_node& node : nodes) {
    const bool object = node.value().is_object();
    if (object)
      node.allow_only({"type", "user"});
    data.push_back(static_cast<uint8_t>(object ? node.get("type").number(0, 255) : node.number(0, 255)));
    data.push_back(static_cast<uint8_t>(object ? node.number_or("user", 0, 255, 0) : 0));
  }
  loop->push_back({tag::CONTENT, data});
}

// EN 300 468, 6.2.28: 0x01 to 0x0F stand for the age minus 3. libdvbpsi's generator writes one entry right, further
// ones not.
void add_rating(const Json_node& event, Descriptors* loop) {
  if (!event.has("rating"))
    return;
  const auto nodes = event.list("rating");
  if (nodes.size() > 63)
    event.get("rating").fail(fmt::format("{} entries, at most 63 are allowed", nodes.size()));
  Bytes data;
  for (const Json_node& node : nodes) {
    node.allow_only({"country", "age", "value"});
    append(&data, node.get("country").three_letters());
    data.push_back(
        static_cast<uint8_t>(node.has("value") ? node.get("value").number(0, 255) : node.get("age").number(4, 18) - 3));
  }
  loop->push_back({tag::PARENTAL_RATING, data});
}

void add_time_offsets(const Json_node& time, int64_t now, Descriptors* loop) {
  const auto nodes = time.list("offsets");
  if (nodes.empty())
    return;
  if (nodes.size() > DVBPSI_LOCAL_TIME_OFFSET_DR_MAX)
    time.get("offsets").fail(
        fmt::format("{} entries, at most {} are allowed", nodes.size(), DVBPSI_LOCAL_TIME_OFFSET_DR_MAX));
  dvbpsi_local_time_offset_dr_t record = {};
  for (const Json_node& node : nodes) {
    node.allow_only({"country", "region", "offset", "change", "next"});
    auto& entry = record.p_local_time_offset[record.i_local_time_offsets_number++];
    std::memcpy(entry.i_country_code, node.get("country").three_letters().data(), 3);
    entry.i_country_region_id = static_cast<uint8_t>(node.number_or("region", 0, 63, 0));
    const Zone_offset offset = read_zone_offset(node.get("offset"));
    const Zone_offset next = node.has("next") ? read_zone_offset(node.get("next")) : offset;
    // The descriptor has one polarity for both.
    if (next.bcd != 0 && offset.bcd != 0 && next.negative != offset.negative)
      node.get("next").fail("the offset now and the next one must have the same sign");
    entry.i_local_time_offset_polarity = offset.negative || next.negative ? 1 : 0;
    entry.i_local_time_offset = offset.bcd;
    entry.i_time_of_change = mjd_bcd(node.has("change") ? read_time(node.get("change"), now) : now + 180 * 86400);
    entry.i_next_time_offset = next.bcd;
  }
  loop->push_back(taken(dvbpsi_GenLocalTimeOffsetDr(&record, false)));
}

}  // namespace softdvb_mux
