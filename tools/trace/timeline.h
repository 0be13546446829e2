// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <string>
#include <vector>

// What a trace says, as lanes over time: what the pictures are made from. It follows the rules of
// Timedoc::convert_to_tdi, with three differences: the time does not wrap at 2^32 ticks, interrupts with numbers out of
// range are left out, and starts are paired with stops.

enum class Lane_kind { TASK, INTERRUPT, AGENT, OBJECT, EVENT, NOTE };

struct Span {
  int64_t begin = 0;  // ticks since the first record
  int64_t end = 0;
  int depth = 0;  // how many spans of the lane it lies in
  bool begin_known = true;
  bool end_known = true;
  bool nested = false;  // an interrupt that began during another one
};

struct Mark {
  int64_t time = 0;
  int value = 0;
};

struct Lane {
  Lane_kind kind = Lane_kind::TASK;
  std::string name;     // clean_text(), never empty
  unsigned number = 0;  // the id of its records, for notes and objects the first one's
  // In order of their ends, of each depth in order of time.
  std::vector<Span> spans;
  std::vector<Mark> marks;  // of a note; of an agent: its interrupt was enabled (without a value)
};

struct Timeline {
  std::vector<Lane> lanes;  // by kind, then as they appear
  std::vector<int64_t> wraps;
  int64_t end = 0;  // ticks
  size_t records = 0;
  size_t left_out = 0;  // records that make no sense
};

inline constexpr int64_t TICKS_PER_SECOND = 320'000'000;

// `words` as of Trace_words.
Timeline make_timeline(const std::vector<unsigned>& words);

// "task", "interrupt", ...; and for several of them, with a capital.
const char* kind_text(Lane_kind kind);
const char* kinds_text(Lane_kind kind);
