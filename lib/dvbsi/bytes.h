// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <dvbsi++/own.h>

namespace dvbsi_own {

// Numbers are read byte by byte: they stand on any address, and the machine may have either byte order.
inline unsigned be16(const uint8_t* p) {
  return static_cast<unsigned>(p[0]) << 8 | p[1];
}
inline uint32_t be24(const uint8_t* p) {
  return static_cast<uint32_t>(be16(p)) << 8 | p[2];
}
inline uint32_t be32(const uint8_t* p) {
  return static_cast<uint32_t>(be16(p)) << 16 | be16(p + 2);
}
inline unsigned len12(const uint8_t* p) {
  return be16(p) & 0x0FFF;
}
inline uint16_t pid13(const uint8_t* p) {
  return static_cast<uint16_t>(be16(p) & 0x1FFF);
}
inline std::string code(const uint8_t* p) {
  return std::string(reinterpret_cast<const char*>(p), 3);
}

constexpr size_t HEADER_SIZE = 3;  // up to and with section_length
constexpr size_t CRC_SIZE = 4;
constexpr size_t LONGEST_SECTION = 4096;

// Zero bytes behind a copied section or loop, which one rule for a broken descriptor looks at.
constexpr size_t ZEROES_BEHIND = 16;

inline size_t section_size(const uint8_t* section) {
  return HEADER_SIZE + len12(section + 1);
}

// A byte of a section that may be shorter than it ought to be, or longer than a section can be; 0 where it is not.
inline unsigned section_byte(const uint8_t* section, size_t i) {
  return i < section_size(section) && i < LONGEST_SECTION ? section[i] : 0u;
}
uint32_t section_crc(const uint8_t* section);

// section_length + 3 bytes and zeroes, at least as many as a long section's header takes.
Section_bytes copy_section(const uint8_t* section);

// What is left of a section of the given length between `offset` and its CRC; 0 when it ends before.
inline size_t available(size_t section_length, size_t offset) {
  const size_t end = HEADER_SIZE + section_length;
  return end > offset + CRC_SIZE ? end - CRC_SIZE - offset : 0;
}

// How many of the bytes of a loop are whole descriptors.
inline size_t whole_descriptors(const uint8_t* loop, size_t size) {
  size_t i = 0;
  while (size - i >= 2 && size - i >= 2u + loop[i + 1])
    i += 2u + loop[i + 1];
  return i;
}

// Appends the entries of a loop, up to the first that does not fit. An entry begins with `head` bytes, the last two of
// which end in the 12-bit length of its descriptors.
template <typename X>
void add_entries(Owned_list<X>& list, const uint8_t* loop, size_t size, size_t head) {
  const auto entry_size = [head, loop, size](size_t i) -> size_t {
    if (size - i < head)
      return 0;
    const size_t n = head + len12(loop + i + head - 2);
    return n <= size - i ? n : 0;
  };
  size_t count = 0;
  for (size_t i = 0, n; (n = entry_size(i)) != 0; i += n)
    ++count;
  list.reserve(count);
  for (size_t i = 0; count != 0; --count) {
    list.add(loop + i, Keep::BORROW);
    i += entry_size(i);
  }
}

// By the other tags' own rules: whether a descriptor of a tag without a class is kept. All are at the lengths that the
// standard gives; the rules sort out broken ones. REQUIRES: ZEROES_BEHIND bytes are readable behind the body.
bool other_descriptor_kept(const uint8_t* descriptor);

}  // namespace dvbsi_own
