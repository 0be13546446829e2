// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "fuzz/entries.h"
#include "support/support.h"

namespace fuzz {

// The inputs that are kept of an entry, corpus/NAME.hex: seeds, or what reached something new when it was fuzzed.
std::vector<support::Bytes> kept(const std::string& name);

struct Named_entry {
  const char* name;
  Entry entry;
  int damaged = 20;  // copies of each input that are damaged
};
void PrintTo(const Named_entry& entry, std::ostream* out);

// Every kept input as it is, cut short in a few places, and damaged. Fails where there is none.
void run_kept(const Named_entry& entry);

}  // namespace fuzz
