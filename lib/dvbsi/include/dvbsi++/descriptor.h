// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstddef>
#include <cstdint>
#include <list>

#include <dvbsi++/own.h>

// A descriptor: tag, length, body (ISO/IEC 13818-1, 2.6). Base of the descriptor classes, and itself the class of all
// tags that have none; these are taken apart with writeToBuffer().
//
// Sections make the objects and own them. Their dynamic type depends on the tag alone, and a descriptor that is invalid
// by its class's rule does not appear in a list at all. Whoever makes one by hand from a buffer of length + 2 bytes
// asks isValid() first; the values of an invalid one are 0 or empty. Getters are *any-thread*, also at the same time.
class Descriptor {
 public:
  Descriptor(const uint8_t* const buffer, dvbsi_own::Keep keep = dvbsi_own::Keep::COPY);
  virtual ~Descriptor();
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  uint8_t getTag() const { return data_[0]; }
  uint8_t getLength() const { return data_[1]; }
  bool isValid() const { return valid_; }

  // Stores tag, length and body, at most 257 bytes, and returns their number.
  // REQUIRES, for the sake of other implementations: getLength() is not 0.
  size_t writeToBuffer(uint8_t* const buffer) const;

 protected:
  const uint8_t* body() const { return data_ + 2; }
  unsigned byte(size_t i) const { return i < data_[1] ? data_[2 + i] : 0u; }  // 0 behind the body
  unsigned bits(size_t i, unsigned lowest, unsigned count) const { return byte(i) >> lowest & ((1u << count) - 1); }
  unsigned two_bytes(size_t i) const { return byte(i) << 8 | byte(i + 1); }

  bool valid_ = true;

 private:
  const bool owned_;
  const uint8_t* const data_;
};

using DescriptorList = std::list<Descriptor*>;
using DescriptorIterator = DescriptorList::iterator;
using DescriptorConstIterator = DescriptorList::const_iterator;
