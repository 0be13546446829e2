// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>
#include <string_view>

// The code of a language as files of the internet want it: of the three letters that are broadcast (ISO 639-2, either
// kind, capital or small) the two of ISO 639-1 where the language has them, else the three. Empty for what is no code,
// and for "und", "mul" and "zxx", which name no language.
std::string language_code(std::string_view broadcast);
