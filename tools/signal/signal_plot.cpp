// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/signal/signal_plot.h"

#include <linux/dvb/frontend.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <optional>
#include <sstream>

#include <fmt/format.h>

#include "tools/cli/local_time.h"
#include "tools/cli/svg_element.h"
#include "tools/cli/text.h"

namespace {

constexpr double WIDTH = 1000;
constexpr double LEFT = 86;
constexpr double RIGHT = 20;
constexpr double PLOT = WIDTH - LEFT - RIGHT;
constexpr double TOP = 56;
constexpr double PANEL = 130;
constexpr double PANEL_GAP = 34;
constexpr double LANE = 16;
constexpr double BOTTOM = 34;
constexpr int64_t LONGEST_STEP_MS = 10'000;  // a longer silence is a gap
constexpr double LOWEST_RATE = 1e-9;         // what the logarithm of no errors is drawn as

constexpr const char* LINE = "#2f6db5";
constexpr const char* LOCKED = "#2b8f63";
constexpr const char* UNLOCKED = "#c1343b";
constexpr const char* GRID = "#e2e5e9";
constexpr const char* STYLE =
    "text{font-family:'DejaVu Sans',Verdana,Arial,sans-serif;font-size:11px;fill:#68707a}"
    ".title{font-size:16px;font-weight:bold;fill:#22272e}.name{font-size:12px;font-weight:bold;fill:#22272e}"
    ".r{text-anchor:end}.m{text-anchor:middle}";

// What a panel shows: one reading on one scale.
struct Panel {
  const char* name;
  Signal_value Signal_readings::*member;
  int scale;
  const char* unit;
};

constexpr Panel PANELS[] = {
    {"Strength", &Signal_readings::strength, SCALE_DECIBEL, "dBm"},
    {"Strength", &Signal_readings::strength, SCALE_RELATIVE, "%"},
    {"Strength", &Signal_readings::strength, SCALE_BOX, "%"},
    {"Strength", &Signal_readings::strength, SCALE_DRIVER, "driver's scale"},
    {"SNR", &Signal_readings::snr, SCALE_DECIBEL, "dB"},
    {"SNR", &Signal_readings::snr, SCALE_RELATIVE, "%"},
    {"SNR", &Signal_readings::snr, SCALE_BOX, "dB"},
    {"SNR", &Signal_readings::snr, SCALE_DRIVER, "driver's scale"},
    {"Bit errors before correction", &Signal_readings::pre_ber, SCALE_RATE, "rate"},
    {"Bit errors", &Signal_readings::post_ber, SCALE_RATE, "rate"},
    {"Bit error quality", &Signal_readings::post_ber, SCALE_BOX, "0 to 100"},
    {"Bit errors", &Signal_readings::post_ber, SCALE_DRIVER, "driver's scale"},
    {"Block errors", &Signal_readings::block_errors, SCALE_RATE, "rate"},
    {"Block errors", &Signal_readings::block_errors, SCALE_DRIVER, "number"},
};

std::string label_of(double value, int scale) {
  return scale == SCALE_RATE ? fmt::format("1e{:.0f}", value) : fmt::format("{:g}", value);
}

class Picture {
 public:
  Picture(const std::vector<Signal_sample>& samples, std::string title)
      : samples_(samples), title_(std::move(title)), begin_(samples.front().time_ms), end_(begin_ + 1) {
    for (const Signal_sample& sample : samples_) {
      begin_ = std::min(begin_, sample.time_ms);
      end_ = std::max(end_, sample.time_ms);
    }
  }

  std::string draw();

 private:
  double x_of(int64_t time_ms) const {
    return LEFT + PLOT * static_cast<double>(time_ms - begin_) / static_cast<double>(end_ - begin_);
  }
  std::optional<double> value_of(const Signal_sample& sample, const Panel& panel) const;
  bool has(const Panel& panel) const;
  void draw_lane(Element* svg, double y) const;
  void draw_panel(Element* svg, const Panel& panel, double y) const;
  void draw_times(Element* svg, double y) const;
  std::string summary() const;

  const std::vector<Signal_sample>& samples_;
  std::string title_;
  int64_t begin_;
  int64_t end_;
};

std::optional<double> Picture::value_of(const Signal_sample& sample, const Panel& panel) const {
  const Signal_value& value = sample.readings.*panel.member;
  if (value.scale != panel.scale) {
    return std::nullopt;
  }
  return panel.scale == SCALE_RATE ? std::log10(std::max(value.value, LOWEST_RATE)) : value.value;
}

bool Picture::has(const Panel& panel) const {
  return std::any_of(samples_.begin(), samples_.end(),
                     [&](const Signal_sample& sample) { return value_of(sample, panel).has_value(); });
}

std::string Picture::summary() const {
  const auto locked = std::count_if(samples_.begin(), samples_.end(), [](const Signal_sample& sample) {
    return (sample.readings.status & FE_HAS_LOCK) != 0;
  });
  return fmt::format("{} to {}, {} sample{}, {:.0f} % locked", local_time(begin_ / 1000, "%Y-%m-%d %H:%M:%S"),
                     local_time(end_ / 1000, "%H:%M:%S"), samples_.size(), samples_.size() == 1 ? "" : "s",
                     100.0 * static_cast<double>(locked) / static_cast<double>(samples_.size()));
}

std::string Picture::draw() {
  pugi::xml_document document;
  pugi::xml_node root = document.append_child("svg");
  Element svg(root);
  svg.set("xmlns", "http://www.w3.org/2000/svg").set("width", WIDTH);
  pugi::xml_attribute height = root.append_attribute("height");  // known at the end
  svg.set("role", "img").set("aria-label", title_ + ": " + summary());
  pugi::xml_attribute box = root.append_attribute("viewBox");
  svg.child("style").say(STYLE);
  pugi::xml_node background = root.append_child("rect");
  svg.child("text").set("class", "title").set("x", 12.0).set("y", 24.0).say(title_);
  svg.child("text").set("x", 12.0).set("y", 42.0).say(summary());
  double y = TOP;
  draw_lane(&svg, y);
  y += LANE + PANEL_GAP;
  for (const Panel& panel : PANELS) {
    if (has(panel)) {
      draw_panel(&svg, panel, y);
      y += PANEL + PANEL_GAP;
    }
  }
  draw_times(&svg, y - PANEL_GAP + LANE);
  y += BOTTOM - PANEL_GAP;
  height.set_value(svg_number(y).c_str());
  box.set_value(fmt::format("0 0 {} {}", svg_number(WIDTH), svg_number(y)).c_str());
  Element(background).set("width", WIDTH).set("height", y).set("fill", "#ffffff");
  std::ostringstream out;
  document.save(out, " ");
  return out.str();
}

// Green while there is a lock, red while there is none; a stretch lasts until the next sample says otherwise.
void Picture::draw_lane(Element* svg, double y) const {
  svg->child("text").set("class", "name r").set("x", LEFT - 8).set("y", y + LANE - 4).say("Lock");
  for (size_t i = 0; i < samples_.size();) {
    const bool locked = (samples_[i].readings.status & FE_HAS_LOCK) != 0;
    size_t last = i;
    while (last + 1 < samples_.size() && samples_[last + 1].time_ms - samples_[last].time_ms <= LONGEST_STEP_MS &&
           ((samples_[last + 1].readings.status & FE_HAS_LOCK) != 0) == locked) {
      ++last;
    }
    const bool follows =
        last + 1 < samples_.size() && samples_[last + 1].time_ms - samples_[last].time_ms <= LONGEST_STEP_MS;
    const double x = x_of(samples_[i].time_ms);
    const double to = x_of(samples_[follows ? last + 1 : last].time_ms);
    svg->child("rect")
        .set("x", x)
        .set("y", y)
        .set("width", std::max(1.0, to - x))
        .set("height", LANE)
        .set("fill", locked ? LOCKED : UNLOCKED)
        .tip(
            fmt::format("{} from {}", locked ? "lock" : "no lock", local_time(samples_[i].time_ms / 1000, "%H:%M:%S")));
    i = last + 1;
  }
}

void Picture::draw_panel(Element* svg, const Panel& panel, double y) const {
  double lowest = std::numeric_limits<double>::max();
  double highest = std::numeric_limits<double>::lowest();
  for (const Signal_sample& sample : samples_) {
    if (const std::optional<double> value = value_of(sample, panel)) {
      lowest = std::min(lowest, *value);
      highest = std::max(highest, *value);
    }
  }
  // Whole steps around what there is, so that noise of a tenth does not look like a storm.
  const double least = panel.scale == SCALE_DRIVER ? 1000 : panel.scale == SCALE_RATE ? 2 : 5;
  double step = panel.scale == SCALE_RATE ? 1 : least / 5;
  while ((highest - lowest) / step > 6) {
    step *= 2;
  }
  lowest = std::floor(lowest / step) * step;
  highest = std::ceil(highest / step) * step;
  if (highest - lowest < least) {
    lowest -= std::floor((least - (highest - lowest)) / 2 / step) * step;
    highest = lowest + least;
  }

  svg->child("text")
      .set("class", "name")
      .set("x", LEFT)
      .set("y", y - 8)
      .say(fmt::format("{} ({})", panel.name, panel.unit));
  Element grid = svg->child("g");
  grid.set("stroke", GRID).set("stroke-width", 1.0);
  const auto y_of = [&](double value) { return y + PANEL * (highest - value) / (highest - lowest); };
  for (int i = 0; lowest + i * step <= highest + step / 2; ++i) {
    const double value = lowest + i * step;
    grid.child("line").set("x1", LEFT).set("x2", LEFT + PLOT).set("y1", y_of(value)).set("y2", y_of(value));
    svg->child("text").set("class", "r").set("x", LEFT - 8).set("y", y_of(value) + 4).say(label_of(value, panel.scale));
  }

  // A long log has more samples than there are pixels: of those in one column the first, the extremes and the last are
  // drawn, which looks the same.
  std::string path;
  const Signal_sample* before = nullptr;
  for (size_t i = 0; i < samples_.size();) {
    const auto column = static_cast<int>(x_of(samples_[i].time_ms));
    std::vector<double> values;
    const size_t first = i;
    bool gap = before == nullptr || samples_[i].time_ms - before->time_ms > LONGEST_STEP_MS;
    for (; i < samples_.size() && static_cast<int>(x_of(samples_[i].time_ms)) == column; ++i) {
      if (const std::optional<double> value = value_of(samples_[i], panel)) {
        values.push_back(*value);
      }
    }
    before = values.empty() ? nullptr : &samples_[i - 1];
    if (values.empty()) {
      continue;
    }
    const auto [low, high] = std::minmax_element(values.begin(), values.end());
    const double x = x_of(samples_[first].time_ms);
    std::vector<double> points{values.front()};
    if (values.size() > 1) {
      points = {values.front(), *low, *high, values.back()};
    }
    for (const double value : points) {
      path += fmt::format("{}{} {}", gap ? "M" : "L", svg_number(x), svg_number(y_of(value)));
      gap = false;
    }
  }
  svg->child("path")
      .set("d", path)
      .set("fill", "none")
      .set("stroke", LINE)
      .set("stroke-width", 1.5)
      .set("stroke-linecap", "round");
}

void Picture::draw_times(Element* svg, double y) const {
  constexpr int STEPS = 5;
  for (int i = 0; i <= STEPS; ++i) {
    const int64_t time_ms = begin_ + (end_ - begin_) * i / STEPS;
    const char* const place = i == 0 ? "" : i == STEPS ? "r" : "m";
    svg->child("text")
        .set("class", place)
        .set("x", x_of(time_ms))
        .set("y", y)
        .say(local_time(time_ms / 1000, "%H:%M:%S"));
  }
}

}  // namespace

std::string signal_picture(const std::vector<Signal_sample>& samples, const std::string& title) {
  return Picture(samples, title).draw();
}
