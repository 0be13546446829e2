// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/trace/recorder.h"

#include <base/ids.h>
#include <time.h>

#include <cstdint>
#include <string_view>

#include <fmt/format.h>

#include "tools/engine/table_name.h"
#include "tools/trace/records.h"
#include "tools/trace/timeline.h"

namespace {

constexpr unsigned TASK_PARSE = 2;
constexpr unsigned TASK_MERGE = 3;
constexpr unsigned TS_IN0_DMA = 14;

// Ticks of the trace device, 320 MHz, from a clock that nobody turns back: a recorded trace then looks like one of the
// device, and wraps every 13.4 s as its counter does. Split into seconds and the rest so that the product stays below
// 2^64.
unsigned ticks_now() {
  timespec now{};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);
  constexpr uint64_t PER_SECOND = TICKS_PER_SECOND;
  const uint64_t nanoseconds = static_cast<uint64_t>(now.tv_nsec);
  return static_cast<unsigned>(static_cast<uint64_t>(now.tv_sec) * PER_SECOND +
                               nanoseconds * (PER_SECOND / 1'000'000) / 1000);
}

std::string filter_name(int pid) {
  switch (pid) {
    case pid::PAT:
      return "PAT";
    case pid::CAT:
      return "CAT";
    case pid::NIT:
      return "NIT";
    case pid::SDT:
      return "SDT";
    case pid::EIT:
      return "EIT";
    case pid::TIME:
      return "TOT";
    default:
      return fmt::format("PMT {}", pid);
  }
}

}  // namespace

void Trace_recorder::add(unsigned cmd, unsigned type, unsigned id, const char* name, const int* value) {
  const std::lock_guard lock(mutex_);
  unsigned data1 = 0;
  unsigned data2 = 0;
  timedoc_.tdoc_name(&data2, &data1, name);
  if (value != nullptr) {
    data2 = static_cast<unsigned>(*value);
  }
  // The time is taken under the lock: records lie in the order of their times, or readers would see a wrap of the
  // counter.
  words_.insert(words_.end(), {ticks_now(), cmd << 24 | type << 16 | id, data1, data2});
}

void Trace_recorder::note(const char* name, int value) {
  add(TRACE_NOTE, 0, 0, name, &value);
}

void Trace_recorder::start(unsigned type, unsigned id, const std::string& name) {
  add(TRACE_START, type, id, name.c_str(), nullptr);
}

void Trace_recorder::stop(unsigned type, unsigned id, const std::string& name) {
  add(TRACE_STOP, type, id, name.c_str(), nullptr);
}

std::vector<unsigned> Trace_recorder::words() const {
  const std::lock_guard lock(mutex_);
  return words_;
}

Library_listener::Library_listener(Trace_recorder* recorder) : recorder_(*recorder) {
  Message_listener errors;
  errors.message = on_message;
  errors.data = this;
  errors.print = false;
  Kelvo::set_message_listener(errors);
}

Library_listener::~Library_listener() {
  Kelvo::set_message_listener({});
}

void Library_listener::listen_to(Kelvo* kelvo) {
  kelvo->set_activity_listener({on_activity, this});
}

void Library_listener::on_message(void* self, int /*level*/, const char* text) {
  auto* listener = static_cast<Library_listener*>(self);
  if (!std::string_view(text).starts_with("ERROR: ")) {
    return;  // the rest of one that comes in parts
  }
  const std::lock_guard lock(listener->mutex_);
  listener->recorder_.note("err", ++listener->errors_);
}

void Library_listener::on_activity(void* self, int kind, int value) {
  auto* listener = static_cast<Library_listener*>(self);
  Trace_recorder& recorder = listener->recorder_;
  switch (kind) {
    case ACTIVITY_SECTIONS_BEGIN:
      return recorder.start(TRACE_TASK, TASK_PARSE, "parse");
    case ACTIVITY_SECTIONS_END:
      return recorder.stop(TRACE_TASK, TASK_PARSE, "parse");
    case ACTIVITY_READ_BEGIN:
      return recorder.start(TRACE_INTERRUPT, TS_IN0_DMA);
    case ACTIVITY_READ_END:
      return recorder.stop(TRACE_INTERRUPT, TS_IN0_DMA);
    case ACTIVITY_PARSE_BEGIN:
      return recorder.start(TRACE_EVENT, 0, table_name(value));
    case ACTIVITY_PARSE_END:
      return recorder.stop(TRACE_EVENT, 0, table_name(value));
    case ACTIVITY_FILTER_STARTED:
      return listener->filter_started(value);
    case ACTIVITY_FILTER_ENDED:
      return listener->filter_ended(value);
    case ACTIVITY_MERGE_BEGIN:
      return recorder.start(TRACE_TASK, TASK_MERGE, "merge");
    case ACTIVITY_MERGE_END:
      return recorder.stop(TRACE_TASK, TASK_MERGE, "merge");
    default:
      return;
  }
}

void Library_listener::filter_started(int pid) {
  const std::lock_guard lock(mutex_);
  // The library may have several filters on one PID; their lane is busy from the first to the last of them.
  if (filters_[pid]++ == 0) {
    recorder_.start(TRACE_OBJECT_2, 0, filter_name(pid));
  }
}

void Library_listener::filter_ended(int pid) {
  const std::lock_guard lock(mutex_);
  if (--filters_[pid] == 0) {
    recorder_.stop(TRACE_OBJECT_2, 0, filter_name(pid));
  }
}
