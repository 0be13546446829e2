// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>

// Calls that fail on demand.
namespace softdvb {

bool have_faults();

// Whether there is such a call to fail: an ioctl by its name, or a function that is interposed.
bool is_fault_call(const std::string& name);

// The errno with which this call has to fail, or 0. Counts the call for every rule that names it. `target`: path or
// device file; rules without a pattern fit all.
int fault_for(const char* call, const char* target = "");

// The file behind a descriptor, for fault_for.
std::string target_of(int fd);

// For the start of an interposed function: true when the call must fail, with errno set.
bool call_fails(const char* call, const char* target = "");
bool call_fails_on(const char* call, int fd);

}  // namespace softdvb
