// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>
#include <vector>

#include "softdvb/launcher/config.h"

namespace softdvb {

// Runs `command` with the adapters of `config` and returns its exit code; dies of the same signal as it did. Throws
// std::runtime_error or Usage_error before anything has been started.
int run_command(const Config& config, const std::vector<std::string>& command);

// A control line for the running adapters of the environment. Throws.
void control_running(const std::string& line);

}  // namespace softdvb
