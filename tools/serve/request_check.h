// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// What keeps pages of other sites, which run in the browser of somebody who may ask, from asking in his name.

// The name or address of a Host header ("Box.local:8506", "[::1]:8506"), in small letters, without port, brackets and
// final dot. Empty when it is no such header.
std::optional<std::string> host_of(std::string_view header);

// The names that the server answers to. A page that gives its own name this machine's address (DNS rebinding) is known
// by its name; addresses cannot be redirected so.
class Allowed_hosts {
 public:
  // `bound` is the address that the server listens on; `names` are further ones, as people write them.
  Allowed_hosts(const std::string& bound, const std::vector<std::string>& names);
  // A Host header that came in by this address of the machine.
  bool allows(std::string_view header, std::string_view local_address) const;

 private:
  std::vector<std::string> hosts_;
};

// Whether an Origin header says that the page is one of those that `host`, the same request's Host header, names.
bool is_own_origin(std::string_view origin, std::string_view host);

// In a time that does not tell where the two differ.
bool same_secret(std::string_view given, std::string_view secret);

// 128 bits of chance as 32 letters. Throws Failure when the system has none.
std::string new_token();
