// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

// These headers need their order.
// clang-format off
extern "C" {
#include <dvbpsi/dvbpsi.h>
#include <dvbpsi/descriptor.h>
#include <dvbpsi/psi.h>
}
// clang-format on

#include "softdvb/mux/descriptors.h"

namespace softdvb_mux {

// Takes a descriptor over from libdvbpsi and frees it there.
inline Descriptor taken(dvbpsi_descriptor_t* made) {
  Descriptor result;
  if (made == nullptr)
    throw Description_error("libdvbpsi could not make a descriptor");
  result.tag = made->i_tag;
  result.data.assign(made->p_data, made->p_data + made->i_length);
  dvbpsi_DeleteDescriptors(made);
  return result;
}

}  // namespace softdvb_mux
