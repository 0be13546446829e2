// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>
#include <string_view>

// A text that was put into the program when it was built, see embed.cmake.
struct Embedded_text {
  std::string_view text;
  std::string_view sha256;  // in hexadecimal
};

// What a Content-Security-Policy allows `text` by, standing in a page unchanged: 'sha256-...', quotes included.
std::string policy_hash(const Embedded_text& text);
