// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <cstring>

#include <dvbsi++/descriptor.h>

using dvbsi_own::Keep;

static const uint8_t* kept(const uint8_t* descriptor, Keep keep) {
  if (keep == Keep::BORROW)
    return descriptor;
  const size_t size = 2u + descriptor[1];
  return static_cast<const uint8_t*>(std::memcpy(new uint8_t[size], descriptor, size));
}

Descriptor::Descriptor(const uint8_t* const buffer, Keep keep)
    : owned_(keep == Keep::COPY), data_(kept(buffer, keep)) {}

Descriptor::~Descriptor() {
  if (owned_)
    delete[] data_;
}

size_t Descriptor::writeToBuffer(uint8_t* const buffer) const {
  const size_t size = 2u + data_[1];
  std::memcpy(buffer, data_, size);
  return size;
}
