// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "si/section_guard.h"

#include <algorithm>
#include <cstring>

#include <dvbsi++/descriptor.h>

#include "base/ids.h"

namespace section_guard {

namespace {

constexpr size_t SHORTEST_SECTION = 8;
constexpr size_t CRC_SIZE = 4;

constexpr const char* TOO_SHORT = "shorter than 8 bytes";
constexpr const char* WRONG_LENGTH = "length does not agree with section_length";
constexpr const char* PASSES_LOOP = "descriptor runs past the loop of its entry";
constexpr const char* EMPTY_BODY = "empty descriptor of a kind that needs a body";
constexpr const char* RESERVED_LOCATION = "content identifier with a reserved location";

// The bytes of a loop that are not looked at yet.
struct Bytes {
  const uint8_t* at;
  size_t left;

  uint8_t operator[](size_t i) const { return at[i]; }
  size_t len12(size_t i) const { return (static_cast<size_t>(at[i]) << 8 | at[i + 1]) & 0x0FFF; }
  Bytes first(size_t size) const { return {at, size}; }
  void skip(size_t size) {
    at += size;
    left -= size;
  }
};

// A descriptor over which a parser may loop for ever, or read without a limit.
const char* endless(const uint8_t* descriptor) {
  const Bytes body{descriptor + 2, descriptor[1]};
  switch (descriptor[0]) {
    case tag::MOSAIC:
    case tag::MULTILINGUAL_COMPONENT:
    case tag::EXTENSION:
      return body.left == 0 ? EMPTY_BODY : nullptr;
    case tag::CONTENT_IDENTIFIER: {  // a CRID of its own (length and text), or a 16-bit reference to one
      for (Bytes crids = body; crids.left != 0;) {
        const unsigned location = crids[0] & 3u;
        if (location > 1)
          return RESERVED_LOCATION;
        const size_t size = location == 1 ? 3 : 2 + (crids.left > 1 ? crids[1] : 0u);
        crids.skip(std::min(size, crids.left));
      }
      return nullptr;
    }
    default:
      return nullptr;
  }
}

// Takes whole descriptors off the front. What is left behind the last that fits stays in `loop`.
const char* descriptors(Bytes& loop) {
  while (loop.left >= 2 && loop.left >= 2u + loop[1]) {
    if (const char* problem = endless(loop.at))
      return problem;
    loop.skip(2u + loop[1]);
  }
  return nullptr;
}

// Entries of `head` bytes, the last two of which end in the length of their descriptors. A parser stops at the first
// that does not fit, but trusts the lengths inside each.
const char* entries(Bytes loop, size_t head) {
  while (loop.left >= head && loop.left - head >= loop.len12(head - 2)) {
    const size_t size = loop.len12(head - 2);
    loop.skip(head);
    Bytes inner = loop.first(size);
    if (const char* problem = descriptors(inner))
      return problem;
    if (inner.left != 0)
      return PASSES_LOOP;
    loop.skip(size);
  }
  return nullptr;
}

// The loop behind a 12-bit length, taken off the front of `rest`. False when it is not wholly there.
bool take_loop(Bytes& rest, Bytes& loop) {
  if (rest.left < 2 || rest.left - 2 < rest.len12(0))
    return false;
  const size_t size = rest.len12(0);
  rest.skip(2);
  loop = rest.first(size);
  rest.skip(size);
  return true;
}

}  // namespace

const char* section_problem(const uint8_t* section, size_t size) {
  if (size < SHORTEST_SECTION)
    return TOO_SHORT;
  const Bytes whole{section, size};
  if (size > Safe_copy::LONGEST_SECTION || size != 3 + whole.len12(1))
    return WRONG_LENGTH;

  // What lies between the fixed part of a table and the CRC.
  const auto behind = [whole](size_t fixed) {
    return whole.left > fixed + CRC_SIZE ? Bytes{whole.at + fixed, whole.left - fixed - CRC_SIZE} : Bytes{whole.at, 0};
  };
  Bytes rest{}, loop{};
  const uint8_t table_id = section[0];
  switch (table_id) {
    case table::CAT:
      rest = behind(8);
      return descriptors(rest);
    case table::PMT:
      rest = behind(10);
      if (!take_loop(rest, loop))
        return nullptr;
      if (const char* problem = descriptors(loop))
        return problem;
      return loop.left == 0 ? entries(rest, 5) : nullptr;
    case table::NIT_ACTUAL:
    case table::NIT_OTHER:
      rest = behind(8);
      if (!take_loop(rest, loop))
        return nullptr;
      if (const char* problem = descriptors(loop))
        return problem;
      if (loop.left != 0 || !take_loop(rest, loop))
        return nullptr;
      return entries(loop, 6);
    case table::SDT_ACTUAL:
    case table::SDT_OTHER:
      return entries(behind(11), 5);
    case table::TOT:
      rest = behind(8);
      return take_loop(rest, loop) ? descriptors(loop) : nullptr;
    default:  // EIT
      return table_id >= table::EIT_PRESENT_FOLLOWING && table_id <= table::EIT_LAST ? entries(behind(14), 12)
                                                                                     : nullptr;
  }
}

const uint8_t* Safe_copy::copy(const uint8_t* section, size_t size) {
  size = std::min(size, LONGEST_SECTION);
  uint8_t* const place = block_.data() + ROOM_BEFORE;
  std::memcpy(place, section, size);
  if (used_ > size)
    std::memset(place + size, 0, used_ - size);
  used_ = size;
  return place;
}

bool body_ok(const Descriptor& descriptor) {
  size_t code_size, texts;  // an entry: a language code and counted texts
  switch (descriptor.getTag()) {
    case tag::EXTENDED_EVENT:
      code_size = 0;
      texts = 2;
      break;
    case tag::MULTILINGUAL_NETWORK_NAME:
      code_size = 3;
      texts = 1;
      break;
    case tag::MULTILINGUAL_SERVICE_NAME:
      code_size = 3;
      texts = 2;
      break;
    default:
      return true;
  }
  const bool extended = descriptor.getTag() == tag::EXTENDED_EVENT;
  if (descriptor.getLength() == 0)
    return !extended;  // and no bytes to be had

  uint8_t raw[2 + 255];
  descriptor.writeToBuffer(raw);
  Bytes body{raw + 2, descriptor.getLength()};
  if (extended) {  // numbers, language, length_of_items, items, text_length
    if (body.left < 6 || body.left < 6u + body[4])
      return false;
    const size_t items_size = body[4];
    body.skip(5);
    body = body.first(items_size);
  }
  while (body.left != 0) {
    if (body.left < code_size)
      return false;
    body.skip(code_size);
    for (size_t i = 0; i < texts; ++i) {
      if (body.left < 1 || body.left < 1u + body[0])
        return false;
      body.skip(1u + body[0]);
    }
  }
  return true;
}

}  // namespace section_guard
