// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>

// Whether PAT, SDT and NIT still say what a scan has read; not installed. A table has changed when a section has
// another version or CRC than the one of its number, when there was none, or when it is of another transport stream. A
// NIT of another network than the one that was read tells nothing. Worker-only.
class Table_watch {
 public:
  // Another multiplex is tuned: nothing has been read.
  void begin() { *this = {}; }

  // A section that a scan reads. REQUIRES, here as below: a whole long section.
  void read(std::span<const uint8_t> section);
  // One that comes afterwards.
  void compare(std::span<const uint8_t> section);

  // True once a table has changed since the last look.
  bool changed() const { return changed_; }
  void looked() { changed_ = false; }

 private:
  struct Table {
    int extension = -1;
    int version = -1;
    std::map<int, uint32_t> crcs;  // by section number
  };

  std::map<int, Table> tables_;  // by table id
  bool changed_ = false;
};
