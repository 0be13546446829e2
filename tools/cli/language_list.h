// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>
#include <vector>

// The codes of "est,eng", as --lang takes them. Throws Failure for what is no such list.
std::vector<std::string> split_languages(const std::string& list);
