// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <random>
#include <string>

// What a program tells the system about the files of one folder, as it tells it: functions of libc are replaced for the
// whole program. From the log follows what a disk may hold when the power fails at any moment.
//
// The disk of this model keeps what was synced before that moment. Of a file's later writes it may have any: each may
// be there, missing, or there in part, sector by sector. Names (files that are made, renamed, removed) reach it in
// their order, and for certain once their folder was synced.
namespace disk_log {

// From here on, everything in `folder`; what is there already counts as synced.
void record(const std::string& folder);
void stop();

// A point in the log to which the caller's work had come, by a number of the caller's own.
void mark(int64_t number);

// How many calls were recorded, and the number of the last mark among the first `calls` of them; -1 for none.
size_t size();
int64_t last_mark(size_t calls);

// Fills `target`, which must be empty, with what the folder may hold when the power fails behind so many calls. Files
// of shared memory (-shm) are never there.
void cut(size_t calls, std::mt19937& random, const std::string& target);

// Among what was recorded: calls that wait for the disk, and bytes handed over in files.
int64_t syncs();
int64_t bytes();

}  // namespace disk_log
