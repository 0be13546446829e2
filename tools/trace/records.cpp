// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/trace/records.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string_view>

#include <climits>
#include <fmt/format.h>

#include "tools/cli/failure.h"

namespace {

constexpr size_t WORD = 4;
constexpr size_t RECORD = 4 * WORD;
constexpr size_t LINE = 4 * 8 + 3;  // four numbers of eight digits, blanks between

std::string read_all(const std::string& file) {
  const bool standard = file == "-";
  const int fd = standard ? STDIN_FILENO : open(file.c_str(), O_RDONLY | O_CLOEXEC);
  std::string out;
  char block[1 << 14];
  ssize_t n = fd < 0 ? -1 : 1;
  while (n > 0) {
    n = read(fd, block, sizeof block);
    out.append(block, static_cast<size_t>(n < 0 ? 0 : n));
  }
  const int error = errno;
  if (fd >= 0 && !standard) {
    (void)close(fd);  // it was only read
  }
  if (n < 0) {
    throw Failure(fmt::format("{}: cannot be read: {}", standard ? "standard input" : file, strerror(error)));
  }
  return out;
}

int digit(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  c = static_cast<char>(c | 0x20);
  return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

// Whether `line` is the beginning of a record's line, or all of it.
bool begins_log_line(std::string_view line) {
  for (size_t i = 0; i < line.size(); ++i) {
    if (i >= LINE || (i % 9 == 8 ? line[i] != ' ' : digit(line[i]) < 0)) {
      return false;
    }
  }
  return true;
}

// Two whole numbers at least, or the one line that there is.
bool looks_like_log(std::string_view text) {
  const std::string_view line = text.substr(0, text.find_first_of("\r\n"));
  return line.size() >= 9 && begins_log_line(line.substr(0, LINE));
}

Trace_words from_log(std::string_view text, const std::string& file) {
  Trace_words out;
  for (size_t number = 1; !text.empty(); ++number) {
    const size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    if (!line.empty() && line.back() == '\r') {
      line.remove_suffix(1);
    }
    if (line.empty()) {
      continue;
    }
    const bool good = begins_log_line(line);
    // A log that was cut off in the middle of its last line is common (a box that was switched off); anything else that
    // is wrong in a line means that this is no log.
    if (good && line.size() < LINE && end == std::string_view::npos) {
      out.cut = true;
      break;
    }
    if (!good || line.size() != LINE) {
      throw Failure(fmt::format("{}: line {} is no record (four numbers of eight hexadecimal digits)", file, number));
    }
    for (size_t at = 0; at < LINE; at += 9) {
      unsigned word = 0;
      for (const char c : line.substr(at, 8)) {
        word = word << 4 | static_cast<unsigned>(digit(c));
      }
      out.words.push_back(word);
    }
  }
  return out;
}

std::vector<unsigned> words_of(std::string_view bytes, Trace_source order) {
  std::vector<unsigned> out(bytes.size() / WORD);
  for (size_t i = 0; i < out.size(); ++i) {
    for (size_t byte = 0; byte < WORD; ++byte) {
      const size_t at = order == Trace_source::BIG ? byte : WORD - 1 - byte;
      out[i] = out[i] << 8 | static_cast<unsigned char>(bytes[i * WORD + at]);
    }
  }
  return out;
}

// Whether the bytes of these words are a name: printable up to the first zero, zeros from there on.
bool is_name(std::initializer_list<unsigned> words) {
  bool ended = false;
  for (const unsigned word : words) {
    for (const int shift : {24, 16, 8, 0}) {
      const unsigned byte = word >> shift & 0xFF;
      if (byte == 0) {
        ended = true;
      } else if (ended || byte < 0x20 || byte == 0x7F) {
        return false;
      }
    }
  }
  return true;
}

bool has_good_name(const Trace_record& r) {
  if (r.cmd == TRACE_NOTE) {
    return is_name({r.data1});
  }
  return r.type == TRACE_INTERRUPT || r.type == TRACE_AGENT || is_name({r.data1, r.data2});
}

struct Judgement {
  size_t sensible = 0;
  size_t named = 0;
  uint64_t ticks = 0;
};

// A byte order is judged by how many records make sense in it, by their names, and by the time that they take: in the
// wrong order the times jump about.
Judgement judge(const std::vector<unsigned>& words) {
  Judgement out;
  for (size_t i = 0; i < words.size(); i += 4) {
    const Trace_record record(&words[i]);
    if (makes_sense(record)) {
      ++out.sensible;
      out.named += has_good_name(record) ? 1 : 0;
    }
    out.ticks += i > 0 ? words[i] - words[i - 4] : 0;
  }
  return out;
}

bool better(const Judgement& a, const Judgement& b, size_t records) {
  // The time weighs as much as one property of all records together: traces without names are told by it alone.
  const size_t points_a = a.sensible + a.named + (a.ticks < b.ticks ? records : 0);
  const size_t points_b = b.sensible + b.named + (b.ticks < a.ticks ? records : 0);
  return points_a > points_b;
}

Trace_words from_raw(std::string_view bytes, Trace_source order, const std::string& file) {
  Trace_words out;
  out.cut = bytes.size() % RECORD != 0;
  const std::string_view whole = bytes.substr(0, bytes.size() / RECORD * RECORD);
  if (order != Trace_source::DETECT) {
    out.words = words_of(whole, order);
    return out;
  }
  if (whole.empty() && out.cut) {
    throw Failure(fmt::format("{}: not a trace (shorter than one record)", file));
  }
  out.words = words_of(whole, Trace_source::LITTLE);
  std::vector<unsigned> big = words_of(whole, Trace_source::BIG);
  Judgement best = judge(out.words);
  const Judgement other = judge(big);
  const size_t records = out.words.size() / 4;
  if (better(other, best, records)) {
    out.words.swap(big);
    best = other;
  }
  // Half of the records may be damaged. Of any other file, in either order, fewer make sense by chance.
  if (best.sensible < records - best.sensible) {
    throw Failure(
        fmt::format("{}: not a trace ({} of {} records make sense; --from little or --from big reads it all "
                    "the same)",
                    file, best.sensible, records));
  }
  return out;
}

}  // namespace

bool makes_sense(const Trace_record& r) {
  if (r.cmd == TRACE_NOTE) {
    return true;
  }
  switch (r.type) {
    case TRACE_TASK:
      return r.cmd <= TRACE_TASK_MUTE;
    case TRACE_OBJECT:
    case TRACE_OBJECT_2:
    case TRACE_EVENT:
      return r.cmd <= TRACE_START;
    case TRACE_INTERRUPT:
    case TRACE_AGENT:
      return r.cmd <= TRACE_START && r.id < TRACE_INTERRUPTS;
    default:
      return false;
  }
}

Trace_words read_trace(const std::string& file, Trace_source source) {
  const std::string contents = read_all(file);
  const std::string name = file == "-" ? "standard input" : file;
  const bool log = source == Trace_source::LOG || (source == Trace_source::DETECT && looks_like_log(contents));
  Trace_words out = log ? from_log(contents, name) : from_raw(contents, source, name);
  // The library takes the number of words as an int.
  if (out.words.size() > INT_MAX) {
    throw Failure(fmt::format("{}: too large (more than {} records)", name, INT_MAX / 4));
  }
  return out;
}
