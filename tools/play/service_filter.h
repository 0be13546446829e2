// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <bitset>
#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "tools/play/sections.h"

// Makes the stream of one service out of its multiplex. Written are
//   - a PAT that has this service alone, and of its PMT's PID the PMTs of this service alone;
//   - all that the PMT names, as it is: streams, clock, keys (with the CAT and what that names);
//   - of the SDT the service's entry, of the EIT its present and following events, TDT and TOT as they are.
// Nothing is written before the PAT and a PMT can stand at the beginning. A service that changes is followed. One
// thread.
class Service_filter {
 public:
  explicit Service_filter(int service_id);

  // The PIDs to be received now; another number of changed() says that they are others.
  const std::set<int>& wanted() const { return wanted_; }
  unsigned changed() const { return changed_; }

  // What stands for this packet in the service's stream is put behind `out`.
  void packet(const Transport_packet& packet, Continuity::Verdict verdict, Bytes* out);

  // Whether anything has been written, and else what is waited for: "PAT", "PMT".
  bool has_begun() const { return begun_; }
  std::string waits_for() const;
  // What has happened to the service since the last call, each in a line.
  std::vector<std::string> take_news();

 private:
  // What a PMT names.
  struct Program {
    int pcr_pid = Transport_packet::NULL_PID;
    std::set<int> streams;
    std::set<int> keys;  // ECM
    bool operator==(const Program&) const = default;
  };
  static std::optional<Program> program_of(std::span<const uint8_t> section);

  void read_pat(std::span<const uint8_t> section);
  void read_pmt(std::span<const uint8_t> section);
  void read_cat(std::span<const uint8_t> section);
  void read_sdt(std::span<const uint8_t> section);
  void read_eit(std::span<const uint8_t> section);
  void write_pat();
  void tell(std::string news);
  void follow();
  void tell_changes(const Program& program);

  int service_id_;
  std::set<int> wanted_;
  unsigned changed_ = 0;
  std::bitset<Transport_packet::PIDS> passed_;  // as they are
  std::vector<std::string> news_;
  bool begun_ = false;
  bool told_scrambled_ = false;
  Bytes* out_ = nullptr;  // during packet()

  // The multiplex's PAT, until its last section has come.
  std::optional<int> pat_version_;
  std::set<int> pat_sections_;
  bool in_pat_ = false;  // of what has come of this version

  int transport_stream_ = 0;
  int pmt_pid_ = -1;  // -1: not known, or the service is not sent
  Bytes pat_;         // as written
  int pat_number_ = 0;
  Bytes pmt_;
  std::optional<Program> program_;
  std::set<int> managements_;  // EMM
  Bytes sdt_entry_;
  int sdt_number_ = 0;

  Section_reader pat_reader_;
  Section_reader pmt_reader_;
  Section_reader cat_reader_;
  Section_reader sdt_reader_;
  Section_reader eit_reader_;
  Section_writer pat_writer_;
  Section_writer pmt_writer_;
  Section_writer sdt_writer_;
  Section_writer eit_writer_;
};
