// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/guide/page.h"

#include <array>
#include <map>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>

extern const Embedded_text GUIDE_SCRIPT;
extern const Embedded_text GUIDE_TEMPLATE;

namespace {

using nlohmann::ordered_json;

// So many events a block: the browser reads one after the other and stays awake meanwhile.
constexpr size_t EVENTS_A_BLOCK = 250;

constexpr const char* EVENT_KEYS[] = {"channel", "event_id", "start_epoch", "duration", "episode"};
// Lists that many events share, and what is read of their objects; none: all.
constexpr std::pair<const char*, std::array<const char*, 8>> LISTS[] = {
    {"genres", {}},
    {"contents", {"name", "detail"}},
    {"ratings", {"country", "age"}},
    {"components", {"kind", "language", "aspect", "quality", "sound", "codec", "role", "text"}}};
constexpr const char* CHANNEL_KEYS[] = {"channel",
                                        "lcn",
                                        "name",
                                        "names",
                                        "type",
                                        "visible",
                                        "state",
                                        "service_id",
                                        "transport_stream_id",
                                        "original_network_id"};

bool says_nothing(const ordered_json& value) {
  return value.is_null() || (value.is_string() && value.get_ref<const std::string&>().empty()) ||
         (value.is_structured() && value.empty());
}

// What the page reads of `value`, to the depth of texts and items: what is empty is left out, so that a week stays
// small.
ordered_json short_form(const ordered_json& value) {
  if (!value.is_structured()) {
    return value;
  }
  ordered_json out = value.is_object() ? ordered_json::object() : ordered_json::array();
  for (const auto& [key, inner] : value.items()) {
    if (value.is_array()) {
      out.push_back(short_form(inner));
    } else if (!says_nothing(inner)) {
      out[key] = short_form(inner);
    }
  }
  return out;
}

template <size_t N>
ordered_json picked(const ordered_json& from, const char* const (&keys)[N]) {
  ordered_json out = ordered_json::object();
  for (const char* key : keys) {
    if (const auto at = from.find(key); at != from.end() && !says_nothing(*at)) {
      out[key] = short_form(*at);
    }
  }
  return out;
}

// Values that stand in the page once, and are named by their number, because a film comes again, and all that a channel
// sends has the same sound.
class Distinct {
 public:
  size_t number_of(const ordered_json& value) {
    const auto [at, is_new] = numbers_.emplace(text_of(value), numbers_.size());
    if (is_new) {
      fresh_.push_back(value);
    }
    return at->second;
  }
  // Those that are new since the last call.
  ordered_json take_fresh() { return std::exchange(fresh_, ordered_json::array()); }

  static std::string text_of(const ordered_json& value) {
    return value.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
  }

 private:
  std::map<std::string, size_t> numbers_;
  ordered_json fresh_ = ordered_json::array();
};

// As the text of a script element: nothing in it can end the element or begin a comment.
std::string data_block(const char* what, const ordered_json& data) {
  std::string text;
  for (const char c : Distinct::text_of(data)) {
    if (c == '<') {
      text += "\\u003c";
    } else {
      text += c;
    }
  }
  return fmt::format("<script type=\"application/json\" data-what=\"{}\">{}</script>\n", what, text);
}

// The list `key` of an event, with what is read of it; contents say something where they have a detail.
ordered_json short_list(const ordered_json& list, const char* key, const std::array<const char*, 8>& keys) {
  ordered_json out = ordered_json::array();
  for (const ordered_json& one : list) {
    ordered_json shorter = keys[0] == nullptr ? short_form(one) : ordered_json::object();
    for (const char* wanted : keys) {
      if (wanted != nullptr && one.is_object() && one.contains(wanted) && !says_nothing(one[wanted])) {
        shorter[wanted] = short_form(one[wanted]);
      }
    }
    if (!says_nothing(shorter) && (std::string_view(key) != "contents" || shorter.contains("detail"))) {
      out.push_back(std::move(shorter));
    }
  }
  return out;
}

ordered_json short_event(const ordered_json& event, Distinct* texts, Distinct* lists) {
  ordered_json out = picked(event, EVENT_KEYS);
  if (event.value("running_status", ordered_json()) != 0) {
    out.update(picked(event, {"running_status"}));
  }
  if (event.value("scrambled", ordered_json()) == true) {
    out["scrambled"] = true;
  }
  for (const auto& [key, keys] : LISTS) {
    if (const auto at = event.find(key); at != event.end() && at->is_array()) {
      if (ordered_json list = short_list(*at, key, keys); !list.empty()) {
        out[key] = lists->number_of(list);
      }
    }
  }
  if (const auto at = event.find("texts"); at != event.end() && at->is_array()) {
    for (const ordered_json& text : *at) {
      if (text.is_object()) {
        out["texts"].push_back(texts->number_of(short_form(text)));
      }
    }
  }
  return out;
}

std::string data_blocks(const ordered_json& channels, const ordered_json& guide) {
  ordered_json list = ordered_json::array();
  for (const ordered_json& channel : channels.at("channels")) {
    list.push_back(picked(channel, CHANNEL_KEYS));
  }
  std::string out = data_block("channels", list);
  list = ordered_json::array();
  Distinct texts;
  Distinct lists;
  // What events name comes before them.
  const auto finish_block = [&] {
    for (const auto& [what, distinct] : {std::pair("texts", &texts), std::pair("lists", &lists)}) {
      if (const ordered_json fresh = distinct->take_fresh(); !fresh.empty()) {
        out += data_block(what, fresh);
      }
    }
    out += data_block("events", std::exchange(list, ordered_json::array()));
  };
  for (const ordered_json& event : guide.at("events")) {
    list.push_back(short_event(event, &texts, &lists));
    if (list.size() == EVENTS_A_BLOCK) {
      finish_block();
    }
  }
  finish_block();
  return out;
}

// Replaces the marks of the template, each of which stands in it once. What is put in is not looked at again.
std::string filled(std::string_view page, const std::vector<std::pair<std::string_view, std::string>>& parts) {
  std::string out;
  for (const auto& [mark, text] : parts) {
    const size_t at = page.find(mark);
    out += page.substr(0, at);
    out += text;
    page.remove_prefix(at + mark.size());
  }
  return out += page;
}

}  // namespace

std::string policy_hash(const Embedded_text& text) {
  constexpr std::string_view LETTERS = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string bytes;
  for (size_t i = 0; i + 1 < text.sha256.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(std::string(text.sha256.substr(i, 2)), nullptr, 16));
  }
  std::string out;
  for (size_t i = 0; i < bytes.size(); i += 3) {
    const auto byte = [&](size_t at) { return at < bytes.size() ? static_cast<unsigned char>(bytes[at]) : 0U; };
    const unsigned three = byte(i) << 16 | byte(i + 1) << 8 | byte(i + 2);
    for (unsigned k = 0; k < 4; ++k) {
      out += i + k > bytes.size() ? '=' : LETTERS[three >> (18 - 6 * k) & 63];
    }
  }
  return "'sha256-" + out + "'";
}

std::string guide_page(const ordered_json& channels, const ordered_json& guide, Page_kind kind) {
  const bool live = kind == Page_kind::LIVE;
  const std::string policy =
      fmt::format("default-src 'none'; script-src {}; style-src {};{} base-uri 'none'; form-action 'none'",
                  policy_hash(GUIDE_SCRIPT), policy_hash(GUIDE_STYLE), live ? " connect-src 'self';" : "");
  return filled(GUIDE_TEMPLATE.text, {{"@KIND@", live ? "live" : "file"},
                                      {"@POLICY@", policy},
                                      {"@STYLE@", std::string(GUIDE_STYLE.text)},
                                      {"@SYMBOLS@", std::string(GUIDE_SYMBOLS.text)},
                                      {"@DATA@", live ? "" : data_blocks(channels, guide)},
                                      {"@SCRIPT@", std::string(GUIDE_SCRIPT.text)}});
}
