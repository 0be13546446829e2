// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/mux/json_node.h"

#include <algorithm>
#include <cstring>

#include <fmt/format.h>

namespace softdvb_mux {

namespace {

int digit(char c) {
  if (c >= '0' && c <= '9')
    return c - '0';
  if (c >= 'a' && c <= 'f')
    return c - 'a' + 10;
  if (c >= 'A' && c <= 'F')
    return c - 'A' + 10;
  return -1;
}

}  // namespace

std::string Json_node::shown() const {
  std::string text = value_->dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  if (text.size() > 40) {
    size_t end = 37;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80)
      --end;
    text = text.substr(0, end) + "...";
  }
  return text;
}

void Json_node::fail(const std::string& what) const {
  throw Description_error((path_.empty() ? "the description" : path_) + ": " + what);
}

void Json_node::allow_only(std::initializer_list<const char*> keys) const {
  if (!value_->is_object())
    fail(fmt::format("{} is not allowed, an object {{...}} is", shown()));
  for (const auto& item : value_->items()) {
    const std::string& key = item.key();
    if (std::any_of(keys.begin(), keys.end(), [&](const char* allowed) { return key == allowed; }))
      continue;
    std::string all;
    for (const char* allowed : keys)
      all += (all.empty() ? "" : ", ") + std::string(allowed);
    Json_node(*value_, path_.empty() ? key : path_ + "." + key).fail("unknown key, allowed are " + all);
  }
}

bool Json_node::has(const char* key) const {
  return value_->is_object() && value_->contains(key);
}

Json_node Json_node::get(const char* key) const {
  const std::string path = path_.empty() ? key : path_ + "." + key;
  if (!has(key))
    Json_node(*value_, path).fail("missing, this key is needed");
  return Json_node(value_->at(key), path);
}

std::vector<Json_node> Json_node::items() const {
  if (!value_->is_array())
    fail(fmt::format("{} is not allowed, a list [...] is", shown()));
  std::vector<Json_node> result;
  for (size_t i = 0; i < value_->size(); ++i)
    result.emplace_back((*value_)[i], fmt::format("{}[{}]", path_, i));
  return result;
}

std::vector<Json_node> Json_node::list(const char* key) const {
  return has(key) ? get(key).items() : std::vector<Json_node>();
}

uint64_t Json_node::number(uint64_t min, uint64_t max) const {
  const std::string allowed =
      fmt::format("a whole number from {} to {} (or \"0x{:X}\" to \"0x{:X}\")", min, max, min, max);
  uint64_t result = 0;
  bool good = false;
  if (value_->is_number_unsigned()) {
    result = value_->get<uint64_t>();
    good = true;
  } else if (value_->is_string()) {
    const auto& text = value_->get_ref<const std::string&>();
    good = text.size() > 2 && text.size() <= 18 && (text.compare(0, 2, "0x") == 0 || text.compare(0, 2, "0X") == 0);
    for (size_t i = 2; good && i < text.size(); ++i) {
      good = digit(text[i]) >= 0;
      result = result << 4 | static_cast<unsigned>(digit(text[i]) & 15);
    }
  }
  if (!good || result < min || result > max)
    fail(fmt::format("{} is not allowed, {} is", shown(), allowed));
  return result;
}

uint64_t Json_node::number_or(const char* key, uint64_t min, uint64_t max, uint64_t otherwise) const {
  return has(key) ? get(key).number(min, max) : otherwise;
}

double Json_node::seconds(double min, double max) const {
  const double result = value_->is_number() ? value_->get<double>() : min - 1;
  if (!(result >= min && result <= max))
    fail(fmt::format("{} is not allowed, a number from {} to {} (seconds) is", shown(), min, max));
  return result;
}

double Json_node::seconds_or(const char* key, double min, double max, double otherwise) const {
  return has(key) ? get(key).seconds(min, max) : otherwise;
}

bool Json_node::flag() const {
  if (!value_->is_boolean())
    fail(fmt::format("{} is not allowed, true or false is", shown()));
  return value_->get<bool>();
}

bool Json_node::flag_or(const char* key, bool otherwise) const {
  return has(key) ? get(key).flag() : otherwise;
}

std::string Json_node::string() const {
  if (!value_->is_string())
    fail(fmt::format("{} is not allowed, a text in \"\" is", shown()));
  return value_->get<std::string>();
}

std::string Json_node::string_or(const char* key, const std::string& otherwise) const {
  return has(key) ? get(key).string() : otherwise;
}

unsigned Json_node::choice(std::initializer_list<std::pair<const char*, unsigned>> names) const {
  std::string all;
  for (const auto& [name, number] : names) {
    if (value_->is_string() && value_->get_ref<const std::string&>() == name)
      return number;
    all += fmt::format("{}\"{}\"", all.empty() ? "" : ", ", name);
  }
  fail(fmt::format("{} is not allowed, one of {} is", shown(), all));
}

unsigned Json_node::choice_or(const char* key, std::initializer_list<std::pair<const char*, unsigned>> names,
                              unsigned otherwise) const {
  return has(key) ? get(key).choice(names) : otherwise;
}

unsigned Json_node::choice_or_number(const std::vector<std::pair<const char*, unsigned>>& names, unsigned max) const {
  if (!value_->is_string() || value_->get_ref<const std::string&>().compare(0, 2, "0x") == 0)
    return static_cast<unsigned>(number(0, max));
  std::string all;
  for (const auto& [name, number_of_name] : names) {
    if (value_->get_ref<const std::string&>() == name)
      return number_of_name;
    all += fmt::format("{}\"{}\"", all.empty() ? "" : ", ", name);
  }
  fail(fmt::format("{} is not allowed, a number or one of {} is", shown(), all));
}

Bytes Json_node::hex() const {
  Bytes result;
  bool good = value_->is_string();
  int high = -1;
  if (good) {
    for (char c : value_->get_ref<const std::string&>()) {
      if (c == ' ' && high < 0)
        continue;
      if (digit(c) < 0) {
        good = false;
        break;
      }
      if (high < 0) {
        high = digit(c);
      } else {
        result.push_back(static_cast<uint8_t>(high << 4 | digit(c)));
        high = -1;
      }
    }
  }
  if (!good || high >= 0)
    fail(fmt::format("{} is not allowed, a text of pairs of hexadecimal digits such as \"5f04 00000028\" is", shown()));
  return result;
}

std::string Json_node::three_letters() const {
  const auto is_letter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
  if (!value_->is_string() || value_->get_ref<const std::string&>().size() != 3 ||
      !std::all_of(value_->get_ref<const std::string&>().begin(), value_->get_ref<const std::string&>().end(),
                   is_letter))
    fail(fmt::format("{} is not allowed, a code of three letters such as \"est\" is", shown()));
  return value_->get<std::string>();
}

std::string Json_node::three_letters_or(const char* key, const std::string& otherwise) const {
  return has(key) ? get(key).three_letters() : otherwise;
}

}  // namespace softdvb_mux
