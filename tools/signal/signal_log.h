// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <kelvo/kelvo.h>

// A signal as it was at one moment.
struct Signal_sample {
  int64_t time_ms = 0;  // since 1970, UTC
  int freq = 0;         // Hz
  std::string system;   // "DVB-T2"; empty while there is no lock
  Signal_readings readings;
};

// A file of samples as comma separated values, one a line behind a line of headings; a reading that there is none of is
// an empty cell. Each line is on its way to the disk when it has been added, so that a log is readable while it grows
// and whole when the program is killed.
class Signal_log {
 public:
  // Makes the file, or goes on with one of its kind. Throws Failure when it cannot, or the file is something else.
  explicit Signal_log(const std::string& file);
  ~Signal_log();
  Signal_log(const Signal_log&) = delete;
  Signal_log& operator=(const Signal_log&) = delete;

  // Throws Failure when it cannot be written.
  void add(const Signal_sample& sample);

 private:
  void write(const std::string& text) const;

  std::string file_;
  int fd_ = -1;
};

// All samples of such a file. Throws Failure, naming the line, when it is none; a last line that was cut off is left
// out.
std::vector<Signal_sample> read_signal_log(const std::string& file);

// "2026-03-01T18:00:00.250Z".
std::string utc_text(int64_t time_ms);

// The unit of a reading, as the log has it: "dB", "%", "rate", "driver", "box"; empty for none.
std::string scale_word(int scale);
