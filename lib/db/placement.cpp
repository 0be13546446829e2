// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/placement.h"

#include <algorithm>
#include <utility>

namespace sdbl {

namespace {

constexpr size_t NONE = static_cast<size_t>(-1);
constexpr int STEP_HZ = 1000;  // beyond the numbers of pipes, which are added to a frequency as well

bool same_ids(const Channel_row& row, const Scanned_identity& service) {
  return row.pat_prnr == service.pat_prnr && row.orig_network_id == service.orig_network_id &&
         row.tstream_id == service.tstream_id;
}

}  // namespace

size_t Placement::find_here(int pat_prnr) const {
  for (size_t i = 0; i < rows_.size(); ++i)
    if (rows_[i].freq == freq_ && rows_[i].pat_prnr == pat_prnr)
      return i;
  return NONE;
}

bool Placement::exists_elsewhere(const Scanned_identity& service) const {
  return std::any_of(rows_.begin(), rows_.end(),
                     [&](const Channel_row& row) { return row.freq != freq_ && same_ids(row, service); });
}

bool Placement::is_same(const Channel_row& row, const Scanned_identity& service) const {
  if (same_ids(row, service))
    return true;
  if (service.orig_network_id < 0 || row.orig_network_id == 0 || service.name.empty() || row.serv_name.empty())
    return true;
  return row.serv_name == service.name && !exists_elsewhere(service);
}

// Of several with the same ids the oldest.
size_t Placement::find_moved(const Scanned_identity& service) const {
  if (service.orig_network_id < 0)
    return NONE;
  size_t by_ids = NONE;
  size_t by_name = NONE;
  int names = 0;
  for (size_t i = 0; i < rows_.size(); ++i) {
    const Channel_row& row = rows_[i];
    if (row.freq == freq_ || !is_lost(row) || row.channel == 0)
      continue;
    if (same_ids(row, service)) {
      if (by_ids == NONE || row.channel < rows_[by_ids].channel)
        by_ids = i;
    } else if (row.pat_prnr == service.pat_prnr && row.orig_network_id == service.orig_network_id &&
               row.serv_name == service.name && !service.name.empty()) {
      by_name = i;
      ++names;
    }
  }
  return by_ids != NONE ? by_ids : names == 1 && !exists_elsewhere(service) ? by_name : NONE;
}

void Placement::lose(size_t row) {
  Channel_row& its = rows_[row];
  newly_lost_ += is_lost(its) ? 0 : 1;
  its.scan_state = SERVICE_LOST;
  its.row_status = ROW_OLD;
  lost_.push_back(its.channel);
}

// `by` is the row that takes the place, if it has one.
void Placement::displace(size_t row, size_t by) {
  Channel_row& its = rows_[row];
  if (by != NONE) {
    its.freq = rows_[by].freq;
    its.detail.set_aside = rows_[by].detail.set_aside;
  } else {
    const auto taken = [&](int freq) {
      return std::any_of(rows_.begin(), rows_.end(), [&](const Channel_row& other) {
        return other.freq == freq && other.pat_prnr == its.pat_prnr;
      });
    };
    int freq = freq_;
    while (taken(freq))
      freq += STEP_HZ;
    its.freq = freq;
    its.detail.set_aside = 1;
  }
  lose(row);
}

size_t Placement::place(const Scanned_identity& service) {
  size_t row = find_here(service.pat_prnr);
  if (row == NONE || !is_same(rows_[row], service)) {
    const size_t there = row;
    row = find_moved(service);
    if (there != NONE)
      displace(there, row);
    if (row == NONE) {
      rows_.emplace_back();
      row = rows_.size() - 1;
      rows_[row].pat_prnr = service.pat_prnr;
    }
  }
  rows_[row].freq = freq_;
  rows_[row].detail.set_aside = 0;
  placed_.push_back(row);
  return row;
}

int Placement::lose_others() {
  for (size_t i = 0; i < rows_.size(); ++i)
    if (rows_[i].freq == freq_ && std::find(placed_.begin(), placed_.end(), i) == placed_.end() && !is_lost(rows_[i]))
      lose(i);
  return newly_lost_;
}

// A row that is there, has come later, and is the same service; NONE unless it is the only one.
size_t Placement::find_newer(const Channel_row& lost) const {
  size_t exact = NONE;
  size_t by_name = NONE;
  int names = 0;
  for (size_t i = 0; i < rows_.size(); ++i) {
    const Channel_row& row = rows_[i];
    if (is_lost(row) || row.channel <= lost.channel || row.pat_prnr != lost.pat_prnr ||
        row.orig_network_id != lost.orig_network_id || row.orig_network_id == 0)
      continue;
    if (row.tstream_id == lost.tstream_id) {
      if (exact == NONE || row.channel < rows_[exact].channel)
        exact = i;
    } else if (row.serv_name == lost.serv_name && !row.serv_name.empty()) {
      by_name = i;
      ++names;
    }
  }
  return exact != NONE ? exact : names == 1 ? by_name : NONE;
}

void Placement::leave(const std::vector<int>& freqs) {
  const auto left = [&](const Channel_row& row) {
    return std::find(freqs.begin(), freqs.end(), row.freq) != freqs.end();
  };
  for (size_t i = 0; i < rows_.size(); ++i) {
    if (!left(rows_[i]) || is_lost(rows_[i]))
      continue;
    const size_t newer = find_newer(rows_[i]);
    if (newer != NONE && !left(rows_[newer]))
      lose(i);
  }
}

void Placement::settle(std::vector<Exchange>* exchanged, std::vector<int>* dropped) {
  for (const int channel : std::exchange(lost_, {})) {
    const auto at = std::find_if(rows_.begin(), rows_.end(), [=](const auto& row) { return row.channel == channel; });
    if (at == rows_.end() || !is_lost(*at))
      continue;
    const size_t newer = find_newer(*at);
    if (newer == NONE)
      continue;
    exchanged->push_back({at->channel, rows_[newer].channel});
    std::swap(*at, rows_[newer]);
    std::swap(at->channel, rows_[newer].channel);
    if (rows_[newer].detail.set_aside == 0)
      continue;
    dropped->push_back(std::exchange(rows_[newer].channel, Channel_row::DROPPED));
  }
}

}  // namespace sdbl
