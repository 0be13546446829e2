// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>
#include <string_view>

// Appends a text of the default table (ISO/IEC 6937 with the euro sign at 0xA4; EN 300 468, figure A.1). An accent and
// its letter become one character where Unicode has it, else the letter and a combining mark; an accent and a blank
// become the accent itself. U+FFFD stands for each byte that is not defined, and for an accent before anything else;
// one at the very end, where the text was cut, is left out. Control codes, from 0x80 on, keep their numbers.
void append_iso_6937(std::string_view bytes, std::u32string* out);
