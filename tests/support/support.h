// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace support {

using Bytes = std::vector<uint8_t>;

// The MPEG-2 CRC-32 (ISO/IEC 13818-1, Annex A), computed bit by bit and independently of the library.
uint32_t mpeg_crc32(const uint8_t* data, size_t size);

// Appends the CRC of all bytes, most significant byte first.
Bytes with_crc(Bytes section);

// A long section: header fields, `body` between last_section_number and CRC, right section_length and CRC.
Bytes long_section(uint8_t table_id, uint16_t extension, uint8_t version, const Bytes& body, uint8_t section_number = 0,
                   uint8_t last_section_number = 0, bool current = true);

// tag, length, body
Bytes descriptor(uint8_t tag, const Bytes& body);

// Parts joined; `bytes("abc")` makes the bytes of a text, `u16(n)` a big-endian number.
Bytes join(std::initializer_list<Bytes> parts);
Bytes bytes(const std::string& text);
Bytes u16(unsigned value);
Bytes loop12(const Bytes& body);  // 4 reserved bits, 12-bit length, body

// A fresh folder, removed with everything in it at the end of its life.
class Temp_dir {
 public:
  Temp_dir();
  ~Temp_dir();
  Temp_dir(const Temp_dir&) = delete;
  Temp_dir& operator=(const Temp_dir&) = delete;
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// What is written to standard error (descriptor 2, so the library's, perror's and a child's output) during its life.
class Stderr_capture {
 public:
  Stderr_capture();
  ~Stderr_capture();
  Stderr_capture(const Stderr_capture&) = delete;
  Stderr_capture& operator=(const Stderr_capture&) = delete;
  // Everything so far; the capture goes on.
  std::string text() const;

 private:
  int saved_;
  int file_;
};

// Runs `action` and returns what it wrote to standard error.
template <typename Action>
std::string stderr_of(Action&& action) {
  Stderr_capture capture;
  action();
  return capture.text();
}

// `../shared/captures/NAME` beside the source tree, or an empty text where it is not there (then skip the test).
std::string capture_file(const std::string& name);

std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& text);

}  // namespace support
