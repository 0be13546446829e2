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
