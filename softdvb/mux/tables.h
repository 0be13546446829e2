// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "softdvb/mux/description.h"

namespace softdvb_mux {

// The sections of a table from a moment of the stream on.
struct Variant {
  double from = 0;  // seconds
  std::vector<Bytes> sections;
};

// Something that is repeated on a PID as a whole: a table, or one segment of a schedule.
struct Table {
  Table_kind kind = PAT;
  uint16_t pid = 0;
  uint16_t service_id = 0;           // PMT and EIT
  uint16_t transport_stream_id = 0;  // SDT and EIT
  uint16_t network_id = 0;           // NIT
  double interval = 1;
  std::vector<Variant> variants;  // by time; none for TDT and TOT, which time_section() makes
};

// All tables of a multiplex, right and complete. Throws Description_error where something does not fit.
std::vector<Table> make_tables(const Description& all);

// TDT or TOT for the moment `epoch`.
Bytes time_section(const Description& all, Table_kind kind, int64_t epoch);

// Sections of a whole EIT: present/following as it changes over time, the schedule by segments of three hours.
void make_eits(const Description& all, const std::vector<Service>& services, uint16_t transport_stream_id,
               uint16_t original_network_id, bool actual, std::vector<Table>* tables);

// The CRC of ISO/IEC 13818-1, Annex A over the bytes before the last four, written into these.
void write_crc(Bytes* section);

}  // namespace softdvb_mux
