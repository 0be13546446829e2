// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/mux/time_text.h"

#include <algorithm>
#include <array>

#include <fmt/format.h>

#include "softdvb/mux/descriptors.h"

namespace softdvb_mux {

namespace {

// Days since 1970-01-01 of the proleptic Gregorian calendar, without a time zone database or the C library's time_t.
int64_t days_of(int64_t year, int64_t month, int64_t day) {
  const int64_t y = month > 2 ? year : year - 1;
  const int64_t m = month > 2 ? month - 3 : month + 9;
  return y * 365 + y / 4 - y / 100 + y / 400 + (m * 153 + 2) / 5 + day - 719469;
}

int64_t days_in_month(int64_t year, int64_t month) {
  return (month == 12 ? days_of(year + 1, 1, 1) : days_of(year, month + 1, 1)) - days_of(year, month, 1);
}

uint64_t bcd(uint64_t value) {
  return value / 10 << 4 | value % 10;
}

// The last day of a Modified Julian Date of 16 bits ends with it: 2038-04-22T23:59:59Z.
constexpr int64_t LAST_TIME = int64_t{0x10000 - 40587} * 86400 - 1;

// Digits only, so that "1 2" or "+1" is no number.
bool parse_digits(const std::string& text, size_t at, size_t count, int64_t* value) {
  *value = 0;
  if (at + count > text.size() || count == 0 || count > 9)
    return false;
  for (size_t i = at; i < at + count; ++i) {
    if (text[i] < '0' || text[i] > '9')
      return false;
    *value = *value * 10 + (text[i] - '0');
  }
  return true;
}

bool parse_duration(const std::string& text, int64_t* seconds) {
  int64_t hours = 0;
  int64_t minutes = 0;
  if (text.size() >= 8 && text[text.size() - 3] == ':' && text[text.size() - 6] == ':') {
    int64_t rest = 0;
    if (!parse_digits(text, 0, text.size() - 6, &hours) || !parse_digits(text, text.size() - 5, 2, &minutes) ||
        !parse_digits(text, text.size() - 2, 2, &rest) || minutes > 59 || rest > 59)
      return false;
    *seconds = hours * 3600 + minutes * 60 + rest;
    return true;
  }
  if (text.size() < 2 || !parse_digits(text, 0, text.size() - 1, seconds))
    return false;
  switch (text.back()) {
    case 's':
      return true;
    case 'm':
      *seconds *= 60;
      return true;
    case 'h':
      *seconds *= 3600;
      return true;
    case 'd':
      *seconds *= 86400;
      return true;
    default:
      return false;
  }
}

}  // namespace

bool parse_utc(const std::string& text, int64_t* epoch) {
  std::array<int64_t, 6> part = {};
  constexpr std::array<std::pair<size_t, size_t>, 6> PLACES = {{{0, 4}, {5, 2}, {8, 2}, {11, 2}, {14, 2}, {17, 2}}};
  if (text.size() != 20 || text[4] != '-' || text[7] != '-' || text[10] != 'T' || text[13] != ':' || text[16] != ':' ||
      text[19] != 'Z')
    return false;
  for (size_t i = 0; i < part.size(); ++i)
    if (!parse_digits(text, PLACES[i].first, PLACES[i].second, &part[i]))
      return false;
  if (part[0] < 1901 || part[0] > 2038 || part[1] < 1 || part[1] > 12 || part[2] < 1 ||
      part[2] > days_in_month(part[0], part[1]) || part[3] > 23 || part[4] > 59 || part[5] > 59)
    return false;
  *epoch = days_of(part[0], part[1], part[2]) * 86400 + part[3] * 3600 + part[4] * 60 + part[5];
  return *epoch <= LAST_TIME;
}

int64_t read_time(const Json_node& node, int64_t now) {
  const char* allowed =
      " is not allowed, a time such as \"2026-03-01T18:00:00Z\" (1901 to 2038-04-22), \"now\", \"now+90m\", "
      "\"now-01:30:00\" or \"today+18h\" is";
  const std::string text = node.value().is_string() ? node.string() : "";
  int64_t result = 0;
  if (parse_utc(text, &result))
    return result;
  size_t at = 0;
  if (text.compare(0, 3, "now") == 0) {
    result = now;
    at = 3;
  } else if (text.compare(0, 5, "today") == 0) {
    result = now - ((now % 86400) + 86400) % 86400;
    at = 5;
  }
  if (at != 0 && at == text.size())
    return result;
  int64_t step = 0;
  if (at != 0 && (text[at] == '+' || text[at] == '-') && parse_duration(text.substr(at + 1), &step)) {
    result += text[at] == '+' ? step : -step;
    if (result <= LAST_TIME)
      return result;
  }
  node.fail(node.value().dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + allowed);
}

int64_t read_duration(const Json_node& node, int64_t max) {
  int64_t result = -1;
  if (node.value().is_number_unsigned())
    result = static_cast<int64_t>(std::min<uint64_t>(node.value().get<uint64_t>(), 1000000));
  else if (!node.value().is_string() || !parse_duration(node.string(), &result))
    result = -1;
  if (result < 0 || result > max)
    node.fail(
        fmt::format("{} is not allowed, a duration such as \"01:30:00\", \"90m\" or 5400 of at most {} seconds is",
                    node.value().dump(-1, ' ', false, nlohmann::json::error_handler_t::replace), max));
  return result;
}

Zone_offset read_zone_offset(const Json_node& node) {
  const std::string text = node.value().is_string() ? node.string() : "";
  int64_t hours = 0;
  int64_t minutes = 0;
  if (text.size() != 6 || (text[0] != '+' && text[0] != '-') || text[3] != ':' || !parse_digits(text, 1, 2, &hours) ||
      !parse_digits(text, 4, 2, &minutes) || hours > 15 || minutes > 59)
    node.fail(fmt::format("{} is not allowed, an offset such as \"+02:00\" or \"-03:30\" is",
                          node.value().dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)));
  return {text[0] == '-',
          static_cast<uint16_t>(bcd(static_cast<uint64_t>(hours)) << 8 | bcd(static_cast<uint64_t>(minutes)))};
}

uint64_t mjd_bcd(int64_t epoch) {
  const int64_t day = (epoch - ((epoch % 86400) + 86400) % 86400) / 86400;
  const auto mjd = static_cast<uint64_t>(day + 40587) & 0xFFFF;
  return mjd << 24 | bcd_duration(epoch - day * 86400);
}

uint32_t bcd_duration(int64_t seconds) {
  const auto all = static_cast<uint64_t>(seconds);
  return static_cast<uint32_t>(bcd(all / 3600) << 16 | bcd(all / 60 % 60) << 8 | bcd(all % 60));
}

}  // namespace softdvb_mux
