// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/number_plan.h"

#include <algorithm>
#include <map>
#include <set>
#include <tuple>

namespace sdbl {

namespace {

using Ids = std::tuple<int, int, int>;

Ids ids_of(const Channel_row& row) {
  return {row.orig_network_id, row.tstream_id, row.pat_prnr};
}

// One whose PMT has never come is named by its multiplex all the same.
bool is_gone(const Channel_row& row) {
  return is_lost(row) && row.row_status != ROW_NEW;
}

struct Asking {
  Ids ids;
  int wished = NO_LCN;
  bool hidden = true;
  int kind = 2;
  bool has_it = false;
  int number = NO_LCN;  // that it has
  std::vector<Channel_row*> rows;

  auto order() const { return std::tuple(hidden, kind, !has_it, ids); }
};

// The wishes of services that are there, one for each service.
std::vector<Asking> all_wishes(std::vector<Channel_row>& rows) {
  std::map<Ids, Asking> by_ids;
  for (Channel_row& row : rows) {
    if (is_gone(row))
      continue;
    Asking& asking = by_ids[ids_of(row)];
    asking.ids = ids_of(row);
    asking.hidden = asking.hidden && row.detail.visible == 0;
    asking.kind = std::min(asking.kind, kind_of(row.serv_type));
    // Of several rows the oldest has the number.
    if (asking.rows.empty() || (row.channel != 0 && row.channel < asking.rows.front()->channel))
      asking.number = row.lcn;
    asking.rows.push_back(&row);
  }
  std::vector<Asking> all;
  for (auto& [ids, asking] : by_ids) {
    for (const Channel_row* row : asking.rows)
      if (const int wished = wished_number(rows, *row); wished != NO_LCN)
        asking.wished = wished;
    asking.has_it = asking.wished != NO_LCN && asking.number == asking.wished;
    all.push_back(std::move(asking));
  }
  std::stable_sort(all.begin(), all.end(), [](const Asking& a, const Asking& b) { return a.order() < b.order(); });
  return all;
}

int plain_or_hd(const Channel_row& row) {
  return row.detail.hd_lcn != NO_LCN ? row.detail.hd_lcn : row.detail.lcn;
}

}  // namespace

int kind_of(int serv_type) {
  switch (serv_type) {
    case 0x01:
    case 0x11:
    case 0x16:
    case 0x17:
    case 0x18:
    case 0x19:
    case 0x1A:
    case 0x1B:
    case 0x1C:
    case 0x1D:
    case 0x1E:
    case 0x1F:
    case 0x20:
      return 0;
    case 0x02:
    case 0x0A:
      return 1;
    default:
      return 2;
  }
}

int wished_number(const std::vector<Channel_row>& rows, const Channel_row& row) {
  if (is_gone(row))
    return NO_LCN;
  if (row.detail.hd_lcn == NO_LCN)
    return row.detail.lcn;
  const bool taken = std::any_of(rows.begin(), rows.end(), [&](const Channel_row& other) {
    return !is_gone(other) && ids_of(other) != ids_of(row) && plain_or_hd(other) == row.detail.hd_lcn;
  });
  return taken ? row.detail.lcn : row.detail.hd_lcn;
}

void plan_numbers(std::vector<Channel_row>& rows) {
  std::vector<Asking> all = all_wishes(rows);
  std::set<int> given;
  std::vector<Asking*> losers;
  const auto give = [&](const Asking& asking, int number) {
    given.insert(number);
    for (Channel_row* row : asking.rows)
      row->lcn = number;
  };
  for (Asking& asking : all) {
    if (asking.wished == NO_LCN)
      for (Channel_row* row : asking.rows)
        row->lcn = NO_LCN;
    else if (!given.contains(asking.wished))
      give(asking, asking.wished);
    else
      losers.push_back(&asking);
  }
  // Every number that somebody wishes is given by now.
  const auto is_free = [&](int number) { return !given.contains(number); };
  // Who has a number from an earlier clash goes first, or a newcomer would push it on.
  std::stable_partition(losers.begin(), losers.end(), [&](const Asking* asking) {
    return asking->number >= FIRST_FREE_NUMBER && asking->number != NO_LCN && is_free(asking->number);
  });
  for (const Asking* asking : losers) {
    int number = asking->number;
    if (number < FIRST_FREE_NUMBER || number == NO_LCN || !is_free(number))
      for (number = FIRST_FREE_NUMBER; !is_free(number);)
        ++number;
    give(*asking, number);
  }
}

}  // namespace sdbl
