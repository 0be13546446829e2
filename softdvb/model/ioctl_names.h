// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>

#include "softdvb/model/handles.h"

namespace softdvb {

// "DMX_START", or "0x6f29" for one without a name.
std::string ioctl_name(Device device, unsigned long request);

bool is_ioctl_name(const std::string& name);

// The name and what is in the argument, for the log. `done`: results are in it.
std::string describe_ioctl(Device device, unsigned long request, const void* argument, bool done);

}  // namespace softdvb
