// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <concepts>
#include <string>
#include <type_traits>

namespace sdbl {

// What may stand for a parameter of a statement: exactly an int or a double, or a text. Anything wider or narrower is
// refused by the compiler, because the statements' own interface takes variable arguments and would misread it.
template <typename T>
concept Sql_number = std::same_as<T, int>;
template <typename T>
concept Sql_text = std::same_as<T, std::string> || std::convertible_to<const T&, const char*>;
template <typename T>
concept Sql_value = Sql_number<T> || Sql_text<T> || std::same_as<T, double>;

inline int plain(int value) {
  return value;
}
inline double plain(double value) {
  return value;
}
inline const char* plain(const char* value) {
  return value;
}
inline const char* plain(const std::string& value) {
  return value.c_str();
}

}  // namespace sdbl
