// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "si/whole_tables.h"

#include <algorithm>

#include <dvbsi++/program_association_section.h>
#include <dvbsi++/service_description_section.h>

#include "base/log.h"

namespace {

bool carries_tables(int pid) {
  return pid > pid::LAST_RESERVED && pid < pid::LAST;
}

}  // namespace

bool Whole_tables::pat(const ProgramAssociationSection& section) {
  const int ts_id = section.getTableIdExtension();
  if (ts_id != transport_stream_id_)
    pat_ = {};
  transport_stream_id_ = ts_id;
  const int number = section.getSectionNumber();
  const bool is_new = pat_.arrived(section.getVersionNumber(), number, section.getLastSectionNumber());
  // The first section of a version; whatever came before is of another one.
  if (is_new && pat_.count() == 1) {
    programmes_.clear();
    programme_count_ = 0;
    network_pid_ = pid::NIT;
  }
  if (!is_new)
    return pat_.complete();
  for (const NetworkAssociation* network : *section.getNetworks())
    if (carries_tables(network->getNetworkPid()))
      network_pid_ = network->getNetworkPid();
  for (const ProgramAssociation* association : *section.getPrograms()) {
    const Programme programme{association->getProgramNumber(), association->getProgramMapPid()};
    if (programme.number == 0 || !carries_tables(programme.pmt_pid)) {
      KLOG(VERB_WARNING, "WARNING: The PAT has program %d on PID %d, which is left out\n", programme.number,
           programme.pmt_pid);
      continue;
    }
    if (programme_count_ == MOST_PROGRAMMES) {
      KLOG(VERB_WARNING, "WARNING: The PAT has more than %d programs\n", static_cast<int>(MOST_PROGRAMMES));
      break;
    }
    programmes_[number].push_back(programme);
    ++programme_count_;
  }
  return pat_.complete();
}

std::vector<Whole_tables::Programme> Whole_tables::programmes() const {
  std::vector<Programme> all;
  std::set<int> known;
  for (const auto& [section, programmes] : programmes_)
    for (const Programme& programme : programmes)
      if (known.insert(programme.number).second)
        all.push_back(programme);
  return all;
}

bool Whole_tables::sdt(const ServiceDescriptionSection& section) {
  const int ts_id = section.getTransportStreamId();
  if (sdt_of_ == -1)
    sdt_of_ = ts_id;
  return ts_id == sdt_of_ &&
         sdt_.arrived(section.getVersionNumber(), section.getSectionNumber(), section.getLastSectionNumber());
}

bool Whole_tables::await_pmt(const Programme& programme) {
  std::set<int>& numbers = pmts_[programme.pmt_pid];
  numbers.insert(programme.number);
  return numbers.size() == 1;
}

bool Whole_tables::pmt(int pid, int number) {
  const auto at = pmts_.find(pid);
  if (at == pmts_.end() || at->second.erase(number) == 0)
    return false;
  if (at->second.empty())
    pmts_.erase(at);
  return true;
}

std::vector<int> Whole_tables::awaited_on(int pid) const {
  const auto at = pmts_.find(pid);
  return at != pmts_.end() ? std::vector<int>(at->second.begin(), at->second.end()) : std::vector<int>{};
}
