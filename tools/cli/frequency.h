// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>

// The Hz of a centre frequency as people write one: "474000000", "474M", "474.5 MHz", "474000kHz"; capital and small
// letters alike. Throws CLI::ValidationError, which says whether it is no frequency or none of DVB-T.
int frequency_of(const std::string& text);

// What an option for a frequency is given to check and transform its value; see CLI::Option::transform().
std::string hz_text(const std::string& text);
