// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <iconv.h>

#include <array>
#include <cstddef>
#include <string>

#include "si/text_converter.h"

// Receiver_profile::Texts::PLAIN: the tables of ISO 8859, ISO 6937 and UCS-4, as iconv has them. Holds one converter a
// character table.
class Plain_text : public Text_converter {
 public:
  // Prints an error for each table that iconv does not know; texts in it then stay as broadcast.
  Plain_text();
  ~Plain_text() override;

  // Leaves what cannot be converted, with a message. `lines` is not used: control codes go to iconv.
  void convert(std::string* text, Lines lines) override;
  // Appends; but the half character at the end of a text without selector is put before the next one.
  std::string add_extended(const ExtendedEventDescriptor& part, Extended_texts& so_far, EIT_lang& language) override;

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
