// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/trace/timeline.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <sstream>
#include <string_view>
#include <unordered_map>

#include <fmt/format.h>
#include <kelvo/kelvo.h>

#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/trace/records.h"

namespace {

// The library knows the names of the interrupts and says them in what it converts: "NAM 1 0 TIMER".
std::vector<std::string> interrupt_names() {
  std::vector<unsigned> words;
  for (unsigned id = 0; id < TRACE_INTERRUPTS; ++id) {
    words.insert(words.end(), {0, TRACE_INTERRUPT << 16 | id, 0, 0});
  }
  const int file = memfd_create("kelvo", MFD_CLOEXEC);
  if (file < 0) {
    throw Failure("cannot make a file in memory: too many open files?");
  }
  Timedoc timedoc;
  timedoc.set_output(file);
  timedoc.convert_to_tdi(words.data(), static_cast<int>(words.size()));
  std::string text(static_cast<size_t>(lseek(file, 0, SEEK_END)), '\0');
  (void)!pread(file, text.data(), text.size(), 0);  // what is missing is missed below
  (void)close(file);
  std::vector<std::string> out;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("NAM 1 ")) {
      out.push_back(line.substr(line.rfind(' ') + 1));
    }
  }
  out.resize(TRACE_INTERRUPTS, "NO_NAME");
  return out;
}

const std::vector<std::string>& interrupts() {
  static const std::vector<std::string> names = interrupt_names();
  return names;
}

std::string characters(unsigned word) {
  std::string out;
  for (const int shift : {24, 16, 8, 0}) {
    out += static_cast<char>(word >> shift & 0xFF);
  }
  return out;
}

// The bytes of a name up to the first zero.
std::string name_of(const std::string& characters) {
  return characters.substr(0, characters.find('\0'));
}

std::string shown(std::string name) {
  // No name is text off the air: 0x11 does not say that characters have two bytes.
  std::erase(name, '\x11');
  return clean_text(name);
}

class Builder {
 public:
  Timeline build(const std::vector<unsigned>& words) {
    for (size_t i = 0; i + 4 <= words.size(); i += 4) {
      add(Trace_record(&words[i]));
    }
    return finish();
  }

 private:
  // A lane under way.
  struct Work {
    Lane lane;
    std::vector<Span> open;
    bool seen = false;
  };

  void add(const Trace_record& r);
  void advance(unsigned time);
  Work& lane(Lane_kind kind, unsigned type, unsigned key, const std::string& name, unsigned number);
  void happen(Work* work, const Trace_record& r);
  Timeline finish();

  const std::vector<std::string>& interrupts_ = interrupts();
  Timeline out_;
  std::vector<Work> lanes_;
  std::unordered_map<std::string, size_t> places_;
  unsigned previous_ = 0;
  bool interrupt_active_ = false;
};

void Builder::advance(unsigned time) {
  if (out_.records == 0) {
    previous_ = time;
  }
  ++out_.records;
  int64_t gone = time - previous_;
  if (time < previous_) {
    out_.wraps.push_back(out_.end);
    gone = static_cast<unsigned>(time - previous_ - 1);  // as in TDI files
  }
  out_.end += gone;
  previous_ = time;
}

Builder::Work& Builder::lane(Lane_kind kind, unsigned type, unsigned key, const std::string& name, unsigned number) {
  const auto [place, added] = places_.try_emplace(fmt::format("{} {} {}", type, key, name), lanes_.size());
  if (added) {
    // In the order of first appearance, which is how the reader meets them from left to right.
    Work& work = lanes_.emplace_back();
    work.lane.kind = kind;
    work.lane.number = number;
    // Two lanes are told apart by the bytes of their names, but shown by what is left of those on a screen.
    work.lane.name = shown(name);
    if (work.lane.name.empty()) {
      work.lane.name = fmt::format("{} {}", kind_text(kind), number);
    }
  }
  return lanes_[place->second];
}

void Builder::add(const Trace_record& r) {
  constexpr unsigned NOTES = 0x100;  // no type of a record
  advance(r.time);
  const std::string name = name_of(characters(r.data1) + characters(r.data2));
  // A record that makes no sense may still name something: a lane that stays empty tells nobody anything.
  if (!makes_sense(r)) {
    ++out_.left_out;
    return;
  }
  if (r.cmd == TRACE_NOTE) {
    Work& work = lane(Lane_kind::NOTE, NOTES, r.data1, name_of(characters(r.data1)), r.id);
    work.lane.marks.push_back({out_.end, static_cast<int>(r.data2)});
    return;
  }
  switch (r.type) {
    case TRACE_TASK:
      happen(&lane(Lane_kind::TASK, r.type, r.id, name, r.id), r);
      return;
    case TRACE_INTERRUPT:
      happen(&lane(Lane_kind::INTERRUPT, r.type, r.id, interrupts_[r.id], r.id), r);
      interrupt_active_ = r.cmd == TRACE_START;
      return;
    case TRACE_AGENT: {
      Work& work = lane(Lane_kind::AGENT, r.type, r.id, interrupts_[r.id], r.id);
      if (r.data1 == 0 && r.data2 == 1) {
        work.lane.marks.push_back({out_.end, 0});
      }
      happen(&work, r);
      return;
    }
    case TRACE_EVENT:
      happen(&lane(Lane_kind::EVENT, r.type, r.data1, name, r.id), r);
      return;
    default: {
      Work& work = lane(Lane_kind::OBJECT, r.type, r.data1, name, r.id);
      if (!work.seen && r.id != 0) {
        work.lane.name = "SBM_" + work.lane.name;
      }
      happen(&work, r);
    }
  }
}

void Builder::happen(Work* work, const Trace_record& r) {
  if (r.cmd == TRACE_START) {
    Span span;
    span.begin = out_.end;
    span.depth = static_cast<int>(work->open.size());
    span.nested = r.type == TRACE_INTERRUPT && interrupt_active_;
    work->open.push_back(span);
  } else if (r.cmd == TRACE_STOP) {
    Span span;
    if (work->open.empty()) {
      // What ends first was under way when the recording began.
      span.begin = work->seen ? out_.end : 0;
      span.begin_known = false;
    } else {
      span = work->open.back();
      work->open.pop_back();
    }
    span.end = out_.end;
    work->lane.spans.push_back(span);
  }
  work->seen = true;
}

Timeline Builder::finish() {
  for (Work& work : lanes_) {
    for (; !work.open.empty(); work.open.pop_back()) {
      Span& span = work.open.back();
      span.end = out_.end;
      span.end_known = false;
      work.lane.spans.push_back(span);
    }
    out_.lanes.push_back(std::move(work.lane));
  }
  // Kinds stand together and keep within themselves the order in which they appeared.
  std::stable_sort(out_.lanes.begin(), out_.lanes.end(), [](const Lane& a, const Lane& b) { return a.kind < b.kind; });
  // Lanes that look alike are told apart by their number.
  std::map<std::pair<Lane_kind, std::string>, int> alike;
  for (const Lane& lane : out_.lanes) {
    ++alike[{lane.kind, lane.name}];
  }
  for (Lane& lane : out_.lanes) {
    if (alike[{lane.kind, lane.name}] > 1) {
      lane.name += fmt::format(" ({})", lane.number);
    }
  }
  return std::move(out_);
}

}  // namespace

Timeline make_timeline(const std::vector<unsigned>& words) {
  return Builder().build(words);
}

const char* kind_text(Lane_kind kind) {
  constexpr const char* TEXTS[] = {"task", "interrupt", "agent", "object", "event", "note"};
  return TEXTS[static_cast<size_t>(kind)];
}

const char* kinds_text(Lane_kind kind) {
  constexpr const char* TEXTS[] = {"Tasks", "Interrupts", "Agents", "Objects", "Events", "Notes"};
  return TEXTS[static_cast<size_t>(kind)];
}
