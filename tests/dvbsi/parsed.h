// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include <dvbsi++/ca_section.h>
#include <dvbsi++/descriptor.h>

#include "dvbsi/read_all.h"
#include "support/support.h"

namespace dvbsi_test {

using support::Bytes;

#if KELVO_DVBSI_OWN
constexpr bool OWN = true;
#else
constexpr bool OWN = false;
#endif

// Bytes as a parser gets them. For our own classes in a block of exactly their size, so that a memory checker sees a
// read outside; for the system's with the room around them that those need.
class Block {
 public:
  explicit Block(const Bytes& bytes)
      : before_(OWN ? 0 : 16), bytes_(new uint8_t[before_ + bytes.size() + (OWN ? 0 : 1024)]()) {
    if (!bytes.empty())
      std::memcpy(bytes_.get() + before_, bytes.data(), bytes.size());
    size_ = bytes.size();
  }
  ~Block() { std::memset(bytes_.get() + before_, 0xEE, size_); }
  Block(const Block&) = delete;
  Block& operator=(const Block&) = delete;
  const uint8_t* get() const { return bytes_.get() + before_; }

 private:
  size_t before_;
  size_t size_;
  std::unique_ptr<uint8_t[]> bytes_;
};

// An object of a section, entry or descriptor class whose buffer is overwritten and freed at once.
template <typename Class>
std::unique_ptr<Class> parsed(const Bytes& bytes) {
  const Block block(bytes);
  return std::make_unique<Class>(block.get());
}

// values() of a section.
inline std::string section_values(const Bytes& section) {
  return values(Block(section).get());
}

// The head of a long section but for its CRC: "42 1 9 abcd 1e 0 4 7".
inline std::string head_values(const LongSection& s) {
  char text[64];
  std::snprintf(
      text, sizeof text, "%02x %x %x %x %x %x %x %x", unsigned{s.getTableId()}, unsigned{s.getSectionSyntaxIndicator()},
      unsigned{s.getSectionLength()}, unsigned{s.getTableIdExtension()}, unsigned{s.getVersionNumber()},
      unsigned{s.getCurrentNextIndicator()}, unsigned{s.getSectionNumber()}, unsigned{s.getLastSectionNumber()});
  return text;
}

// The descriptors of a loop, by way of a CAT.
inline std::unique_ptr<ConditionalAccessSection> loop_of(const Bytes& descriptors) {
  return parsed<ConditionalAccessSection>(support::long_section(0x01, 0xFFFF, 0, descriptors));
}

inline size_t kept(const Bytes& descriptors) {
  return loop_of(descriptors)->getDescriptors()->size();
}

// The one descriptor of a loop, as its class; the pointer is null when it is not kept or of another class.
template <typename Class>
class One {
 public:
  explicit One(const Bytes& descriptor) : section_(loop_of(descriptor)) {
    const DescriptorList* const list = section_->getDescriptors();
    if (list->size() == 1)
      found_ = dynamic_cast<const Class*>(list->front());
  }
  explicit operator bool() const { return found_ != nullptr; }
  const Class* operator->() const { return found_; }
  const Class& operator*() const { return *found_; }

 private:
  std::unique_ptr<ConditionalAccessSection> section_;
  const Class* found_ = nullptr;
};

}  // namespace dvbsi_test
