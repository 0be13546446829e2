// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "support/support.h"

#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace support {

uint32_t mpeg_crc32(const uint8_t* data, size_t size) {
  uint32_t crc = 0xFFFFFFFF;
  for (size_t i = 0; i < size; ++i) {
    for (int bit = 7; bit >= 0; --bit) {
      const bool out = ((crc >> 31) & 1) != ((data[i] >> bit) & 1u);
      crc = (crc << 1) ^ (out ? 0x04C11DB7u : 0u);
    }
  }
  return crc;
}

Bytes with_crc(Bytes section) {
  const uint32_t crc = mpeg_crc32(section.data(), section.size());
  for (int shift = 24; shift >= 0; shift -= 8)
    section.push_back(static_cast<uint8_t>(crc >> shift));
  return section;
}

Bytes long_section(uint8_t table_id, uint16_t extension, uint8_t version, const Bytes& body, uint8_t section_number,
                   uint8_t last_section_number, bool current) {
  const size_t length = 5 + body.size() + 4;
  const auto version_and_current = static_cast<uint8_t>(0xC0 | (version << 1) | (current ? 1 : 0));
  return with_crc(join({{table_id},
                        u16(0xB000u | static_cast<unsigned>(length)),
                        u16(extension),
                        {version_and_current, section_number, last_section_number},
                        body}));
}

Bytes descriptor(uint8_t tag, const Bytes& body) {
  return join({{tag, static_cast<uint8_t>(body.size())}, body});
}

Bytes join(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts)
    all.insert(all.end(), part.begin(), part.end());
  return all;
}

Bytes bytes(const std::string& text) {
  return Bytes(text.begin(), text.end());
}

Bytes u16(unsigned value) {
  return {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
}

Bytes loop12(const Bytes& body) {
  return join({u16(0xF000u | static_cast<unsigned>(body.size())), body});
}

Temp_dir::Temp_dir() {
  std::string name = (std::filesystem::temp_directory_path() / "kelvo-test-XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr)
    throw std::runtime_error("mkdtemp failed");
  path_ = name;
}

Temp_dir::~Temp_dir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

Stderr_capture::Stderr_capture() {
  std::fflush(stderr);
  std::string name = (std::filesystem::temp_directory_path() / "kelvo-stderr-XXXXXX").string();
  file_ = mkstemp(name.data());
  if (file_ < 0)
    throw std::runtime_error("mkstemp failed");
  unlink(name.c_str());
  saved_ = dup(2);
  dup2(file_, 2);
}

Stderr_capture::~Stderr_capture() {
  std::fflush(stderr);
  dup2(saved_, 2);
  close(saved_);
  close(file_);
}

std::string Stderr_capture::text() const {
  std::fflush(stderr);
  std::string all;
  char block[4096];
  off_t at = 0;
  for (ssize_t n; (n = pread(file_, block, sizeof block, at)) > 0; at += n)
    all.append(block, static_cast<size_t>(n));
  return all;
}

std::string capture_file(const std::string& name) {
  const std::filesystem::path path = std::filesystem::path(KELVO_SOURCE_DIR) / ".." / "shared" / "captures" / name;
  return std::filesystem::exists(path) ? path.string() : std::string();
}

std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

void write_file(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary);
  file << text;
}

}  // namespace support
