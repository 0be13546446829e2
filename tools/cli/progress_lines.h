// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>
#include <vector>

// Lines on the command's standard error, a terminal, that are written over. One thread.
class Progress_lines {
 public:
  // Puts these lines, cut to the terminal's size, in the place of the last ones.
  void draw(const std::vector<std::string>& lines);
  // Takes them away.
  void clear();

 private:
  size_t drawn_ = 0;
};
