// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/frequencies/initial_scan_file.h"

#include <linux/dvb/frontend.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <utility>

#include <fmt/format.h>

#include "tools/cli/bands.h"
#include "tools/cli/failure.h"
#include "tools/cli/text.h"

namespace {

// The largest file that is around has 36 kB.
constexpr size_t MOST_BYTES = 1024 * 1024;
constexpr size_t MOST_IN_MESSAGE = 40;
constexpr size_t MOST_NEAR_NAMES = 6;
constexpr const char* PACKAGE = "dtv-scan-tables";

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

std::string lowered(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(), lower);
  return out;
}

std::string_view trimmed(std::string_view text) {
  const char* const blanks = " \t\r\f\v";
  const size_t begin = text.find_first_not_of(blanks);
  return begin == std::string_view::npos ? "" : text.substr(begin, text.find_last_not_of(blanks) + 1 - begin);
}

std::vector<std::string_view> words_of(std::string_view line) {
  std::vector<std::string_view> out;
  while (!line.empty()) {
    const size_t end = std::min(line.find_first_of(" \t"), line.size());
    out.push_back(line.substr(0, end));
    line = trimmed(line.substr(end));
  }
  return out;
}

std::optional<int64_t> number(std::string_view text) {
  int64_t out = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), out);
  return error == std::errc() && end == text.data() + text.size() ? std::optional(out) : std::nullopt;
}

// "8MHz", "1.712MHz", "AUTO" (0).
std::optional<int> bandwidth_of_word(std::string_view word) {
  constexpr std::pair<const char*, int> NAMES[] = {
      {"auto", 0},         {"1.712mhz", 1'712'000}, {"5mhz", 5'000'000},   {"6mhz", 6'000'000},
      {"7mhz", 7'000'000}, {"8mhz", 8'000'000},     {"10mhz", 10'000'000},
  };
  for (const auto& [name, hz] : NAMES) {
    if (lowered(word) == name) {
      return hz;
    }
  }
  return std::nullopt;
}

std::optional<int> bandwidth_of_hz(std::string_view text) {
  if (lowered(text) == "auto") {
    return 0;
  }
  for (const int hz : {0, 1'712'000, 5'000'000, 6'000'000, 7'000'000, 8'000'000, 10'000'000}) {
    if (number(text) == hz) {
      return hz;
    }
  }
  return std::nullopt;
}

// A pipe's number; "no filter" is -1, or that as 32 bits without sign.
std::optional<int> pipe_of(std::string_view text) {
  const std::optional<int64_t> value = number(text);
  if (!value) {
    return std::nullopt;
  }
  if (*value == -1 || *value == NO_STREAM_ID_FILTER) {
    return -1;
  }
  return *value >= 0 && *value <= 255 ? std::optional(static_cast<int>(*value)) : std::nullopt;
}

struct Value {
  std::string text;
  int line = 0;
};

struct Section {
  int line = 0;
  std::map<std::string, Value> values;  // by key, in small letters
};

class Reader {
 public:
  explicit Reader(std::string name) : name_(std::move(name)) {}
  Initial_scan read(std::string_view text);

 private:
  [[noreturn]] void fail(int line, const std::string& text) const {
    throw Failure(clean_text(fmt::format("{}:{}: {}", name_, line, text)));
  }
  static std::string quoted(std::string_view text) {
    return fmt::format("'{}{}'", clean_text(text.substr(0, MOST_IN_MESSAGE)),
                       text.size() > MOST_IN_MESSAGE ? "..." : "");
  }
  void read_line(std::string_view line);
  void read_key(std::string_view line);
  void read_words(std::string_view line);
  void close_section();
  void add(const Tuning_request& request, int64_t freq, int line);

  std::string name_;
  int line_ = 0;
  std::optional<Section> section_;
  Initial_scan out_;
};

Initial_scan Reader::read(std::string_view text) {
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size());
    ++line_;
    read_line(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  close_section();
  if (out_.multiplexes.empty()) {
    throw Failure(clean_text(fmt::format(
        "{}: no frequency of DVB-T or DVB-T2 in it{}", name_,
        out_.others > 0 ? fmt::format("; its {} entries are for cable, satellite or other systems", out_.others)
                        : "")));
  }
  return out_;
}

void Reader::read_line(std::string_view line) {
  if (line.find('\0') != std::string_view::npos) {
    fail(line_, "not a text; an initial scan file is wanted");
  }
  line = trimmed(line.substr(0, line.find('#')));
  if (line.empty()) {
    return;
  }
  if (line.front() == '[') {
    close_section();
    section_.emplace().line = line_;
  } else if (section_) {
    read_key(line);
  } else {
    read_words(line);
  }
}

void Reader::read_key(std::string_view line) {
  const size_t equals = line.find('=');
  if (equals == std::string_view::npos) {
    fail(line_, fmt::format("{}: neither KEY = VALUE nor [CHANNEL]", quoted(line)));
  }
  section_->values[lowered(trimmed(line.substr(0, equals)))] = {std::string(trimmed(line.substr(equals + 1))), line_};
}

// Looked at as a whole, because the order of keys is free and what they mean depends on the delivery system.
void Reader::close_section() {
  if (!section_) {
    return;
  }
  const Section section = *section_;
  section_.reset();
  const auto wanted = [&](const char* key) -> const Value& {
    const auto found = section.values.find(lowered(key));
    if (found == section.values.end()) {
      fail(section.line, fmt::format("{} is missing in this section", key));
    }
    return found->second;
  };
  const auto check = [&](const Value& value, const auto& read, const char* what) {
    const auto out = read(value.text);
    if (!out) {
      fail(value.line, fmt::format("{} is not {}", quoted(value.text), what));
    }
    return *out;
  };
  const std::string system = lowered(wanted("DELIVERY_SYSTEM").text);
  if (system != "dvbt" && system != "dvbt2") {
    ++out_.others;
    return;
  }
  Tuning_request request;
  request.system = system == "dvbt" ? SYS_DVBT : SYS_DVBT2;
  const Value& freq = wanted("FREQUENCY");
  const int64_t hz = check(freq, number, "a frequency; give Hz");
  if (section.values.contains("bandwidth_hz")) {
    request.bandwidth_hz =
        check(wanted("BANDWIDTH_HZ"), bandwidth_of_hz, "a bandwidth; give 1712000, 5, 6, 7, 8 or 10 million Hz");
  }
  if (request.system == SYS_DVBT2 && section.values.contains("stream_id")) {
    request.pipe = check(wanted("STREAM_ID"), pipe_of, "a pipe's number, 0 to 255");
  }
  add(request, hz, freq.line);
}

// EN 302 755's pipe stands behind the bandwidth or, as most files have it, behind the eight words of DVB-T.
void Reader::read_words(std::string_view line) {
  const std::vector<std::string_view> words = words_of(line);
  const auto is = [&](const char* name) { return words.front() == name; };
  Tuning_request request;
  if (is("T")) {
    request.system = SYS_DVBT;
  } else if (is("T2")) {
    request.system = SYS_DVBT2;
  } else if (is("A") || is("C") || is("C2") || is("I") || is("S") || is("S1") || is("S2")) {
    ++out_.others;
    return;
  } else {
    fail(line_, fmt::format("{}: neither a [CHANNEL] nor a line that begins with T or T2", quoted(line)));
  }
  const std::optional<int64_t> freq = words.size() > 1 ? number(words[1]) : std::nullopt;
  if (!freq) {
    fail(line_, fmt::format("{}: a frequency in Hz has to stand behind {}", quoted(line), words.front()));
  }
  if (words.size() > 2) {
    const std::optional<int> bandwidth = bandwidth_of_word(words[2]);
    if (!bandwidth) {
      fail(line_, fmt::format("{} is not a bandwidth; give 1.712MHz, 5MHz, 6MHz, 7MHz, 8MHz, 10MHz or AUTO",
                              quoted(words[2])));
    }
    request.bandwidth_hz = *bandwidth;
  }
  if (request.system == SYS_DVBT2) {
    // A code rate is no number ("2/3", "AUTO"), so the two places cannot be mistaken for each other.
    const bool early = words.size() > 3 && number(words[3]);
    if (early || words.size() > 9) {
      const std::string_view word = words[early ? 3 : 9];
      const std::optional<int> pipe = pipe_of(word);
      if (!pipe) {
        fail(line_, fmt::format("{} is not a pipe's number, 0 to 255", quoted(word)));
      }
      request.pipe = *pipe;
    }
  }
  add(request, *freq, line_);
}

void Reader::add(const Tuning_request& request, int64_t freq, int line) {
  if (freq < LOWEST_FREQ || freq > HIGHEST_FREQ) {
    out_.remarks.push_back(clean_text(fmt::format("{}:{}: {} Hz is passed over; DVB-T is between {} and {}", name_,
                                                  line, freq, LOWEST_FREQ, HIGHEST_FREQ)));
    return;
  }
  // Lists of channels have the same format, with a section for each service.
  const bool known = std::any_of(out_.multiplexes.begin(), out_.multiplexes.end(), [&](const Tuning_request& other) {
    return other.freq == freq && other.system == request.system && other.pipe == request.pipe;
  });
  if (!known) {
    out_.multiplexes.push_back(request);
    out_.multiplexes.back().freq = static_cast<int>(freq);
  }
}

// How many letters have to be changed, added or left out to make one of the other.
size_t distance(const std::string& a, const std::string& b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j < row.size(); ++j) {
    row[j] = j;
  }
  for (size_t i = 0; i < a.size(); ++i) {
    size_t diagonal = std::exchange(row[0], i + 1);
    for (size_t j = 0; j < b.size(); ++j) {
      const size_t changed = diagonal + (a[i] == b[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({changed, row[j] + 1, diagonal + 1});
    }
  }
  return row.back();
}

std::string near_names(const std::string& name, const std::vector<std::string>& folders) {
  const std::string wanted = lowered(name).substr(0, 100);
  std::vector<std::pair<size_t, std::string>> near;
  for (const std::string& folder : folders) {
    std::error_code error;
    for (auto at = std::filesystem::directory_iterator(folder, error); !error && at != std::filesystem::end(at);
         at.increment(error)) {
      const std::string other = at->path().filename().string();
      const std::string small = lowered(other);
      // A part of a name is as good as a slip: "berlin", "de-".
      const size_t steps = small.find(wanted) != std::string::npos ? 0 : distance(wanted, small);
      if (steps <= std::max<size_t>(2, wanted.size() / 3)) {
        near.emplace_back(steps, other);
      }
    }
  }
  std::sort(near.begin(), near.end());
  near.erase(std::unique(near.begin(), near.end()), near.end());
  std::string out;
  for (size_t i = 0; i < std::min(near.size(), MOST_NEAR_NAMES); ++i) {
    out += (i == 0 ? "" : ", ") + near[i].second;
  }
  return near.size() > MOST_NEAR_NAMES ? out + ", ..." : out;
}

}  // namespace

Initial_scan parse_initial_scan(std::string_view text, const std::string& name) {
  return Reader(name).read(text);
}

std::vector<std::string> scan_table_folders() {
  return {"/usr/share/dvb/dvb-t", "/usr/share/dvb/dvb-legacy/dvb-t"};
}

std::string find_initial_scan_file(const std::string& name, const std::vector<std::string>& folders) {
  std::error_code error;
  if (name.find('/') != std::string::npos || std::filesystem::exists(name, error)) {
    return name;
  }
  bool any = false;
  for (const std::string& folder : folders) {
    any = any || std::filesystem::is_directory(folder, error);
    std::string file = folder + "/" + name;
    if (!name.empty() && std::filesystem::is_regular_file(file, error)) {
      return file;
    }
  }
  if (!any) {
    throw Failure(clean_text(
        fmt::format("--table {}: no such file, and the tables of places are not installed; install the package {}",
                    name, PACKAGE)));
  }
  const std::string near = near_names(name, folders);
  throw Failure(clean_text(fmt::format("--table {}: neither a file nor a table of {}; {}", name, folders.front(),
                                       near.empty() ? "'ls " + folders.front() + "' lists them" : "near it: " + near)));
}

Initial_scan read_initial_scan_file(const std::string& file) {
  std::error_code error;
  if (std::filesystem::is_directory(file, error)) {
    throw Failure(clean_text(fmt::format("{}: a folder; an initial scan file is wanted", file)));
  }
  errno = 0;
  std::ifstream in(file, std::ios::binary);
  // One byte more than is allowed shows that there are more, also in a device that never ends.
  std::string text(MOST_BYTES + 1, '\0');
  in.read(text.data(), static_cast<std::streamsize>(text.size()));
  if (!in.is_open() || in.bad()) {
    throw Failure(clean_text(fmt::format("{}: cannot be read: {}", file, strerror(errno == 0 ? EIO : errno))));
  }
  text.resize(static_cast<size_t>(in.gcount()));
  if (text.size() > MOST_BYTES) {
    throw Failure(clean_text(fmt::format("{}: larger than 1 MiB; an initial scan file is wanted", file)));
  }
  return parse_initial_scan(text, file);
}
