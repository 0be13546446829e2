// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The picture of a trace. Lengths are pixels of a picture that is WIDTH wide; viewers scale it.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <pugixml.hpp>

#include <fmt/format.h>

#include "tools/cli/svg_element.h"
#include "tools/cli/text.h"
#include "tools/trace/print.h"

namespace {

constexpr double WIDTH = 1400;
constexpr double LABELS = 176;  // column of names
constexpr double TOTALS = 116;  // column of sums
constexpr double PLOT = WIDTH - LABELS - TOTALS;
constexpr double TITLE = 52;
constexpr double AXIS = 22;
constexpr double HEADING = 24;
constexpr double LANE = 22;
constexpr double BAR = 14;
constexpr double LEGEND = 34;
constexpr int MOST_DEPTH = 3;      // deeper spans are not drawn
constexpr size_t MOST_LANES = 40;  // of a kind
constexpr size_t MOST_BARS = 20'000;
constexpr double WIDEST_JOINED = 6;
constexpr double SHAPED = 4;         // width of bars that are worth an outline
constexpr double MARK = 4;           // half a note's diamond
constexpr double CHARACTER = 6.3;    // of the small text, about
constexpr size_t LONGEST_NAME = 24;  // characters of a label

// Colours that can be told apart with every kind of eyes, all dark enough on white.
constexpr const char* COLOURS[] = {"#2f6db5", "#d1701a", "#2b8f63", "#b5479b",
                                   "#7a6a1f", "#c1343b", "#5b57b8", "#138a9e"};
constexpr const char* TEXT = "#22272e";
constexpr const char* QUIET = "#68707a";
constexpr const char* GRID = "#e2e5e9";
constexpr const char* BAND = "#f5f6f8";

constexpr const char* STYLE =
    "text{font-family:'DejaVu Sans',Verdana,Arial,sans-serif;font-size:12px;fill:#22272e}"
    ".title{font-size:17px;font-weight:bold}.quiet{fill:#68707a;font-size:11px}"
    ".heading{font-size:11px;font-weight:bold;fill:#68707a;letter-spacing:.06em}"
    ".r{text-anchor:end}.m{text-anchor:middle}"
    "rect:hover,path:hover{stroke:#22272e;stroke-width:1}";

// Names of units and how many make a second.
constexpr std::pair<const char*, double> UNITS[] = {{"s", 1.0}, {"ms", 1e3}, {"µs", 1e6}, {"ns", 1e9}};

// A place on the axis, finer than it is drawn.
std::string position(int64_t ticks) {
  return fmt::format("{:.9f} s", static_cast<double>(ticks) / static_cast<double>(TICKS_PER_SECOND));
}

// A bar: one span, or several that lie too close to be told apart.
struct Bar {
  double x = 0;
  double end = 0;
  int64_t from = 0;
  int64_t to = 0;
  int64_t covered = 0;
  size_t spans = 0;
  Span first;
};

// A note's diamond: one mark, or several.
struct Diamond {
  double x = 0;
  size_t first = 0;
  size_t marks = 0;
};

std::string cut(const std::string& name) {
  size_t characters = 0;
  for (size_t i = 0; i < name.size(); ++i) {
    const bool begins = (static_cast<unsigned char>(name[i]) & 0xC0) != 0x80;
    if (begins && ++characters > LONGEST_NAME) {
      return name.substr(0, i) + "…";
    }
  }
  return name;
}

class Picture {
 public:
  Picture(const Timeline* timeline, std::string title)
      : timeline_(*timeline), title_(std::move(title)), total_(std::max<int64_t>(1, timeline->end)) {}

  void draw(pugi::xml_document* document);

 private:
  double at(int64_t ticks) const { return LABELS + PLOT * static_cast<double>(ticks) / static_cast<double>(total_); }
  std::vector<Bar> bars(const Lane& lane, int depth, double grain) const;
  double find_grain() const;
  std::vector<const Lane*> drawn_lanes() const;

  void draw_axis(Element* svg, double top, double bottom);
  void draw_lane(Element* svg, const Lane& lane, const char* colour, double y);
  void draw_bar(Element* group, const Lane& lane, const Bar& bar, int depth, const char* colour, double y);
  void draw_marks(Element* group, const Lane& lane, const char* colour, double y);
  void draw_wraps(Element* svg, double top, double bottom);
  void draw_legend(Element* svg, double y);
  std::string summary() const;

  const Timeline& timeline_;
  std::string title_;
  int64_t total_;
  double grain_ = 1;
  // What the legend has to explain.
  bool several_ = false;
  bool inner_ = false;
  bool unknown_ = false;
  bool notes_ = false;
  bool enabled_ = false;
};

// Spans that are too short for their shape are joined where they touch.
std::vector<Bar> Picture::bars(const Lane& lane, int depth, double grain) const {
  std::vector<Bar> out;
  bool joins = false;
  for (const Span& span : lane.spans) {
    if (span.depth != depth) {
      continue;
    }
    // Every span is at least one grain wide, also at the right edge: what happened must be seen, however short it was.
    const double x = std::min(at(span.begin), LABELS + PLOT - grain);
    const double end = std::max(at(span.end), x + grain);
    const bool is_short = at(span.end) - x < 2 * grain;
    if (joins && is_short && x < out.back().end + grain / 2 && x < out.back().x + WIDEST_JOINED * grain) {
      Bar& bar = out.back();
      bar.end = std::max(bar.end, end);
      bar.to = span.end;
      bar.covered += span.end - span.begin;
      ++bar.spans;
    } else {
      out.push_back({x, end, span.begin, span.end, span.end - span.begin, 1, span});
      joins = is_short;
    }
  }
  return out;
}

// As fine as the number of bars allows.
double Picture::find_grain() const {
  // Viewers become slow with very many shapes, so a long trace is drawn coarser and not cut off.
  for (double grain = 1;; grain *= 2) {
    size_t count = 0;
    for (const Lane* lane : drawn_lanes()) {
      for (int depth = 0; depth <= MOST_DEPTH; ++depth) {
        count += bars(*lane, depth, grain).size();
      }
    }
    if (count <= MOST_BARS || grain > PLOT) {
      return grain;
    }
  }
}

// The first ones of each kind.
std::vector<const Lane*> Picture::drawn_lanes() const {
  std::vector<const Lane*> out;
  size_t of_kind = 0;
  for (const Lane& lane : timeline_.lanes) {
    of_kind = out.empty() || out.back()->kind != lane.kind ? 0 : of_kind;
    if (of_kind < MOST_LANES) {
      out.push_back(&lane);
      ++of_kind;
    }
  }
  return out;
}

std::string Picture::summary() const {
  std::string out =
      fmt::format("{} record{}, {}", timeline_.records, timeline_.records == 1 ? "" : "s", ticks_text(timeline_.end));
  if (timeline_.left_out > 0) {
    out += fmt::format(", {} that make no sense left out", timeline_.left_out);
  }
  return out;
}

void Picture::draw(pugi::xml_document* document) {
  grain_ = find_grain();
  const std::vector<const Lane*> lanes = drawn_lanes();

  pugi::xml_node root = document->append_child("svg");
  Element svg(root);
  svg.set("xmlns", "http://www.w3.org/2000/svg");
  pugi::xml_attribute height = root.append_attribute("height");  // known at the end
  svg.set("width", WIDTH).set("role", "img").set("aria-label", title_ + ": " + summary());
  pugi::xml_attribute box = root.append_attribute("viewBox");
  svg.child("style").say(STYLE);
  pugi::xml_node background = root.append_child("rect");
  svg.child("text").set("class", "title").set("x", 12.0).set("y", 26.0).say(title_);
  svg.child("text").set("class", "quiet").set("x", 12.0).set("y", 43.0).say(summary());

  // Bands and headings first, so that the grid lies on them and below the bars.
  const double top = TITLE + AXIS;
  double y = top;
  std::vector<double> rows;
  for (size_t i = 0; i < lanes.size(); ++i) {
    const Lane_kind kind = lanes[i]->kind;
    if (i == 0 || lanes[i - 1]->kind != kind) {
      svg.child("text").set("class", "heading").set("x", 12.0).set("y", y + 17).say(kinds_text(kind));
      y += HEADING;
    }
    if (i % 2 == 0) {
      svg.child("rect").set("x", 0.0).set("y", y).set("width", WIDTH).set("height", LANE).set("fill", BAND);
    }
    rows.push_back(y);
    y += LANE;
    const auto all = static_cast<size_t>(std::count_if(timeline_.lanes.begin(), timeline_.lanes.end(),
                                                       [kind](const Lane& lane) { return lane.kind == kind; }));
    if ((i + 1 == lanes.size() || lanes[i + 1]->kind != kind) && all > MOST_LANES) {
      svg.child("text")
          .set("class", "quiet")
          .set("x", 12.0)
          .set("y", y + 15)
          .say(fmt::format("and {} more that are not shown", all - MOST_LANES));
      y += LANE;
    }
  }
  if (lanes.empty()) {
    svg.child("text").set("class", "quiet m").set("x", LABELS + PLOT / 2).set("y", y + 24).say("nothing recorded");
    y += 40;
  }
  draw_axis(&svg, top, y);
  for (size_t i = 0; i < lanes.size(); ++i) {
    draw_lane(&svg, *lanes[i], COLOURS[i % std::size(COLOURS)], rows[i]);
  }
  draw_wraps(&svg, top, y);
  y += AXIS;
  draw_legend(&svg, y);
  y += LEGEND;

  height.set_value(svg_number(y).c_str());
  box.set_value(fmt::format("0 0 {} {}", svg_number(WIDTH), svg_number(y)).c_str());
  Element(background).set("width", WIDTH).set("height", y).set("fill", "#ffffff");
}

void Picture::draw_axis(Element* svg, double top, double bottom) {
  const double seconds = static_cast<double>(total_) / static_cast<double>(TICKS_PER_SECOND);
  // About ten lines, at 1, 2 or 5 times a power of ten.
  const double rough = seconds / 10;
  const double power = std::pow(10, std::floor(std::log10(rough)));
  const double times = rough / power;
  const double step = power * (times <= 1.001 ? 1 : times <= 2.001 ? 2 : times <= 5.001 ? 5 : 10);
  const auto unit =
      std::find_if(std::begin(UNITS), std::end(UNITS) - 1, [&](const auto& u) { return seconds * u.second >= 0.9999; });
  const int digits = std::max(0, static_cast<int>(std::ceil(-std::log10(step * unit->second) - 0.001)));

  Element grid = svg->child("g");
  grid.set("stroke", GRID).set("stroke-width", 1.0);
  Element labels = svg->child("g");
  labels.set("class", "m");
  for (int i = 0; static_cast<double>(i) * step <= seconds * 1.0001; ++i) {
    const double x = LABELS + PLOT * static_cast<double>(i) * step / seconds;
    const std::string text =
        fmt::format("{:.{}f} {}", static_cast<double>(i) * step * unit->second, digits, unit->first);
    grid.child("line").set("x1", x).set("x2", x).set("y1", top).set("y2", bottom);
    for (const double y : {top - 7, bottom + 15}) {
      labels.child("text").set("class", "quiet").set("x", x).set("y", y).say(text);
    }
  }
  for (const double y : {top, bottom}) {
    grid.child("line").set("x1", LABELS).set("x2", LABELS + PLOT).set("y1", y).set("y2", y);
  }
}

void Picture::draw_lane(Element* svg, const Lane& lane, const char* colour, double y) {
  Element group = svg->child("g");
  group.child("text")
      .set("x", 20.0)
      .set("y", y + 15)
      .say(cut(lane.name))
      .tip(fmt::format("{} {}", kind_text(lane.kind), lane.name));
  int64_t sum = 0;
  size_t count = lane.kind == Lane_kind::NOTE ? lane.marks.size() : 0;
  for (const Span& span : lane.spans) {
    // Inner spans lie in outer ones, and their time would count twice.
    if (span.depth == 0) {
      sum += span.end - span.begin;
    }
    ++count;
  }
  std::string total = fmt::format("{}×", count);
  if (lane.kind != Lane_kind::NOTE && count > 0) {
    total = ticks_text(sum) + ", " + total;
  }
  group.child("text").set("class", "quiet r").set("x", WIDTH - 10).set("y", y + 15).say(total);
  for (int depth = 0; depth <= MOST_DEPTH; ++depth) {
    for (const Bar& bar : bars(lane, depth, grain_)) {
      draw_bar(&group, lane, bar, depth, colour, y);
    }
  }
  draw_marks(&group, lane, colour, y);
}

void Picture::draw_bar(Element* group, const Lane& lane, const Bar& bar, int depth, const char* colour, double y) {
  const double inset = 2.0 * depth;
  const double top = y + (LANE - BAR) / 2 + inset;
  Element rect = group->child("rect");
  rect.set("x", bar.x).set("y", top).set("width", bar.end - bar.x).set("height", BAR - 2 * inset);
  std::string tip;
  if (bar.spans > 1) {
    // The paler, the less of the time it covers.
    const double share =
        static_cast<double>(bar.covered) / static_cast<double>(std::max<int64_t>(1, bar.to - bar.from));
    rect.set("fill", colour).set("fill-opacity", 0.4 + 0.6 * std::min(1.0, share));
    several_ = true;
    tip = fmt::format("{}, {} times, {} in all, from {} to {}", lane.name, bar.spans, ticks_text(bar.covered),
                      position(bar.from), position(bar.to));
  } else {
    const bool known = bar.first.begin_known && bar.first.end_known;
    const bool shaped = bar.end - bar.x >= SHAPED;
    rect.set("fill", colour);
    if (!shaped) {
      // Too small for more than its colour.
    } else if (!known) {
      rect.set("fill-opacity", 0.3).set("stroke", colour).set("stroke-dasharray", "3 2");
      unknown_ = true;
    } else if (depth > 0) {
      rect.set("stroke", "#ffffff").set("stroke-width", 0.8);
      inner_ = true;
    }
    tip = fmt::format("{}, {}, from {} to {}{}{}{}", lane.name, ticks_text(bar.to - bar.from), position(bar.from),
                      position(bar.to), bar.first.begin_known ? "" : ", its begin was not recorded",
                      bar.first.end_known ? "" : ", its end was not recorded",
                      bar.first.nested ? ", during another interrupt" : "");
  }
  rect.tip(tip);
}

void Picture::draw_marks(Element* group, const Lane& lane, const char* colour, double y) {
  const bool note = lane.kind == Lane_kind::NOTE;
  std::vector<Diamond> diamonds;
  for (size_t i = 0; i < lane.marks.size(); ++i) {
    const double x = at(lane.marks[i].time);
    if (!diamonds.empty() && x < diamonds.back().x + 2 * MARK + 1) {
      ++diamonds.back().marks;
    } else {
      diamonds.push_back({x, i, 1});
    }
  }
  const double middle = y + LANE / 2;
  for (size_t i = 0; i < diamonds.size(); ++i) {
    const Diamond& diamond = diamonds[i];
    const Mark& first = lane.marks[diamond.first];
    Element path = group->child("path");
    const std::string x = svg_number(diamond.x);
    std::string tip;
    if (note) {
      path.set("d", fmt::format("M{} {}l{} {}l-{} {}l-{} -{}z", x, svg_number(middle - MARK - 1), MARK, MARK + 1, MARK,
                                MARK + 1, MARK, MARK + 1));
      notes_ = true;
      tip = diamond.marks == 1
                ? fmt::format("{}: {} at {}", lane.name, first.value, position(first.time))
                : fmt::format("{}, {} times, {} at {} to {} at {}", lane.name, diamond.marks, first.value,
                              position(first.time), lane.marks[diamond.first + diamond.marks - 1].value,
                              position(lane.marks[diamond.first + diamond.marks - 1].time));
    } else {
      path.set("d", fmt::format("M{} {}l3 -5h-6z", x, svg_number(y + 6)));
      enabled_ = true;
      tip = fmt::format("{}: interrupt enabled at {}", lane.name, position(first.time));
    }
    path.set("fill", note ? colour : TEXT).tip(tip);
    const std::string value = diamond.marks == 1 ? fmt::format("{}", first.value) : fmt::format("{}×", diamond.marks);
    // A value is written only where it does not run into the next diamond; the tip has it in any case.
    const double room = (i + 1 < diamonds.size() ? diamonds[i + 1].x - MARK : WIDTH - TOTALS) - diamond.x - MARK - 3;
    if (note && room > CHARACTER * static_cast<double>(value.size()) + 3) {
      group->child("text").set("class", "quiet").set("x", diamond.x + MARK + 3).set("y", y + 15).say(value);
    }
  }
}

void Picture::draw_wraps(Element* svg, double top, double bottom) {
  double last = -WIDTH;
  for (const int64_t wrap : timeline_.wraps) {
    const double x = at(wrap);
    // Long traces wrap every few pixels; lines side by side would be a grey area.
    if (x < last + 2) {
      continue;
    }
    last = x;
    Element line = svg->child("line");
    line.set("x1", x).set("x2", x).set("y1", top).set("y2", bottom).set("stroke", QUIET).set("stroke-dasharray", "2 3");
    line.tip(fmt::format("the counter wrapped at {}", position(wrap)));
  }
}

// Explains what the picture has, from left to right.
void Picture::draw_legend(Element* svg, double y) {
  double x = LABELS;
  const double middle = y + 14;
  const auto box = [&](const char* fill) {
    Element rect = svg->child("rect");
    rect.set("x", x).set("y", middle - 6).set("width", 18.0).set("height", 12.0).set("fill", fill);
    return rect;
  };
  const auto explain = [&](const char* text) {
    svg->child("text").set("class", "quiet").set("x", x + 24).set("y", middle + 4).say(text);
    x += 24 + CHARACTER * static_cast<double>(std::string(text).size()) + 24;
  };
  const char* colour = COLOURS[0];
  if (several_) {
    box(colour).set("fill-opacity", 0.55);
    explain("several, too short to be told apart: the paler, the less time they take");
  }
  if (inner_) {
    box(colour);
    svg->child("rect")
        .set("x", x + 4)
        .set("y", middle - 4)
        .set("width", 10.0)
        .set("height", 8.0)
        .set("fill", colour)
        .set("stroke", "#ffffff")
        .set("stroke-width", 0.8);
    explain("began again inside");
  }
  if (unknown_) {
    box(colour).set("fill-opacity", 0.3).set("stroke", colour).set("stroke-dasharray", "3 2");
    explain("begin or end not recorded");
  }
  if (notes_) {
    svg->child("path")
        .set("d", fmt::format("M{} {}l4 5l-4 5l-4 -5z", svg_number(x + 9), svg_number(middle - 5)))
        .set("fill", colour);
    explain("note and its value");
  }
  if (enabled_) {
    svg->child("path")
        .set("d", fmt::format("M{} {}l3 -5h-6z", svg_number(x + 9), svg_number(middle + 3)))
        .set("fill", TEXT);
    explain("interrupt enabled");
  }
  if (!timeline_.wraps.empty()) {
    svg->child("line")
        .set("x1", x + 9)
        .set("x2", x + 9)
        .set("y1", middle - 8)
        .set("y2", middle + 8)
        .set("stroke", QUIET)
        .set("stroke-dasharray", "2 3");
    explain("the counter wrapped");
  }
}

class Sink_writer : public pugi::xml_writer {
 public:
  explicit Sink_writer(const Text_sink* out) : out_(*out) {}
  void write(const void* data, size_t size) override { out_({static_cast<const char*>(data), size}); }

 private:
  const Text_sink& out_;
};

}  // namespace

std::string ticks_text(int64_t ticks) {
  const double seconds = static_cast<double>(ticks) / static_cast<double>(TICKS_PER_SECOND);
  if (ticks == 0) {
    return "0 s";
  }
  const auto unit = std::find_if(std::begin(UNITS), std::end(UNITS) - 1,
                                 [&](const auto& u) { return seconds * u.second >= 0.99995; });
  const double value = static_cast<double>(ticks) * unit->second / static_cast<double>(TICKS_PER_SECOND);
  return fmt::format("{:.{}f} {}", value, value < 9.995 ? 2 : value < 99.95 ? 1 : 0, unit->first);
}

void print_trace_svg(const Timeline& timeline, const std::string& title, const Text_sink& out) {
  pugi::xml_document document;
  Picture(&timeline, clean_text(title)).draw(&document);
  Sink_writer writer(&out);
  document.save(writer, " ", pugi::format_indent, pugi::encoding_utf8);
}
