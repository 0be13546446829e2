// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "si/iconv_decoder.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "base/log.h"
#include "si/broken_letter.h"

namespace {

constexpr const char* CODE_POINTS = std::endian::native == std::endian::little ? "UTF-32LE" : "UTF-32BE";

}  // namespace

Iconv_decoder::Iconv_decoder(const std::string& table) : handle_(iconv_open(CODE_POINTS, table.c_str())) {
  if (!valid())
    KLOG(VERB_ERROR, "ERROR: Cannot read texts in %s, %s\n", table.c_str(), std::strerror(errno));
}

Iconv_decoder::~Iconv_decoder() {
  if (valid())
    (void)iconv_close(handle_);
}

bool Iconv_decoder::valid() const {
  return handle_ != reinterpret_cast<iconv_t>(static_cast<intptr_t>(-1));
}

void Iconv_decoder::append(std::string_view bytes, std::u32string* out) {
  if (!valid()) {
    for (const char c : bytes)
      *out += static_cast<uint8_t>(c) < 0x80 ? static_cast<char32_t>(c) : BROKEN_LETTER;
    return;
  }
  (void)iconv(handle_, nullptr, nullptr, nullptr, nullptr);
  char* in = const_cast<char*>(bytes.data());
  size_t in_left = bytes.size();
  bool last = false;  // what a table keeps back for a character that may follow
  while (in_left != 0 || !last) {
    last = in_left == 0;
    char32_t characters[64];
    char* to = reinterpret_cast<char*>(characters);
    size_t room = sizeof characters;
    const size_t result =
        last ? iconv(handle_, nullptr, nullptr, &to, &room) : iconv(handle_, &in, &in_left, &to, &room);
    out->append(characters, (sizeof characters - room) / sizeof(char32_t));
    if (result != static_cast<size_t>(-1) || errno == E2BIG)
      continue;
    if (last || errno != EILSEQ) {
      in_left = 0;
      continue;
    }
    *out += BROKEN_LETTER;
    ++in;
    --in_left;
  }
}
