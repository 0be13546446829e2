// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/serve/request_check.h"

#include <sys/random.h>

#include <algorithm>
#include <array>
#include <cstdint>

#include <fmt/format.h>

#include "tools/cli/failure.h"

namespace {

constexpr size_t LONGEST_NAME = 255;

bool is_port(std::string_view text) {
  return !text.empty() && text.size() <= 5 && text.find_first_not_of("0123456789") == std::string_view::npos;
}

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

}  // namespace

std::optional<std::string> host_of(std::string_view header) {
  std::string_view host = header;
  std::string_view port;
  if (header.starts_with('[')) {
    const size_t end = header.find(']');
    if (end == std::string_view::npos) {
      return std::nullopt;
    }
    host = header.substr(1, end - 1);
    port = header.substr(end + 1);
    if (host.find_first_not_of("0123456789abcdefABCDEF:.") != std::string_view::npos) {
      return std::nullopt;
    }
  } else {
    const size_t colon = header.find(':');
    host = header.substr(0, colon);
    port = colon == std::string_view::npos ? std::string_view() : header.substr(colon);
    if (host.find_first_not_of("0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-_.") !=
        std::string_view::npos) {
      return std::nullopt;
    }
    if (host.ends_with('.')) {
      host.remove_suffix(1);
    }
  }
  if (host.empty() || host.size() > LONGEST_NAME || (!port.empty() && (port[0] != ':' || !is_port(port.substr(1))))) {
    return std::nullopt;
  }
  std::string out(host);
  std::transform(out.begin(), out.end(), out.begin(), lower);
  return out;
}

Allowed_hosts::Allowed_hosts(const std::string& bound, const std::vector<std::string>& names)
    : hosts_{"localhost", "127.0.0.1", "::1", bound} {
  for (const std::string& name : names) {
    hosts_.push_back(host_of(name).value_or(""));
  }
}

bool Allowed_hosts::allows(std::string_view header, std::string_view local_address) const {
  const std::optional<std::string> host = host_of(header);
  return host && (*host == local_address || std::find(hosts_.begin(), hosts_.end(), *host) != hosts_.end());
}

bool is_own_origin(std::string_view origin, std::string_view host) {
  // Behind a proxy that speaks TLS to the browser the scheme is the other one.
  for (const std::string_view scheme : {"http://", "https://"}) {
    if (origin.starts_with(scheme)) {
      const std::string_view of = origin.substr(scheme.size());
      return std::equal(of.begin(), of.end(), host.begin(), host.end(),
                        [](char a, char b) { return lower(a) == lower(b); });
    }
  }
  return false;
}

bool same_secret(std::string_view given, std::string_view secret) {
  // Looked at whole whatever is given, its length included; an empty secret is none.
  unsigned difference = given.size() == secret.size() ? 0U : 1U;
  for (size_t i = 0; i < secret.size(); ++i) {
    const char other = i < given.size() ? given[i] : '\0';
    difference |= static_cast<unsigned char>(other) ^ static_cast<unsigned char>(secret[i]);
  }
  return difference == 0 && !secret.empty();
}

std::string new_token() {
  std::array<uint8_t, 16> bytes{};
  if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    throw Failure("cannot make a token: the system has no random numbers");
  }
  std::string out;
  for (const uint8_t byte : bytes) {
    out += fmt::format("{:02x}", byte);
  }
  return out;
}
