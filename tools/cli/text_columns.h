// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>
#include <string_view>
#include <vector>

// Texts by the columns that they take on a screen: wide characters take two, combining marks none. Clean UTF-8, see
// clean_text().

int columns_of(std::string_view text);

// As much of the beginning as fits into so many columns; never half a character, nor one without its marks.
std::string fitting(std::string_view text, int columns);

// The text itself where it fits, else its beginning and an ellipsis.
std::string shortened(std::string_view text, int columns);

// The text in lines of so many columns at most, broken at blanks; a word that is longer than a line is broken anywhere.
// At least one line.
std::vector<std::string> wrapped(std::string_view text, int columns);
