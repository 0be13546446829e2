// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>
#include <vector>

// How the records of a trace lie in a file: raw 32-bit words in either byte order, or "log" lines of four hexadecimal
// numbers (Timedoc::write_file).
enum class Trace_source { DETECT, LITTLE, BIG, LOG };

// Records as Timedoc::convert_to_tdi takes them.
struct Trace_words {
  std::vector<unsigned> words;  // four a record, whole records only
  bool cut = false;             // an incomplete one stood behind the last
};

// One record, taken apart: time stamp, what happened (`cmd`) to what (`type` and `id`), and two words of data.
struct Trace_record {
  explicit Trace_record(const unsigned* w)
      : time(w[0]), cmd(w[1] >> 24), type(w[1] >> 16 & 0xFF), id(w[1] & 0xFFFF), data1(w[2]), data2(w[3]) {}

  unsigned time;
  unsigned cmd;
  unsigned type;
  unsigned id;
  unsigned data1;
  unsigned data2;
};

enum Trace_command : unsigned {
  TRACE_STOP = 0,
  TRACE_START = 1,
  TRACE_NOTE = 2,
  TRACE_RENAME = 3,
  TRACE_TASK_MUTE = 4
};
enum Trace_type : unsigned {
  TRACE_TASK = 0,
  TRACE_INTERRUPT = 1,
  TRACE_OBJECT = 2,
  TRACE_OBJECT_2 = 3,
  TRACE_EVENT = 4,
  TRACE_AGENT = 8,
};
inline constexpr unsigned TRACE_INTERRUPTS = 82;  // numbers of interrupts end below

// Whether a record has a meaning. Those that have none are reported and left out when a trace is converted.
bool makes_sense(const Trace_record& record);

// Reads a file, or standard input for "-". Without a source it finds out: the byte order is the one in which more
// records make sense, or, where that is the same, in which time goes back less often. Throws Failure when the file
// cannot be read or is no trace.
Trace_words read_trace(const std::string& file, Trace_source source);
