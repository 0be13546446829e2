// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/cli/bands.h"

namespace {

void append(std::vector<int>* out, int first, int last, int step) {
  for (int freq = first; freq <= last; freq += step) {
    out->push_back(freq);
  }
}

}  // namespace

// Each band is asked for by excluding the other one, so that "all" needs no case of its own and VHF comes first.
std::vector<int> band_frequencies(const std::string& band) {
  std::vector<int> out;
  if (band != "uhf") {
    append(&out, 177'500'000, 226'500'000, 7'000'000);
  }
  if (band != "vhf") {
    append(&out, 474'000'000, 858'000'000, 8'000'000);
  }
  return out;
}
