// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <memory>

#include "softdvb/mux/dvbpsi_glue.h"

namespace softdvb_mux {

// A libdvbpsi handle whose complaints become the program's own.
class Encoder {
 public:
  Encoder();
  ~Encoder();
  Encoder(const Encoder&) = delete;
  Encoder& operator=(const Encoder&) = delete;
  dvbpsi_t* handle() { return handle_; }
  // Copies the sections' bytes and frees them; throws when libdvbpsi complained meanwhile.
  std::vector<Bytes> take(dvbpsi_psi_section_t* sections, const char* what);

 private:
  dvbpsi_t* handle_;
};

// A table of libdvbpsi with the function that deletes it.
template <typename Table>
std::unique_ptr<Table, void (*)(Table*)> owned(Table* table, void (*remove)(Table*)) {
  return {table, remove};
}

// libdvbpsi copies from a pointer to bytes that it does not promise to leave alone.
template <typename Add>
void add_all(const Descriptors& loop, Add&& add) {
  for (const Descriptor& descriptor : loop) {
    Bytes data = descriptor.data;
    data.push_back(0);  // so that an empty one has an address
    add(descriptor.tag, static_cast<uint8_t>(descriptor.data.size()), data.data());
  }
}

}  // namespace softdvb_mux
