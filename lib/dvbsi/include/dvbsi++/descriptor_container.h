// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/descriptor.h>

enum DescriptorScope {
  SCOPE_SI,
  SCOPE_CAROUSEL,
  SCOPE_MHP,
};

// Base of the sections and entries that have a loop of descriptors. A loop ends at the first descriptor that does not
// fit in it; invalid ones are left out, and the loop goes on behind them.
class DescriptorContainer {
 public:
  DescriptorContainer(const DescriptorContainer&) = delete;
  DescriptorContainer& operator=(const DescriptorContainer&) = delete;

  const DescriptorList* getDescriptors() const;

 protected:
  DescriptorContainer();
  ~DescriptorContainer();  // not virtual: never delete through this class

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
