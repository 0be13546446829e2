// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <iconv.h>

#include <string>
#include <string_view>

// A character table of iconv's, read to code points. One thread at a time.
class Iconv_decoder {
 public:
  // `table` by a name that iconv knows; an unknown one is reported at verbosity 0.
  explicit Iconv_decoder(const std::string& table);
  ~Iconv_decoder();
  Iconv_decoder(const Iconv_decoder&) = delete;
  Iconv_decoder& operator=(const Iconv_decoder&) = delete;

  bool valid() const;

  // Appends the text, with U+FFFD for each byte that is no part of a character; half a character at the end is left
  // out. Without a table ASCII is read, and every other byte is U+FFFD.
  void append(std::string_view bytes, std::u32string* out);

 private:
  iconv_t handle_;
};
