// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/mux/text.h"

#include <iconv.h>

#include <algorithm>
#include <cerrno>

#include <fmt/format.h>

namespace softdvb_mux {

namespace {

// EN 300 468, A.2, tables A.3 and A.4.
struct Charset {
  const char* name;
  const char* iconv_name;
  Bytes selector;
  unsigned unit;  // bytes a character of the control codes: 1, 2 (two-byte tables) or 3 (UTF-8)
};

const std::vector<Charset>& charsets() {
  static const std::vector<Charset> table = [] {
    std::vector<Charset> all = {
        {"iso6937", "ISO_6937", {}, 1},
        {"iso8859-5", "ISO-8859-5", {0x01}, 1},
        {"iso8859-6", "ISO-8859-6", {0x02}, 1},
        {"iso8859-7", "ISO-8859-7", {0x03}, 1},
        {"iso8859-8", "ISO-8859-8", {0x04}, 1},
        {"iso8859-9", "ISO-8859-9", {0x05}, 1},
        {"iso8859-10", "ISO-8859-10", {0x06}, 1},
        {"iso8859-11", "ISO-8859-11", {0x07}, 1},
        {"iso8859-13", "ISO-8859-13", {0x09}, 1},
        {"iso8859-14", "ISO-8859-14", {0x0A}, 1},
        {"iso8859-15", "ISO-8859-15", {0x0B}, 1},
        {"ucs2", "UCS-2BE", {0x11}, 2},
        {"utf-16", "UTF-16BE", {0x11}, 2},
        {"ksx1001", "EUC-KR", {0x12}, 2},
        {"gb2312", "EUC-CN", {0x13}, 2},
        {"gbk", "GBK", {0x13}, 2},
        {"big5", "BIG5", {0x14}, 2},
        {"0x14/utf-16", "UTF-16BE", {0x14}, 2},
        {"utf-8", "UTF-8", {0x15}, 3},
        {"0x10/1", "ISO-8859-1", {0x10, 0, 1}, 1},
        {"0x10/2", "ISO-8859-2", {0x10, 0, 2}, 1},
        {"0x10/3", "ISO-8859-3", {0x10, 0, 3}, 1},
        {"0x10/4", "ISO-8859-4", {0x10, 0, 4}, 1},
        {"0x10/5", "ISO-8859-5", {0x10, 0, 5}, 1},
        {"0x10/6", "ISO-8859-6", {0x10, 0, 6}, 1},
        {"0x10/7", "ISO-8859-7", {0x10, 0, 7}, 1},
        {"0x10/8", "ISO-8859-8", {0x10, 0, 8}, 1},
        {"0x10/9", "ISO-8859-9", {0x10, 0, 9}, 1},
        {"0x10/10", "ISO-8859-10", {0x10, 0, 10}, 1},
        {"0x10/11", "ISO-8859-11", {0x10, 0, 11}, 1},
        {"0x10/13", "ISO-8859-13", {0x10, 0, 13}, 1},
        {"0x10/14", "ISO-8859-14", {0x10, 0, 14}, 1},
        {"0x10/15", "ISO-8859-15", {0x10, 0, 15}, 1},
        // What careless broadcasters send: no selector, and yet not the default table.
        {"silent/iso8859-1", "ISO-8859-1", {}, 1},
        {"silent/iso8859-2", "ISO-8859-2", {}, 1},
        {"silent/iso8859-5", "ISO-8859-5", {}, 1},
        {"silent/iso8859-7", "ISO-8859-7", {}, 1},
        {"silent/iso8859-9", "ISO-8859-9", {}, 1},
        {"silent/iso8859-15", "ISO-8859-15", {}, 1},
        {"silent/utf-8", "UTF-8", {}, 3},
    };
    return all;
  }();
  return table;
}

// A list of thirty is searched as fast as a map and keeps its order for the message.
const Charset* find_charset(const std::string& name) {
  for (const Charset& charset : charsets())
    if (name == charset.name)
      return &charset;
  return nullptr;
}

std::string charset_names() {
  std::string all;
  for (const Charset& charset : charsets())
    all += (all.empty() ? "\"" : ", \"") + std::string(charset.name) + "\"";
  return all;
}

class Converter {
 public:
  explicit Converter(const char* to) : handle_(iconv_open(to, "UTF-8")) {}
  ~Converter() {
    if (valid())
      iconv_close(handle_);
  }
  Converter(const Converter&) = delete;
  Converter& operator=(const Converter&) = delete;
  bool valid() const { return handle_ != reinterpret_cast<iconv_t>(-1); }

  // One character, so that the first one that does not fit can be named.
  bool convert(const std::string& utf8, Bytes* out) {
    char* in = const_cast<char*>(utf8.data());
    size_t in_left = utf8.size();
    char buffer[16];
    char* to = buffer;
    size_t out_left = sizeof buffer;
    // Back to the first state, in case the character before left the converter in the middle of a sequence.
    iconv(handle_, nullptr, nullptr, nullptr, nullptr);
    // A positive result means that something was replaced by a look-alike.
    const bool good =
        iconv(handle_, &in, &in_left, &to, &out_left) == 0 && iconv(handle_, nullptr, nullptr, &to, &out_left) == 0;
    if (good)
      out->insert(out->end(), buffer, to);
    return good;
  }

 private:
  iconv_t handle_;
};

// Length of the UTF-8 character at `at`, 0 when it is none.
// Checked by hand, because iconv cannot tell a character that the table lacks from bytes that are none.
size_t utf8_length(const std::string& text, size_t at) {
  const auto lead = static_cast<unsigned char>(text[at]);
  const size_t length = lead < 0x80 ? 1 : lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC2 ? 2 : 0;
  return at + length <= text.size() ? length : 0;
}

// Line feed and emphasis are codes above 0x80 in one byte, and private characters in the larger tables.
void append_control(const Charset& charset, uint8_t code, Bytes* out) {
  if (charset.unit == 3)
    out->insert(out->end(), {0xEE, 0x82, code});  // U+E080 to U+E09F in UTF-8
  else if (charset.unit == 2)
    out->insert(out->end(), {0xE0, code});
  else
    out->push_back(code);
}

}  // namespace

Text_defaults Text_defaults::inside(const Json_node& node) const {
  Text_defaults result = *this;
  result.charset = node.string_or("charset", charset);
  if (find_charset(result.charset) == nullptr)
    node.get("charset").fail(fmt::format("\"{}\" is not allowed, one of {} is", result.charset, charset_names()));
  result.language = node.three_letters_or("language", language);
  return result;
}

Bytes encode_text(const std::string& utf8, const std::string& charset_name, std::string* problem) {
  problem->clear();
  const Charset* charset = find_charset(charset_name);
  if (charset == nullptr) {
    *problem = "the character table \"" + charset_name + "\" is unknown";
    return {};
  }
  // A selector alone would be a text of one byte.
  if (utf8.empty())
    return {};
  Bytes result = charset->selector;
  Converter converter(charset->iconv_name);
  if (!converter.valid()) {
    *problem = fmt::format("this system's iconv does not know {}", charset->iconv_name);
    return {};
  }
  for (size_t at = 0; at < utf8.size();) {
    const size_t length = utf8_length(utf8, at);
    const std::string character = utf8.substr(at, std::max<size_t>(length, 1));
    at += character.size();
    if (character == "\n") {
      append_control(*charset, 0x8A, &result);
    } else if (character.size() == 2 && character[0] == '\xC2' && static_cast<unsigned char>(character[1]) < 0xA0) {
      append_control(*charset, static_cast<uint8_t>(character[1]), &result);
    } else if (charset->name == charsets().front().name && character == "\xE2\x82\xAC") {
      result.push_back(0xA4);  // the euro sign of EN 300 468, figure A.1
    } else if (length == 0 || !converter.convert(character, &result)) {
      *problem =
          fmt::format("the character \"{}\" is not in the table \"{}\"", length == 0 ? "?" : character, charset_name);
      return {};
    }
  }
  return result;
}

Bytes read_text(const Json_node& node, const Text_defaults& defaults, size_t max_bytes) {
  Bytes result;
  if (node.value().is_object() && node.has("hex")) {
    node.allow_only({"hex"});
    result = node.get("hex").hex();
  } else {
    const bool object = node.value().is_object();
    if (object)
      node.allow_only({"text", "charset"});
    const Text_defaults mine = object ? defaults.inside(node) : defaults;
    if (!object && !node.value().is_string())
      node.fail("a text is needed: \"...\", {\"text\": \"...\", \"charset\": \"...\"} or {\"hex\": \"...\"}");
    std::string problem;
    result = encode_text(object ? node.get("text").string() : node.string(), mine.charset, &problem);
    if (!problem.empty())
      node.fail(problem + ", choose another \"charset\"");
  }
  if (result.size() > max_bytes)
    node.fail(fmt::format("the text takes {} bytes, at most {} are allowed here", result.size(), max_bytes));
  return result;
}

}  // namespace softdvb_mux
