// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/descriptor.h>

// Families of descriptor tags. Part of the interface, and not used: all tags here are those of the service information.
enum DescriptorScope {
  SCOPE_SI,
  SCOPE_CAROUSEL,
  SCOPE_MHP,
};

// Base of the sections and entries that have a loop of descriptors. A loop ends at the first descriptor that does not
// fit in it, those before it stay; invalid ones are left out, and the loop goes on behind them. Of the tags without a
// class, other_descriptor_kept() in dvbsi/bytes.h says which are invalid.
class DescriptorContainer {
 public:
  DescriptorContainer(const DescriptorContainer&) = delete;
  DescriptorContainer& operator=(const DescriptorContainer&) = delete;

  // The descriptors of the loop, each of the class of its tag, see descriptor.h; may be empty, never null. The list
  // and they belong to this object. Made at the first call; when that throws std::bad_alloc, the next call tries again.
  const DescriptorList* getDescriptors() const;

 protected:
  DescriptorContainer();
  ~DescriptorContainer();  // not virtual: never delete through this class

  // The loop is `size` bytes, outside of which nothing counts. Borrowed bytes, and dvbsi_own::ZEROES_BEHIND zeroes or
  // other bytes behind them, are there as long as this object.
  void set_loop(const uint8_t* loop, size_t size, dvbsi_own::Keep keep);

 private:
  void build() const;
  void clear() const;

  const uint8_t* loop_;
  size_t size_;
  std::unique_ptr<uint8_t[]> copy_;
  mutable dvbsi_own::Once once_;
  mutable void* block_;  // where the descriptors stand
  mutable DescriptorList descriptors_;
};
