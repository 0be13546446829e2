// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace softdvb_mux {

using Bytes = std::vector<uint8_t>;

// What is wrong in a description: "services[2].type: ...". One line, complete, meant for the user.
class Description_error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A value of the description that knows where it stands, so that every complaint names the place.
// All readers throw Description_error. Refers to the document, which must outlive it.
class Json_node {
 public:
  Json_node(const nlohmann::json& value, std::string path) : value_(&value), path_(std::move(path)) {}

  const std::string& path() const { return path_; }
  const nlohmann::json& value() const { return *value_; }
  [[noreturn]] void fail(const std::string& what) const;

  // Objects: the node must be one and have no keys but these.
  void allow_only(std::initializer_list<const char*> keys) const;
  bool has(const char* key) const;
  Json_node get(const char* key) const;  // a missing key is an error
  // Lists: a missing key is an empty list.
  std::vector<Json_node> items() const;
  std::vector<Json_node> list(const char* key) const;

  // Whole numbers, written as a number or as "0x1F".
  uint64_t number(uint64_t min, uint64_t max) const;
  uint64_t number_or(const char* key, uint64_t min, uint64_t max, uint64_t otherwise) const;
  double seconds(double min, double max) const;
  double seconds_or(const char* key, double min, double max, double otherwise) const;
  bool flag() const;
  bool flag_or(const char* key, bool otherwise) const;
  std::string string() const;
  std::string string_or(const char* key, const std::string& otherwise) const;
  // One of the named values.
  unsigned choice(std::initializer_list<std::pair<const char*, unsigned>> names) const;
  unsigned choice_or(const char* key, std::initializer_list<std::pair<const char*, unsigned>> names,
                     unsigned otherwise) const;
  // A named value or a number.
  unsigned choice_or_number(const std::vector<std::pair<const char*, unsigned>>& names, unsigned max) const;
  // "5f04 0000 0028": pairs of hexadecimal digits, blanks between them allowed.
  Bytes hex() const;
  // Three letters (ISO 639-2 languages, ISO 3166 countries).
  std::string three_letters() const;
  std::string three_letters_or(const char* key, const std::string& otherwise) const;

 private:
  std::string shown() const;
  const nlohmann::json* value_;
  std::string path_;
};

}  // namespace softdvb_mux
