// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstddef>
#include <cstdint>
#include <list>

#include <dvbsi++/own.h>

// A descriptor: tag, length, body (ISO/IEC 13818-1, 2.6; EN 300 468, 6.1). Base of the descriptor classes, and itself
// the class of all tags that have none; these are taken apart with writeToBuffer().
//
// What holds for all descriptor classes is said here, and not again at each of them:
// - Ownership. A section makes the descriptors of its loops and deletes them. Callers delete nothing that they got from
//   a getter, and keep no pointer to a descriptor, list, entry or text beyond the life of the section. Whoever makes a
//   descriptor by hand deletes it; it copies its bytes, so that the buffer may be reused at once.
// - Input. The buffer holds tag and length, and as many bytes of body as the length says. No byte behind them is read.
//   The tag is not checked: any class can be laid over any descriptor. What a body has behind the fields of its class
//   is ignored. The constructors throw nothing but std::bad_alloc.
// - Failure. Each class says of which bodies it is valid; whether values make sense is not looked at. A section leaves
//   invalid descriptors out of its lists, so all that a caller finds there are valid. Whoever makes one by hand asks
//   isValid() first: of an invalid one, a number whose bytes the body does not have is 0 there, texts and lists are
//   empty.
// - Values. Numbers are as broadcast and right-aligned; flags are 0 or 1; codes have the meaning of the clause named at
//   the class. Texts are the bytes as broadcast, with the selector of the character table, control codes and zero bytes
//   (EN 300 468, Annex A). Codes of languages and countries have three bytes, in the case of the broadcast.
// - Lists are never null, they stand in the order of the broadcast and own their entries. An entry's constructor is
//   for the list: it REQUIRES a buffer with a whole entry, and copies it.
// - Getters are *any-thread*, also at the same time. Texts and lists are made at the first call of their getter; when
//   that throws std::bad_alloc, nothing has changed, and the next call tries again.
class Descriptor {
 public:
  // `keep` is for the sections; others leave it out.
  Descriptor(const uint8_t* const buffer, dvbsi_own::Keep keep = dvbsi_own::Keep::COPY);
  virtual ~Descriptor();
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  uint8_t getTag() const { return data_[0]; }
  uint8_t getLength() const { return data_[1]; }  // bytes of the body
  bool isValid() const { return valid_; }         // by the rule of the class; always, when the tag has no class

  // Stores tag, length and body and returns their number, which is getLength() + 2. Cannot fail.
  // REQUIRES: room for as many bytes, 257 at most. For the sake of other implementations: getLength() is not 0.
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
