// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/signal/meters.h"

#include <algorithm>
#include <cmath>

#include <fmt/format.h>

#include "tools/engine/tuning_text.h"

namespace {

constexpr int BAR_WIDTH = 30;
constexpr size_t HISTORY = 60;  // seconds
constexpr int LABEL = 10;
constexpr const char* BLOCKS[] = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};

// What fills a bar, by scale: a strong aerial's level and the best SNR of 256-QAM.
struct Range {
  double lowest;
  double highest;
};
constexpr Range STRENGTH_DBM{-100, -20};
constexpr Range SNR_DB{0, 35};
constexpr Range PERCENT{0, 100};
constexpr Range DRIVER{0, 65535};

Range range_of(int scale, Range decibel) {
  return scale == SCALE_DECIBEL ? decibel : scale == SCALE_DRIVER ? DRIVER : PERCENT;
}

// From 0 to 1.
double part_of(const Signal_value& value, Range range) {
  return std::clamp((value.value - range.lowest) / (range.highest - range.lowest), 0.0, 1.0);
}

Range strength_range(const Signal_value& value) {
  return range_of(value.scale, STRENGTH_DBM);
}

Range snr_range(const Signal_value& value) {
  return range_of(value.scale == SCALE_BOX ? SCALE_DECIBEL : value.scale, SNR_DB);
}

std::string bar(const Signal_value& value, Range range) {
  if (value.scale == SCALE_ABSENT) {
    return std::string(BAR_WIDTH, ' ');
  }
  const auto filled = static_cast<size_t>(std::lround(part_of(value, range) * BAR_WIDTH));
  return std::string(filled, '#') + std::string(BAR_WIDTH - filled, '.');
}

std::string errors_line(const Signal_readings& readings) {
  const std::string post = errors_text(readings.post_ber);
  return readings.pre_ber.scale == SCALE_ABSENT ? post : errors_text(readings.pre_ber) + ", corrected " + post;
}

std::string labelled(const std::string& label, const std::string& text) {
  return fmt::format("{:<{}}{}", label, LABEL, text);
}

}  // namespace

std::string readings_line(const Signal_readings& readings) {
  return fmt::format("{}  strength {}  SNR {}  BER {}  blocks {}", status_text(readings.status),
                     strength_text(readings.strength), snr_text(readings.snr), errors_line(readings),
                     errors_text(readings.block_errors));
}

void Meters::add(const Signal_readings& readings) {
  const bool has_snr = readings.snr.scale != SCALE_ABSENT;
  // A device may have no SNR until the lock; a graph of two quantities would show neither.
  if (has_snr != of_snr_ && (has_snr || std::all_of(history_.begin(), history_.end(), [](const Signal_value& value) {
                               return value.scale == SCALE_ABSENT;
                             }))) {
    history_.clear();
    of_snr_ = has_snr;
  }
  history_.push_back(of_snr_ ? readings.snr : readings.strength);
  if (history_.size() > HISTORY) {
    history_.pop_front();
  }
}

std::vector<std::string> Meters::lines(const Signal_readings& readings, int columns) const {
  std::vector<std::string> out{
      labelled("status", status_text(readings.status)),
      labelled("strength", fmt::format("[{}] {}", bar(readings.strength, strength_range(readings.strength)),
                                       strength_text(readings.strength))),
      labelled("SNR", fmt::format("[{}] {}", bar(readings.snr, snr_range(readings.snr)), snr_text(readings.snr))),
      labelled("BER", errors_line(readings)),
      labelled("blocks", errors_text(readings.block_errors)),
  };
  const size_t room = static_cast<size_t>(std::max(1, columns - LABEL - 1));
  const size_t shown = std::min(room, history_.size());
  std::string graph;
  for (size_t i = history_.size() - shown; i < history_.size(); ++i) {
    const Signal_value& value = history_[i];
    const double part = part_of(value, of_snr_ ? snr_range(value) : strength_range(value));
    const auto block = static_cast<size_t>(std::lround(part * static_cast<double>(std::size(BLOCKS) - 1)));
    graph += value.scale == SCALE_ABSENT ? " " : BLOCKS[block];
  }
  out.push_back(labelled(of_snr_ ? "SNR, 60 s" : "60 s", graph));
  return out;
}
