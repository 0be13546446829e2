// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/channels/channel_url.h"

#include <cctype>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "tools/cli/failure.h"
#include "tools/database/channel_id.h"

namespace {

struct Placeholder {
  const char* name;
  std::string (*value)(const List_entry& channel);
};

const Placeholder PLACEHOLDERS[] = {
    {"number", [](const List_entry& c) { return std::to_string(c.service->lcn); }},
    {"name", [](const List_entry& c) { return c.service->name.empty() ? c.name : c.service->name; }},
    {"id", [](const List_entry& c) { return channel_id(*c.service); }},
    {"channel", [](const List_entry& c) { return std::to_string(c.service->channel); }},
    {"service_id", [](const List_entry& c) { return std::to_string(c.service->program_number); }},
    {"transport_stream_id", [](const List_entry& c) { return std::to_string(c.service->transport_stream_id); }},
    {"original_network_id", [](const List_entry& c) { return std::to_string(c.service->original_network_id); }},
    {"network_id", [](const List_entry& c) { return std::to_string(c.service->network_id); }},
    {"frequency", [](const List_entry& c) { return std::to_string(c.service->delivery.freq); }},
};

const Placeholder* find_placeholder(std::string_view name) {
  for (const Placeholder& known : PLACEHOLDERS) {
    if (name == known.name) {
      return &known;
    }
  }
  return nullptr;
}

// The braces of the first placeholder from `at` on; npos for none.
std::pair<size_t, size_t> braces(std::string_view url, size_t at) {
  const size_t begin = url.find('{', at);
  return {begin, begin == std::string_view::npos ? begin : url.find('}', begin)};
}

}  // namespace

std::string percent_encoded(std::string_view text) {
  std::string out;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x80 && (isalnum(byte) != 0 || std::string_view("-._~").find(c) != std::string_view::npos)) {
      out += c;
    } else {
      out += fmt::format("%{:02X}", byte);
    }
  }
  return out;
}

void check_url_template(const std::string& url) {
  for (const char c : url) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte <= ' ' || byte >= 0x7F || c == '"' || c == '<' || c == '>') {
      throw Failure(
          "--url: a link has no blanks, quotes, control characters or letters beyond ASCII; write them as %XX",
          EXIT_USAGE);
    }
  }
  for (size_t at = 0;;) {
    const auto [begin, end] = braces(url, at);
    if (begin == std::string::npos) {
      return;
    }
    const std::string name = end == std::string::npos ? url.substr(begin + 1) : url.substr(begin + 1, end - begin - 1);
    if (end == std::string::npos || find_placeholder(name) == nullptr) {
      std::vector<std::string> names;
      for (const Placeholder& known : PLACEHOLDERS) {
        names.push_back(fmt::format("{{{}}}", known.name));
      }
      throw Failure(fmt::format("--url: no placeholder {{{}}}; there are {}", name, fmt::join(names, " ")), EXIT_USAGE);
    }
    at = end + 1;
  }
}

std::optional<std::string> channel_url(const std::string& url, const List_entry& channel) {
  std::string out;
  for (size_t at = 0;;) {
    const auto [begin, end] = braces(url, at);
    if (begin == std::string::npos) {
      return out + url.substr(at);
    }
    const std::string name = url.substr(begin + 1, end - begin - 1);
    if (name == "number" && channel.service->lcn == NO_LCN) {
      return std::nullopt;
    }
    out += url.substr(at, begin - at) + percent_encoded(find_placeholder(name)->value(channel));
    at = end + 1;
  }
}
