// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/cli/progress_lines.h"

#include <algorithm>
#include <cwchar>

#include "tools/cli/console.h"

namespace {

constexpr size_t MOST_LINES = 20;

// As much of the text as fits into so many columns.
std::string cut(const std::string& text, int columns) {
  std::mbstate_t state{};
  size_t at = 0;
  while (at < text.size()) {
    wchar_t c = 0;
    const size_t size = std::mbrtowc(&c, text.data() + at, text.size() - at, &state);
    // A half character, or none: what stands before it is shown.
    if (size == 0 || size > text.size()) {
      break;
    }
    columns -= wcwidth(c) > 0 ? wcwidth(c) : 0;
    if (columns < 0) {
      break;
    }
    at += size;
  }
  return text.substr(0, at);
}

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
    out += cut(line, console::width() - 1) + "\n";
    ++drawn_;
  }
  console::put(out);
}

void Progress_lines::clear() {
  draw({});
}
