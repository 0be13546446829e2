// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "db/listed_channel.h"
#include "db/programme.h"
#include "db/statements.h"

namespace sdbl {

// A service with its names in languages, without the empty ones.
struct Named_channel {
  Listed_channel channel;
  std::vector<std::string> names;
};

// What hosts ask of channel list and guide, with texts as they are stored. Each operation reads everything before it
// lets the connection go; one that fails prints it, returns false and leaves `*out` alone. Any-thread.
class Lookup {
 public:
  Lookup(const Connection& connection, const Statements& statements)
      : connection_(connection), statements_(statements) {}

  // All services, by row.
  bool channels(std::vector<Named_channel>* out) const;

  // Texts in the first of `languages` in which there is a title, else in the one stored first.
  bool now_and_next(int channel, const std::vector<std::string>& languages, int64_t at, Now_next* out) const;

 private:
  bool read_texts(const std::vector<std::string>& languages, Programme* event) const;

  const Connection& connection_;
  const Statements& statements_;
};

}  // namespace sdbl
