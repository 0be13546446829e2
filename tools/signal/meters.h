// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <deque>
#include <string>
#include <vector>

#include "tools/signal/signal_log.h"

// The readings of a signal as lines for people.

// On one line: "signal carrier viterbi sync lock  strength -52.3 dBm  SNR 24.1 dB  BER 2.1e-06, 0.0e+00  blocks
// 0.0e+00".
std::string readings_line(const Signal_readings& readings);

// Meters with bars, and a graph of the last minute, drawn again and again. One thread.
class Meters {
 public:
  // Takes in the readings of this second, for the graph.
  void add(const Signal_readings& readings);

  // The lines: names of the status bits, strength, SNR, errors, the graph. `columns`: how wide the screen is.
  std::vector<std::string> lines(const Signal_readings& readings, int columns) const;

 private:
  std::deque<Signal_value> history_;  // the SNR of each second or, where there is none, the strength
  bool of_snr_ = true;
};
