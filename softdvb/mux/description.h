// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <array>
#include <map>
#include <optional>
#include <string>

#include "base/ids.h"
#include "softdvb/mux/descriptors.h"

namespace softdvb_mux {

enum Table_kind {
  PAT,
  PMT,
  CAT,
  NIT_ACTUAL,
  NIT_OTHER,
  SDT_ACTUAL,
  SDT_OTHER,
  EIT_PF_ACTUAL,
  EIT_PF_OTHER,
  EIT_SCHEDULE_ACTUAL,
  EIT_SCHEDULE_OTHER,
  TDT,
  TOT,
  TABLE_KINDS
};
const char* name_of(Table_kind kind);

// Seconds from one transmission of a table to the next.
struct Intervals {
  std::array<double, TABLE_KINDS> table = {};
  // The schedule's days after the first one.
  double later_actual = 0;
  double later_other = 0;
  double pcr = 0;
};
// A little below the limits of ETSI TR 101 211, 4.4, so that they hold with packets of other tables in between. What a
// scan waits for, the multiplex's own NIT and SDT, comes more often, as broadcasters do it.
Intervals default_intervals();
// For tests that do not want to wait.
Intervals fast_intervals();

struct Elementary_stream {
  uint16_t pid = 0;
  uint8_t type = 0;
  uint8_t pes_stream_id = 0;  // of the dummy payload
  Descriptors descriptors;
  double payload_rate = 0;  // bits a second, 0: none
};

struct Pmt_content {
  double from = 0;  // seconds into the stream
  uint8_t version = 0;
  uint16_t pcr_pid = pid::LAST;
  Descriptors program_info;
  std::vector<Elementary_stream> streams;
};

struct Event {
  std::optional<int64_t> start;  // none: all bits one, "undefined"
  int64_t duration = 0;
  uint16_t event_id = 0;
  std::optional<uint8_t> running_status;
  bool free_ca = false;
  Descriptors descriptors;
};

struct Service {
  uint16_t service_id = 0;
  uint8_t type = 1;
  Listed_service listed;
  Descriptors sdt_descriptors;
  uint8_t running_status = 4;
  bool free_ca = false;
  bool eit_pf = false;
  bool eit_schedule = false;
  bool in_pat = true;
  bool in_sdt = true;
  bool in_nit = true;
  uint16_t pmt_pid = 0;
  std::vector<Pmt_content> pmts;  // by time, empty: no PMT is sent
  std::vector<Event> events;      // by start
  double appears = 0;
  double vanishes = 1e9;
};

struct Nit_stream {
  uint16_t transport_stream_id = 0;
  uint16_t original_network_id = 0;
  Descriptors descriptors;
};

struct Network {
  uint16_t network_id = 0;
  Descriptors descriptors;
  std::vector<Nit_stream> streams;
};

struct Other_stream {
  uint16_t transport_stream_id = 0;
  uint16_t original_network_id = 0;
  std::vector<Service> services;
};

enum Fault_kind {
  WRONG_CRC,
  DROP,
  CUT,
  WRONG_SECTION_LENGTH,
  WRONG_LOOP_LENGTH,
  WRONG_VERSION,
  WRONG_BYTES,
  CURRENT_NEXT_0,
  OTHER_PID,
  DUPLICATE_SECTION,
  DUPLICATE_PACKET,
  LOSE_PACKET,
  DISCONTINUITY,
  TRANSPORT_ERROR,
};

struct Fault {
  Fault_kind kind = DROP;
  std::array<bool, TABLE_KINDS> tables = {};
  std::optional<uint16_t> service_id;
  std::optional<uint16_t> transport_stream_id;
  std::optional<uint16_t> network_id;
  std::optional<uint8_t> section;
  double from = 0;
  double to = 1e9;
  uint64_t first = ~uint64_t{0};  // only so many transmissions of a section
  uint64_t every = 1;             // only each Nth
  int change = 1;                 // of a length
  unsigned loop = 0;              // 0: the table's first, 1: the first inner one, 2: the first descriptor
  unsigned value = 0;             // version, PID, bytes left, packet, packets left out
  size_t offset = 0;
  Bytes bytes;
  bool right_crc = false;
};

struct Description {
  int64_t now = 0;
  double duration = 30;
  uint64_t bit_rate = 0;
  uint16_t transport_stream_id = 0;
  uint16_t original_network_id = 0;
  uint16_t nit_pid = pid::NIT;
  bool nit_in_pat = true;
  std::array<bool, TABLE_KINDS> wanted = {};
  std::array<uint8_t, TABLE_KINDS> version = {};
  unsigned programs_per_section = 253;
  Intervals intervals;
  std::optional<Network> network;
  std::vector<Network> other_networks;
  std::vector<Service> services;
  std::vector<Other_stream> other_streams;
  std::optional<Descriptors> cat;
  Descriptors tot_descriptors;
  std::vector<Fault> faults;
};

// `machine_now` stands for "now" where the description does not fix it; `fixed_now` even where it does.
// Throws Description_error.
Description parse_description(const std::string& json, int64_t machine_now,
                              std::optional<int64_t> fixed_now = std::nullopt);

// Parts of the above, one source each.
std::vector<Service> read_services(const Json_node& owner, const Text_defaults& defaults, const Description& all,
                                   bool actual);
std::vector<Event> read_events(const Json_node& service, const Text_defaults& defaults, int64_t now);
std::vector<Fault> read_faults(const Json_node& owner);

}  // namespace softdvb_mux
