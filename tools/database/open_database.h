// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <memory>
#include <string>

class Sdbl;

// Opens the files, durably, for a command that writes them; Failure when they cannot be opened or written, and those
// that this call made (`exists` false) are gone again then.
std::unique_ptr<Sdbl> open_database(const std::string& file, bool exists);

// Whether a failure says that nothing more can be kept: a full disk, a read-only or damaged file, an input/output
// error. A lock passes, and is none. Any-thread.
bool write_failed(Sdbl* database);

// Throws Failure, naming `file`, after such a failure.
void check_written(Sdbl* database, const std::string& file);

// The guide of everything that has one is collected: television, radio and data, not just the library's own choice.
void collect_all_guides(Sdbl* database);
