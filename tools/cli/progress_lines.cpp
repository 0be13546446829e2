// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/cli/progress_lines.h"

#include <algorithm>

#include "tools/cli/console.h"
#include "tools/cli/text_columns.h"

namespace {

constexpr size_t MOST_LINES = 20;

}  // namespace

void Progress_lines::draw(const std::vector<std::string>& lines) {
  std::string out;
  if (drawn_ > 0) {
    out = "\x1B[" + std::to_string(drawn_) + "A\r\x1B[J";
  }
  drawn_ = 0;
  // What has scrolled away cannot be written over, so one line stays free for the cursor.
  const size_t most = std::min(MOST_LINES, static_cast<size_t>(std::max(1, console::height() - 1)));
  for (const std::string& line : lines) {
    if (drawn_ == most) {
      break;
    }
    out += fitting(line, console::width() - 1) + "\n";
    ++drawn_;
  }
  console::put(out);
}

void Progress_lines::clear() {
  draw({});
}
