// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <map>
#include <string>
#include <vector>

#include "support/support.h"

// Decoders for generated streams that share nothing with the maker: packets and sections by hand, tables and
// descriptors by libdvbpsi.
namespace mux_support {

using support::Bytes;

// 2026-03-01T18:00:00Z, a Sunday.
inline constexpr int64_t NOW = 1772388000;

struct Packet {
  bool transport_error = false;
  bool start = false;
  bool has_payload = false;
  bool discontinuity = false;
  bool has_pcr = false;
  uint64_t pcr = 0;  // 27 MHz
  uint16_t pid = 0;
  uint8_t counter = 0;
  Bytes payload;
};
// Fails the test where a packet has no sync byte or a wrong adaptation field.
std::vector<Packet> packets_of(const Bytes& stream);

struct Section_seen {
  uint16_t pid = 0;
  Bytes bytes;
  size_t packet = 0;  // index of the packet that completed it
  bool crc_right() const;
  unsigned table_id() const { return bytes.at(0); }
  unsigned extension() const { return static_cast<unsigned>(bytes.at(3) << 8 | bytes.at(4)); }
  unsigned version() const { return bytes.at(5) >> 1 & 31; }
  unsigned number() const { return bytes.at(6); }
  // The digits of `size` bytes.
  std::string hex(size_t from, size_t size) const;
};
// Whole sections in the order in which they end. A counter that jumps or an error packet loses the section under way.
std::vector<Section_seen> sections_of(const Bytes& stream);
std::vector<Section_seen> sections_of(const Bytes& stream, uint16_t pid, unsigned table_id);

// What libdvbpsi makes of the stream, as text, one line a table in the order of their first coming:
//   PAT ts 1 v0: 0>16 101>256
//   PMT 101 v0 pcr 257 {}: 0x02@257 {52[01]} 0x04@258 {0a[65737400]}
//   NIT 0x40 net 5 v0 {40[6e]}: 1/2 {..}
//   SDT 0x42 ts 1 net 5 v0: 101 schedule 1 pf 1 running 4 ca 0 {48[..]}
//   EIT 0x4e 101 ts 1 net 5 v0: 1 eeac180000 003000 running 4 ca 0 {4d[..]}
//   CAT v0 {09[..]}
//   TOT 0x73 eeac180000 {58[..]}
std::vector<std::string> tables_by_libdvbpsi(const Bytes& stream, const std::vector<uint16_t>& pmt_pids = {});
// The lines that begin with `prefix`.
std::vector<std::string> lines_with(const std::vector<std::string>& lines, const std::string& prefix);

std::string hex(const Bytes& bytes);
Bytes unhex(const std::string& text);

// A description with one service (101, PMT on 256) and this text of further keys in the whole: ", \"key\": value".
std::string one_service(const std::string& service_keys = "", const std::string& whole_keys = "");
// The stream of a description at NOW.
Bytes stream_of(const std::string& json);

}  // namespace mux_support
