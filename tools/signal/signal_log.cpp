// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/signal/signal_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <optional>
#include <string_view>

#include <fmt/format.h>

#include "tools/cli/failure.h"

namespace {

constexpr std::string_view HEADINGS =
    "time,freq_hz,system,status,strength,strength_unit,snr,snr_unit,pre_ber,pre_ber_unit,post_ber,post_ber_unit,"
    "block_errors,block_errors_unit,age_ms";
constexpr size_t COLUMNS = 15;

constexpr std::pair<int, const char*> SCALES[] = {{SCALE_ABSENT, ""},   {SCALE_DECIBEL, "dB"},    {SCALE_RELATIVE, "%"},
                                                  {SCALE_RATE, "rate"}, {SCALE_DRIVER, "driver"}, {SCALE_BOX, "box"}};

constexpr Signal_value Signal_readings::*VALUES[] = {&Signal_readings::strength, &Signal_readings::snr,
                                                     &Signal_readings::pre_ber, &Signal_readings::post_ber,
                                                     &Signal_readings::block_errors};

std::vector<std::string> cells_of(const std::string& line) {
  std::vector<std::string> out{""};
  for (const char c : line) {
    if (c == ',') {
      out.emplace_back();
    } else {
      out.back() += c;
    }
  }
  return out;
}

template <typename Number>
std::optional<Number> number_in(const std::string& text) {
  Number value{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) {
    return std::nullopt;
  }
  return value;
}

std::optional<int64_t> time_in(const std::string& text) {
  tm time{};
  const char* const rest = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &time);
  if (rest == nullptr || std::strlen(rest) != 5 || rest[0] != '.' || rest[4] != 'Z') {
    return std::nullopt;
  }
  const std::optional<int> ms = number_in<int>({rest + 1, 3});
  return ms && *ms >= 0 ? std::optional(static_cast<int64_t>(timegm(&time)) * 1000 + *ms) : std::nullopt;
}

std::optional<Signal_value> value_in(const std::string& number, const std::string& unit) {
  for (const auto& [scale, word] : SCALES) {
    if (unit != word) {
      continue;
    }
    if (scale == SCALE_ABSENT) {
      return number.empty() ? std::optional(Signal_value{}) : std::nullopt;
    }
    const std::optional<double> value = number_in<double>(number);
    return value && std::isfinite(*value) ? std::optional(Signal_value{scale, *value}) : std::nullopt;
  }
  return std::nullopt;
}

std::optional<Signal_sample> sample_in(const std::string& line) {
  const std::vector<std::string> cells = cells_of(line);
  if (cells.size() != COLUMNS) {
    return std::nullopt;
  }
  const std::optional<int64_t> time = time_in(cells[0]);
  const std::optional<int> freq = number_in<int>(cells[1]);
  const std::optional<unsigned> status = number_in<unsigned>(cells[3]);
  const std::optional<int64_t> age = number_in<int64_t>(cells[COLUMNS - 1]);
  if (!time || !freq || !status || !age) {
    return std::nullopt;
  }
  Signal_sample sample{*time, *freq, cells[2], {}};
  sample.readings.status = *status;
  sample.readings.age_ms = *age;
  for (size_t i = 0; i < std::size(VALUES); ++i) {
    const std::optional<Signal_value> value = value_in(cells[4 + 2 * i], cells[5 + 2 * i]);
    if (!value) {
      return std::nullopt;
    }
    sample.readings.*VALUES[i] = *value;
  }
  return sample;
}

std::string line_of(const Signal_sample& sample) {
  std::string line =
      fmt::format("{},{},{},{}", utc_text(sample.time_ms), sample.freq, sample.system, sample.readings.status);
  for (const auto member : VALUES) {
    const Signal_value& value = sample.readings.*member;
    line += value.scale == SCALE_ABSENT ? ",," : fmt::format(",{:.12g},{}", value.value, scale_word(value.scale));
  }
  return line + fmt::format(",{}\n", sample.readings.age_ms);
}

[[noreturn]] void fail(const std::string& file, int error) {
  throw Failure(fmt::format("{}: cannot be written: {}", file, strerror(error)));
}

// Whether the file ends in the middle of a line, as after a kill. Only a regular file can.
bool is_cut_off(int fd, off_t size) {
  char last = '\n';
  return size > 0 && pread(fd, &last, 1, size - 1) == 1 && last != '\n';
}

}  // namespace

std::string utc_text(int64_t time_ms) {
  const auto seconds = static_cast<time_t>(time_ms / 1000);
  tm time{};
  (void)gmtime_r(&seconds, &time);
  char text[32];
  const size_t size = strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &time);
  return fmt::format("{}.{:03}Z", std::string_view(text, size), time_ms % 1000);
}

std::string scale_word(int scale) {
  for (const auto& [number, word] : SCALES) {
    if (number == scale) {
      return word;
    }
  }
  return "";
}

Signal_log::Signal_log(const std::string& file)
    : file_(file), fd_(open(file.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0666)) {
  if (fd_ < 0) {
    fail(file_, errno);
  }
  struct stat status {};
  const bool regular = fstat(fd_, &status) == 0 && S_ISREG(status.st_mode);
  if (!regular || status.st_size == 0) {
    write(std::string(HEADINGS) + "\n");
    return;
  }
  std::string first(HEADINGS.size() + 1, '\0');
  const ssize_t n = pread(fd_, first.data(), first.size(), 0);
  if (n != static_cast<ssize_t>(first.size()) || first != std::string(HEADINGS) + "\n") {
    (void)close(fd_);
    throw Failure(file_ + ": exists and is no log of kelvo signal; name another file");
  }
  if (is_cut_off(fd_, status.st_size)) {
    write("\n");
  }
}

Signal_log::~Signal_log() {
  (void)close(fd_);  // every line has been handed over
}

void Signal_log::add(const Signal_sample& sample) {
  write(line_of(sample));
}

// One call a line, so that two programs with one log do not mix theirs.
void Signal_log::write(const std::string& text) const {
  const ssize_t n = ::write(fd_, text.data(), text.size());
  if (n != static_cast<ssize_t>(text.size())) {
    fail(file_, n < 0 ? errno : ENOSPC);
  }
}

std::vector<Signal_sample> read_signal_log(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  std::string line;
  if (!in) {
    throw Failure(fmt::format("{}: cannot be read: {}", file, strerror(errno)));
  }
  if (!std::getline(in, line) || line != HEADINGS) {
    throw Failure(file + ": is no log of kelvo signal");
  }
  std::vector<Signal_sample> samples;
  size_t number = 1;
  while (std::getline(in, line)) {
    ++number;
    const bool cut_off = in.eof();  // its line break is missing
    std::optional<Signal_sample> sample = sample_in(line);
    if (sample && !cut_off) {
      samples.push_back(std::move(*sample));
    } else if (!cut_off) {
      throw Failure(fmt::format("{}: line {} is no line of a log of kelvo signal", file, number));
    }
  }
  return samples;
}
