// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>

namespace softdvb_mux {

// For --list-defaults: the "intervals" object, ordinary and "fast".
std::string defaults_text();
// For --example: a description that is complete and works.
std::string example_text();

}  // namespace softdvb_mux
