// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "support/test.h"

// Records as a trace device holds them: {100, STA, TASK, 7, "worker"}, {120, NOTE, 0, 0, "tune", 506}. Starts, stops,
// interrupts and objects have the short names that they have in TDI files and messages.
namespace trace_records {

constexpr unsigned STO = 0, STA = 1, NOTE = 2;
constexpr unsigned TASK = 0, ISR = 1, OBJ = 2, EVENT = 4, AGENT = 8;

inline const std::string HEADER = "PNX893x trace\nSPEED 320000000\nMEMSPEED 200000000\nTIME 68570000\n";

// The characters from the one at `at` in a word, the first one highest.
constexpr unsigned word(std::string_view name, size_t at = 0) {
  unsigned out = 0;
  for (size_t i = at; i < at + 4; ++i)
    out = out << 8 | (i < name.size() ? static_cast<unsigned char>(name[i]) : 0U);
  return out;
}

struct Record {
  constexpr Record(unsigned time, unsigned command, unsigned type, unsigned id, unsigned data1 = 0, unsigned data2 = 0)
      : words{time, command << 24 | type << 16 | id, data1, data2} {}
  // A name of up to eight characters, or of four and a number.
  template <size_t N>
  constexpr Record(unsigned time, unsigned command, unsigned type, unsigned id, const char (&name)[N])
      : Record(time, command, type, id, word({name, N - 1}), word({name, N - 1}, 4)) {}
  template <size_t N>
  constexpr Record(unsigned time, unsigned command, unsigned type, unsigned id, const char (&name)[N], unsigned number)
      : Record(time, command, type, id, word({name, N - 1}), number) {}

  std::array<unsigned, 4> words;
};

inline std::vector<unsigned> words_of(const std::vector<Record>& records) {
  std::vector<unsigned> out;
  for (const Record& record : records)
    out.insert(out.end(), record.words.begin(), record.words.end());
  return out;
}

}  // namespace trace_records
