// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <vector>

#include "base/ids.h"
#include "si/network_found.h"

class ProgramAssociationSection;
class ServiceDescriptionSection;

// Which parts of PAT, SDT and PMTs one scan has read and still waits for, where a profile reads them whole; not
// installed. Worker-only.
class Whole_tables {
 public:
  struct Programme {
    int number;
    int pmt_pid;
    bool operator==(const Programme&) const = default;
  };

  // A scan begins: nothing has come.
  void begin() { *this = {}; }

  // --- PAT (ISO/IEC 13818-1, 2.4.4.3) ---

  // Notes a section; true when it was the last one that was waited for. Sections of another version or transport stream
  // begin anew. Programmes that nobody can receive (number 0, a PMT on a reserved PID or on that of null packets) and
  // those that are named again are left out, and so are those above MOST_PROGRAMMES.
  bool pat(const ProgramAssociationSection& section);
  int transport_stream_id() const { return transport_stream_id_; }
  // In the order of the sections' numbers.
  std::vector<Programme> programmes() const;
  // That of the NIT: what the PAT says, where a NIT may be.
  int network_pid() const { return network_pid_; }

  static constexpr size_t MOST_PROGRAMMES = 1024;

  // --- SDT ---

  // Notes a section; true when it is new. One of another transport stream than the first never is.
  bool sdt(const ServiceDescriptionSection& section);
  bool sdt_is_complete() const { return sdt_.complete(); }

  // --- PMTs: several may come on one PID ---

  // True when nothing was waited for on this PID before, so that it needs a filter.
  bool await_pmt(const Programme& programme);
  // True when it was waited for; it is not any more then.
  bool pmt(int pid, int number);
  bool awaits_pmt_on(int pid) const { return pmts_.contains(pid); }
  std::vector<int> awaited_on(int pid) const;

 private:
  int transport_stream_id_ = -1;
  int network_pid_ = pid::NIT;
  Sections_seen pat_;
  std::map<int, std::vector<Programme>> programmes_;  // by section number
  size_t programme_count_ = 0;
  Sections_seen sdt_;
  int sdt_of_ = -1;                    // its transport stream
  std::map<int, std::set<int>> pmts_;  // numbers by PID
};
