// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

// Bytes that have not been read yet. What is taken is there: has() is asked before.
class Byte_reader {
 public:
  explicit Byte_reader(std::span<const uint8_t> bytes) : left_(bytes) {}

  bool has(size_t size) const { return left_.size() >= size; }
  bool empty() const { return left_.empty(); }
  std::span<const uint8_t> take(size_t size) {
    const auto taken = left_.first(size);
    left_ = left_.subspan(size);
    return taken;
  }
  // As much of it as there is.
  std::span<const uint8_t> take_up_to(size_t size) { return take(std::min(size, left_.size())); }
  uint32_t number(size_t size) {
    uint32_t value = 0;
    for (const uint8_t byte : take(size))
      value = value << 8 | byte;
    return value;
  }
  int id() { return static_cast<int>(number(2)); }
  size_t length12() { return number(2) & 0x0FFF; }

 private:
  std::span<const uint8_t> left_;
};

// Calls `each(tag, body)` for every whole descriptor of a loop; one that is cut off ends it.
template <typename Each>
void for_each_descriptor(std::span<const uint8_t> loop, Each each) {
  Byte_reader bytes(loop);
  while (bytes.has(2)) {
    const unsigned tag = bytes.number(1);
    const size_t size = bytes.number(1);
    if (!bytes.has(size))
      return;
    each(tag, bytes.take(size));
  }
}

// Calls `each(orig_network_id, ts_id, descriptors)` for every whole transport stream of a whole NIT section (EN 300
// 468, 5.2.1); one that is cut off ends it.
template <typename Each>
void for_each_stream_of_nit(std::span<const uint8_t> section, Each each) {
  constexpr size_t LOOPS_BEGIN = 8;
  constexpr size_t CRC_SIZE = 4;
  if (section.size() < LOOPS_BEGIN + 2 + 2 + CRC_SIZE)
    return;
  Byte_reader bytes(section.subspan(LOOPS_BEGIN, section.size() - LOOPS_BEGIN - CRC_SIZE));
  (void)bytes.take_up_to(bytes.length12());  // the network's descriptors
  if (!bytes.has(2))
    return;
  Byte_reader streams(bytes.take_up_to(bytes.length12()));
  while (streams.has(6)) {
    const int ts_id = streams.id();
    const int orig_network_id = streams.id();
    const size_t size = streams.length12();
    if (!streams.has(size))
      return;
    each(orig_network_id, ts_id, streams.take(size));
  }
}
