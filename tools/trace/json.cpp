// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <array>

#include <nlohmann/json.hpp>

#include "tools/trace/print.h"

namespace {

using nlohmann::ordered_json;

constexpr int LANE_KINDS = 6;

// The unit of the format; fractions keep the 3.125 ns of a tick.
double microseconds(int64_t ticks) {
  return static_cast<double>(ticks) / (static_cast<double>(TICKS_PER_SECOND) / 1e6);
}

// Writes one event after the other, so that long traces need no memory for all of them.
class Events {
 public:
  explicit Events(const Text_sink* out) : out_(*out) { out_("{\"displayTimeUnit\":\"ns\",\"traceEvents\":[\n"); }
  void put(const ordered_json& event) {
    out_((first_ ? "" : ",\n") + event.dump());
    first_ = false;
  }
  void end() { out_("\n]}\n"); }

 private:
  const Text_sink& out_;
  bool first_ = true;
};

void put_lane(const Lane& lane, int process, int thread, Events* events) {
  events->put(
      {{"name", "thread_name"}, {"ph", "M"}, {"pid", process}, {"tid", thread}, {"args", {{"name", lane.name}}}});
  events->put({{"name", "thread_sort_index"},
               {"ph", "M"},
               {"pid", process},
               {"tid", thread},
               {"args", {{"sort_index", thread}}}});
  for (const Span& span : lane.spans) {
    ordered_json event{{"name", lane.name},
                       {"cat", kind_text(lane.kind)},
                       {"ph", "X"},
                       {"ts", microseconds(span.begin)},
                       {"dur", microseconds(span.end - span.begin)},
                       {"pid", process},
                       {"tid", thread}};
    if (!span.begin_known) {
      event["args"]["begin"] = "not recorded";
    }
    if (!span.end_known) {
      event["args"]["end"] = "not recorded";
    }
    if (span.nested) {
      event["args"]["nested"] = true;
    }
    events->put(event);
  }
  for (const Mark& mark : lane.marks) {
    ordered_json event{{"name", lane.kind == Lane_kind::NOTE ? lane.name : "enabled"},
                       {"cat", kind_text(lane.kind)},
                       {"ph", "i"},
                       {"ts", microseconds(mark.time)},
                       {"pid", process},
                       {"tid", thread},
                       {"s", "t"}};
    if (lane.kind == Lane_kind::NOTE) {
      event["args"] = {{"value", mark.value}};
    }
    events->put(event);
  }
}

}  // namespace

void print_trace_json(const Timeline& timeline, const Text_sink& out) {
  Events events(&out);
  std::array<int, LANE_KINDS> threads{};
  for (const Lane& lane : timeline.lanes) {
    // Viewers group lanes by process and sort by the index, so each kind becomes a process, in the order of the
    // picture.
    const int process = static_cast<int>(lane.kind) + 1;
    int& thread = threads[static_cast<size_t>(lane.kind)];
    if (++thread == 1) {
      events.put(
          {{"name", "process_name"}, {"ph", "M"}, {"pid", process}, {"args", {{"name", kinds_text(lane.kind)}}}});
      events.put({{"name", "process_sort_index"}, {"ph", "M"}, {"pid", process}, {"args", {{"sort_index", process}}}});
    }
    put_lane(lane, process, thread, &events);
  }
  for (const int64_t wrap : timeline.wraps) {
    events.put({{"name", "TimeWrap"},
                {"cat", "clock"},
                {"ph", "i"},
                {"ts", microseconds(wrap)},
                {"pid", 1},
                {"tid", 1},
                {"s", "g"}});
  }
  events.end();
}
