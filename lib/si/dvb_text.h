// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <iconv.h>

#include <array>
#include <cstddef>
#include <string>

// Turns DVB texts (EN 300 468, Annex A) into UTF-8; Siparse::dvb_text_to_utf8() has the contract. Holds one converter a
// character table. One thread at a time.
class Dvb_text {
 public:
  // Prints an error for each table that iconv does not know; texts in it then stay as broadcast.
  Dvb_text();
  ~Dvb_text();
  Dvb_text(const Dvb_text&) = delete;
  Dvb_text& operator=(const Dvb_text&) = delete;

  // In place. Leaves what cannot be converted, with a message.
  void convert(std::string* text);
  // A copy.
  std::string utf8(std::string text) {
    convert(&text);
    return text;
  }

 private:
  // What a selector leads to. Texts that are copied or not supported end in the error of a failed conversion.
  enum class Way { CONVERTED, COPIED, UNSUPPORTED, REFUSED };
  struct Choice {
    Way way;
    iconv_t converter;
    size_t start;       // of the text behind the selector
    unsigned reported;  // the selector's number in that error
  };
  Choice choose(unsigned selector, size_t length, unsigned second, unsigned third) const;

  static constexpr size_t ISO_8859_TABLES = 16;

  std::array<iconv_t, ISO_8859_TABLES> iso8859_;  // ISO-8859-n at n - 1
  iconv_t iso6937_;
  iconv_t iso10646_;
};
