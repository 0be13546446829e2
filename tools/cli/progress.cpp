// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/cli/progress.h"

#include <algorithm>

#include <fmt/format.h>

#include "tools/cli/console.h"
#include "tools/cli/text_columns.h"

namespace {

constexpr int BAR_WIDTH = 20;
constexpr int NARROW_BAR_WIDTH = 6;

std::string time_text(double seconds) {
  const int whole = static_cast<int>(std::clamp(seconds, 0.0, 1e6));
  return fmt::format("{}:{:02}", whole / 60, whole % 60);
}

}  // namespace

Progress::Progress(int total, bool on) : total_(total), on_(on) {}

void Progress::draw(const std::string& text, std::optional<double> left) {
  if (!on_) {
    return;
  }
  const int width = console::is_narrow() ? NARROW_BAR_WIDTH : BAR_WIDTH;
  const int filled = total_ > 0 ? width * done_ / total_ : 0;
  std::string line = fmt::format("[{}{}] {}/{}  {}{}", std::string(static_cast<size_t>(filled), '#'),
                                 std::string(static_cast<size_t>(width - filled), '.'), done_, total_, text,
                                 left ? "  left " + time_text(*left) : "");
  // One column stays free: a line that fills the last one makes some terminals begin another, which is then not written
  // over.
  line = fitting(line, std::max(1, console::width() - 1));
  // Back to the first column, and clear what the last line left behind this one.
  console::put("\r" + line + "\x1B[K");
  drawn_ = true;
}

void Progress::clear() {
  if (drawn_) {
    console::put("\r\x1B[K");
    drawn_ = false;
  }
}
