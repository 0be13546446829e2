// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace support {

using Texts = std::vector<std::string>;

// How often `part` stands in `text`, overlaps counted.
size_t count_of(const std::string& text, const std::string& part);

// The lines of `text`, without their newlines.
Texts lines_of(const std::string& text);

// `text` with its control codes made visible: a newline as \n, others by their number, as \5.
std::string visible(const std::string& text);

// As 0x1f.
std::string hexadecimal(int number);

// Asks again every few milliseconds until `condition` holds; false when it does not within `limit` of this process's
// clock, which softdvb may let run faster.
template <typename Condition>
bool wait_for(Condition condition, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= end)
      return condition();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

}  // namespace support
