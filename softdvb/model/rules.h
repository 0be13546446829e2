// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>

#include "softdvb/model/shared.h"

// The small languages of options, configuration file and control lines. What cannot be read throws Usage_error.
namespace softdvb {

class Usage_error;

// Numbers as in C (0x for hexadecimal); `what` names the value in the message.
uint64_t parse_number(const std::string& text, const std::string& what, uint64_t max);
uint64_t parse_seconds(const std::string& text, const std::string& what);  // decimals allowed; result in ns
double parse_positive(const std::string& text, const std::string& what);

// Without the blanks around it.
std::string trimmed(const std::string& text);

// "CALL[(GLOB)]=ERRNO[@FIRST][*COUNT]": adds to Shared::fault.
void add_fault(Shared& s, const std::string& text);

// "PID[/TABLE]=drop|cut:BYTES|double|crc|silence[@FIRST][*COUNT][+SECONDS]". `adapter` -1: every one.
void add_section_fault(Shared& s, int adapter, const std::string& text);

// "[FREQ|*]:READING=VALUE[@SECONDS]"
void add_signal(Adapter& a, const std::string& text);

// One line of control: see docs/softdvb.md.
void run_control(Shared& s, const std::string& line);

}  // namespace softdvb
