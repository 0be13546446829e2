// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

class Descriptor;

// What is checked before bytes from the air reach a <dvbsi++/...> class. Some implementations of these classes believe
// every length: they read behind the section, or never come back. Sections and descriptors that a broadcaster means to
// send all pass.
//
// The order of use, for each section: section_problem(), then Safe_copy::copy(), then the section's class over the
// copy; body_ok() before the entries of a descriptor are used.
namespace section_guard {

// Null when the `size` bytes may be given to the section class of their table id, else what is wrong with them. Checks
// that the size is that of the section, that every descriptor inside an entry fits the entry's loop, and that no loop
// holds a descriptor over which a parser may not come to an end. Outer loops that do not fit are no problem: a parser
// stops there by itself. *any-thread*
const char* section_problem(const uint8_t* section, size_t size);

// Room for one section, with readable bytes in front of it and zeroes behind it, as far as a parser that trusts the
// lengths inside a section gets. Made once and reused: a copy allocates nothing. One thread at a time.
class Safe_copy {
 public:
  static constexpr size_t LONGEST_SECTION = 4096;

  // Copies the section and returns where it stands now, until the next copy. A longer one is cut.
  // REQUIRES: size <= LONGEST_SECTION, as section_problem() has made sure.
  const uint8_t* copy(const uint8_t* section, size_t size);

 private:
  static constexpr size_t ROOM_BEFORE = 16;
  static constexpr size_t ROOM_BEHIND = 1024;

  size_t used_ = 0;  // all bytes behind this many are zero
  std::array<uint8_t, ROOM_BEFORE + LONGEST_SECTION + ROOM_BEHIND> block_{};
};

// Whether the lengths inside an extended event (0x4E), multilingual network name (0x5B) or multilingual service name
// (0x5D) descriptor add up. The entries of one that is not ok may hold bytes from behind it: skip them. True for every
// other tag. *any-thread*
bool body_ok(const Descriptor& descriptor);

}  // namespace section_guard
