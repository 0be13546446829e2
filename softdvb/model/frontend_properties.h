// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <linux/dvb/frontend.h>

#include "softdvb/model/shared.h"

// FE_SET_PROPERTY and FE_GET_PROPERTY. Results are 0 or -errno. REQUIRES the shared lock.
namespace softdvb {

// Into the core's cache, one after the other up to the first that is refused; DTV_TUNE tunes with what is there then.
int set_properties(Adapter& a, const dtv_properties& list, uint64_t now_ns);

int get_properties(Adapter& a, const dtv_properties& list, uint64_t now_ns);

}  // namespace softdvb
