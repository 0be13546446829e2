// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "support/support.h"

namespace dvbsi_test {

using support::Bytes;

// A well-formed section of every table with every descriptor that has a class, and a few that have none.
std::vector<Bytes> sample_sections();

// The same with sizes as on air: `entries` programs, streams, services or events.
Bytes sample_pat(size_t entries);
Bytes sample_pmt(size_t entries);
Bytes sample_sdt(size_t entries);
Bytes sample_eit(size_t entries);

// The section of a PMT, NIT, SDT or else EIT whose first entry has this loop; `behind` are the bytes of the next entry.
Bytes with_entry_loop(uint8_t table_id, const Bytes& loop, const Bytes& behind = {});

// The same numbers on every machine for the same seed.
class Random {
 public:
  explicit Random(uint32_t seed) : engine_(seed) {}
  unsigned operator()() { return static_cast<unsigned>(engine_()); }

 private:
  std::mt19937 engine_;
};

// One to four bit flips, byte changes, insertions or cuts. section_length and CRC are right again afterwards, so that
// the damage gets as far as it can; the size stays between 8 and 4096 bytes.
Bytes damaged(Bytes section, Random& random);

// A section of a random table with one to three descriptors of random tag, length and body.
Bytes random_section(Random& random);

// The sections of a file in which each stands behind its 16-bit big-endian size; none when there is no such file.
std::vector<Bytes> section_file(const std::string& path);

// A file of the collection of malformed sections beside the source tree: its text and its sections, one but for
// "random_found.txt", which has one at the end of each line.
struct Collected {
  std::string name;
  std::string text;
  std::vector<Bytes> sections;
};
std::vector<Collected> shared_collection();  // none where it is not there: then skip the test

// `../shared/dvbsi/NAME` beside the source tree, or an empty text where it is not there (then skip the test).
std::string shared_file(const std::string& name);

}  // namespace dvbsi_test
