// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>
#include <vector>

#include "support/support.h"

namespace dvbsi_test {

// What a caller makes of a section that passed the guard's eyes.
enum class Verdict {
  PARSED,        // handed to a parser
  REFUSED,       // never handed to one
  BODY_SKIPPED,  // handed to one, but the entries of its descriptor are not used
};

struct Malformed {
  std::string legend;
  support::Bytes section;
  Verdict verdict;
  std::string outline;  // what our own classes make of it, see outline()
};

// Broken sections of every kind that real parsers stumble over.
std::vector<Malformed> malformed_cases();

// values() without its numbers: the tags of the loops, entries in brackets. "09 [52 4e(1)] []"
std::string outline(const uint8_t* section);

}  // namespace dvbsi_test
