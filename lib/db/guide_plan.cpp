// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/guide_plan.h"

#include <algorithm>
#include <limits>
#include <unordered_map>

namespace sdbl {

namespace {

constexpr int NONE = -1;
constexpr int SEVERAL = -2;

int64_t end_of(const Guide_row& row) {
  return int64_t{row.start} + row.duration;
}

bool is_over(const Guide_row& row, int now) {
  return end_of(row) <= now;
}

// The only one of each id among those that `counts` accepts.
template <typename List, typename Counts>
std::unordered_map<int, int> places_by_id(const List& list, Counts counts) {
  std::unordered_map<int, int> places;
  for (size_t i = 0; i < list.size(); ++i) {
    if (!counts(i))
      continue;
    const auto [at, is_new] = places.emplace(list[i].ev_id, static_cast<int>(i));
    if (!is_new)
      at->second = SEVERAL;
  }
  return places;
}

bool differs(const Guide_row& row, const Guide_wish& wish) {
  return row.ev_id != wish.ev_id || row.start != wish.start || row.duration != wish.duration ||
         row.digest != wish.digest;
}

}  // namespace

Guide_plan plan_guide(const std::vector<Guide_row>& rows, const std::vector<Guide_wish>& wishes, int now,
                      bool complete) {
  Guide_plan plan{std::vector<int>(wishes.size(), NONE), std::vector<bool>(wishes.size(), true), {}};
  std::vector<bool> taken(rows.size(), false);
  const auto give = [&](size_t wish, size_t row) {
    plan.row_of[wish] = static_cast<int>(row);
    taken[row] = true;
  };
  const auto at_start = [&](size_t wish) {
    const auto at = std::lower_bound(rows.begin(), rows.end(), wishes[wish].start,
                                     [](const Guide_row& row, int start) { return row.start < start; });
    const bool found = at != rows.end() && at->start == wishes[wish].start;
    return found ? static_cast<int>(at - rows.begin()) : NONE;
  };

  bool any_left = false;
  for (size_t i = 0; i < wishes.size(); ++i) {
    const int row = at_start(i);
    if (row != NONE && rows[static_cast<size_t>(row)].ev_id == wishes[i].ev_id)
      give(i, static_cast<size_t>(row));
    else
      any_left = true;
  }
  if (any_left) {
    const auto free_wishes = places_by_id(wishes, [&](size_t i) { return plan.row_of[i] == NONE; });
    const auto free_rows = places_by_id(rows, [&](size_t i) { return !taken[i] && !is_over(rows[i], now); });
    for (const auto& [id, wish] : free_wishes) {
      const auto row = free_rows.find(id);
      if (wish != SEVERAL && row != free_rows.end() && row->second != SEVERAL)
        give(static_cast<size_t>(wish), static_cast<size_t>(row->second));
    }
    for (size_t i = 0; i < wishes.size(); ++i) {
      const int row = plan.row_of[i] == NONE ? at_start(i) : NONE;
      if (row != NONE && !taken[static_cast<size_t>(row)])
        give(i, static_cast<size_t>(row));
    }
  }
  for (size_t i = 0; i < wishes.size(); ++i)
    if (plan.row_of[i] != NONE)
      plan.to_write[i] = differs(rows[static_cast<size_t>(plan.row_of[i])], wishes[i]);

  std::vector<int64_t> latest_end(wishes.size());  // of all wishes up to this one
  int64_t latest = std::numeric_limits<int64_t>::min();
  for (size_t i = 0; i < wishes.size(); ++i) {
    latest = std::max(latest, int64_t{wishes[i].start} + wishes[i].duration);
    latest_end[i] = latest;
  }
  const auto overlaps = [&](const Guide_row& row) {
    const auto at = std::lower_bound(wishes.begin(), wishes.end(), row.start,
                                     [](const Guide_wish& wish, int start) { return wish.start < start; });
    if (at != wishes.end() && (at->start == row.start || at->start < end_of(row)))
      return true;
    return at != wishes.begin() && latest_end[static_cast<size_t>(at - wishes.begin()) - 1] > row.start;
  };
  for (size_t i = 0; i < rows.size(); ++i)
    if (!taken[i] && (overlaps(rows[i]) || (!is_over(rows[i], now) && (rows[i].confirmed || complete))))
      plan.removed.push_back(i);
  return plan;
}

}  // namespace sdbl
