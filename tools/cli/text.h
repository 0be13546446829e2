// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// A text that came off the air, made fit for a screen: valid UTF-8, no control characters (so that no broadcaster talks
// to the terminal), no characters that turn the direction of writing, no leading selector byte, line breaks and tabs as
// blanks, no blanks around it. A text that has two bytes a character (selector 0x11) is converted, also when it was
// stored with each two of them joined to one. Bytes that are not UTF-8 become U+FFFD.
std::string clean_text(std::string_view text);

// The same of lines that hold such texts: line feeds, tabs and blanks stay where they are, and there are no selectors.
std::string clean_lines(std::string_view text);

// A dash for an empty text: an empty cell would look like a shifted column, and programs that split at blanks would
// miscount.
std::string or_dash(const std::string& text);

// Hz as MHz, as people say it: "506.000 MHz".
std::string mhz(int freq_hz);

// "1 packet", "2 packets".
std::string counted(uint64_t number, const char* one);
