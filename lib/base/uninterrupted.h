// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cerrno>

// A call of the system, made again as long as a signal ends it; not installed. Its result and errno. Not for ever, in
// case it says so for another reason.
//
//   const int handle = uninterrupted([&] { return open(path, O_RDONLY); });
template <typename Call>
auto uninterrupted(Call call) {
  constexpr int MOST_TRIES = 100;
  auto result = call();
  for (int tries = 1; result < 0 && errno == EINTR && tries < MOST_TRIES; ++tries)
    result = call();
  return result;
}
