// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "trace/trace_records.h"

// The rules of the conversion once more, as a table of the kinds of records: what must come out, found another way.
struct Tdi_reading {
  std::string text;      // between header and end
  std::string messages;  // at verbosity 1
};

Tdi_reading read_by_table(const std::vector<trace_records::Record>& records);
