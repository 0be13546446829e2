// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/database/find_channel.h"

#include <algorithm>
#include <cstdlib>
#include <cwchar>
#include <cwctype>
#include <tuple>

#include <fmt/format.h>

#include "tools/cli/failure.h"
#include "tools/cli/text.h"

namespace {

// Longer ones would not fit into an int, and no channel has such a number.
bool is_number(const std::string& text) {
  return !text.empty() && text.size() < 10 && text.find_first_not_of("0123456789") == std::string::npos;
}

template <typename Test>
std::vector<const Service*> matching(const std::vector<Service>& services, Test test) {
  std::vector<const Service*> out;
  for (const Service& service : services) {
    if (test(service)) {
      out.push_back(&service);
    }
  }
  return out;
}

template <typename Test>
bool any_name(const Service& service, Test test) {
  return test(lower_case(service.name)) ||
         std::any_of(service.names.begin(), service.names.end(),
                     [&test](const auto& name) { return test(lower_case(name.second)); });
}

bool is_same(const Service& a, const Service& b) {
  const auto identity = [](const Service& service) {
    return std::tie(service.original_network_id, service.transport_stream_id, service.program_number, service.name);
  };
  return identity(a) == identity(b);
}

}  // namespace

// By the characters of the locale, so that ÕHTU is found as õhtu. Bytes that are no character stay as they are: they
// must not hide what stands behind them.
std::string lower_case(const std::string& text) {
  std::string out;
  std::mbstate_t in_state{};
  std::mbstate_t out_state{};
  for (size_t at = 0; at < text.size();) {
    wchar_t c = 0;
    const size_t size = std::mbrtowc(&c, text.data() + at, text.size() - at, &in_state);
    if (size == 0 || size > text.size()) {
      out += text[at++];
      in_state = {};
      continue;
    }
    char bytes[16];
    const size_t written = std::wcrtomb(bytes, static_cast<wchar_t>(std::towlower(static_cast<wint_t>(c))), &out_state);
    out.append(bytes, written <= sizeof bytes ? written : 0);
    at += size;
  }
  return out;
}

// From the most exact to the least: row, number, whole name, part of a name. The first that matches anything decides,
// so that a channel whose name is part of another one can still be asked for.
const Service& find_channel(const std::vector<Service>& services, const std::string& wanted, const std::string& what) {
  std::vector<const Service*> found;
  if (wanted.starts_with('#') && is_number(wanted.substr(1))) {
    const int row = std::atoi(wanted.c_str() + 1);
    found = matching(services, [row](const Service& service) { return service.channel == row; });
  } else if (is_number(wanted)) {
    const int lcn = std::atoi(wanted.c_str());
    found = matching(services, [lcn](const Service& service) { return service.lcn == lcn && lcn != NO_LCN; });
  }
  const std::string name = lower_case(clean_text(wanted));
  if (found.empty() && !name.empty()) {
    found = matching(services, [&name](const Service& service) {
      return any_name(service, [&name](const std::string& other) { return other == name; });
    });
  }
  if (found.empty() && !name.empty() && !is_number(wanted)) {
    found = matching(services, [&name](const Service& service) {
      return any_name(service, [&name](const std::string& other) { return other.find(name) != std::string::npos; });
    });
  }
  if (found.empty()) {
    throw Failure(fmt::format("{} {}: no such channel; 'kelvo channels' lists them", what, wanted));
  }
  // A multiplex that two frequencies bring has its services twice in the list, but only one of each is there.
  const std::vector<const Service*> all = found;
  std::erase_if(found, [&all](const Service* service) {
    return service->scan_state == 0 && std::any_of(all.begin(), all.end(), [service](const Service* other) {
             return other->scan_state != 0 && is_same(*service, *other);
           });
  });
  if (found.size() > 1) {
    // Enough to choose from, and still one line on a screen.
    constexpr size_t MOST_SHOWN = 5;
    std::string names;
    for (size_t i = 0; i < found.size() && i < MOST_SHOWN; ++i) {
      names += fmt::format("{}#{} {}", i == 0 ? "" : ", ", found[i]->channel, found[i]->name);
    }
    throw Failure(fmt::format("{} {}: {} channels are meant: {}{}; give one as #NUMBER", what, wanted, found.size(),
                              names, found.size() > MOST_SHOWN ? ", ..." : ""));
  }
  return *found.front();
}
