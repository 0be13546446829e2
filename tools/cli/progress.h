// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <optional>
#include <string>

// Progress of a long work on the command's standard error: on a terminal one line that is written over, elsewhere
// nothing (plain lines are printed instead). One thread.
class Progress {
 public:
  // `total` steps; nothing is ever drawn unless `on`.
  Progress(int total, bool on);
  ~Progress() { clear(); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  bool on() const { return on_; }
  void step() { ++done_; }
  // There is more to do than it seemed.
  void set_total(int total) { total_ = total; }

  // Draws the bar, `text` after it and the time left in seconds, where that is known, cut to the terminal's width.
  void draw(const std::string& text, std::optional<double> left);

  // Takes the line away, so that other lines can be written.
  void clear();

 private:
  int total_;
  int done_ = 0;
  bool on_;
  bool drawn_ = false;
};
