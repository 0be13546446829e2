// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <tuner/reception.h>

#include <string>
#include <string_view>
#include <vector>

// What an initial scan file names: the lists of frequencies that come with Linux's DVB programs.
struct Initial_scan {
  std::vector<Tuning_request> multiplexes;  // of DVB-T and DVB-T2, in the file's order, each once
  int others = 0;                           // entries of cable, satellite and the like, which were passed over
  std::vector<std::string> remarks;         // a line for each entry that names no frequency of DVB-T
};

// Reads either format: sections with KEY = VALUE lines (DELIVERY_SYSTEM, FREQUENCY, BANDWIDTH_HZ, STREAM_ID; other
// keys are passed over), or lines that begin "T 506000000 8MHz" and "T2 506000000 8MHz". `name` stands in messages.
// Throws Failure ("name:3: ...") for what cannot be read, and for a file in which nothing can be scanned.
Initial_scan parse_initial_scan(std::string_view text, const std::string& name);

// Folders where Debian's dtv-scan-tables has its files, by name: de-Berlin.
std::vector<std::string> scan_table_folders();

// The file of that name: itself when it has a slash in it or is there, else the one of the folders. Throws Failure,
// with names that are like it, or with the package that has such files when there is none of the folders.
std::string find_initial_scan_file(const std::string& name, const std::vector<std::string>& folders);

// The contents of such a file. Throws Failure.
Initial_scan read_initial_scan_file(const std::string& file);
