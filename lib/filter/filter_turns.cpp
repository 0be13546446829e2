// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "filter/filter_turns.h"

#include <algorithm>
#include <utility>

#include "base/ids.h"

bool Filter_turns::has_turns(const dvb_filter_desc* f) {
  return f->filter[0] == table::PMT;
}

void Filter_turns::began(const dvb_filter_desc* f, int64_t now_ms) {
  if (on() && has_turns(f))
    turns_[f].since_ms = now_ms;
}

int64_t Filter_turns::listened_now_ms(const Turn& turn, int64_t now_ms) const {
  const int64_t this_turn = turn.since_ms == NEVER ? 0 : now_ms - std::max(turn.since_ms, life_ms_);
  return turn.listened_ms + std::max<int64_t>(this_turn, 0);
}

void Filter_turns::ended(const dvb_filter_desc* f, int64_t now_ms) {
  const auto at = turns_.find(f);
  if (at == turns_.end())
    return;
  at->second.listened_ms = listened_now_ms(at->second, now_ms);
  at->second.since_ms = NEVER;
}

void Filter_turns::exchange(const dvb_filter_desc* a, const dvb_filter_desc* b) {
  std::swap(turns_[a], turns_[b]);
}

void Filter_turns::note_sign_of_life(int64_t now_ms) {
  life_ms_ = now_ms;
  for (auto& [f, turn] : turns_)
    turn.listened_ms = 0;
}

bool Filter_turns::turn_is_over(const dvb_filter_desc* f, int64_t now_ms) const {
  const auto at = turns_.find(f);
  return at != turns_.end() && at->second.since_ms != NEVER && now_ms - at->second.since_ms >= turn_ms_;
}

bool Filter_turns::is_hopeless(const dvb_filter_desc* f, int64_t now_ms) const {
  const auto at = turns_.find(f);
  return at != turns_.end() && listened_now_ms(at->second, now_ms) >= patience_ms_;
}

int64_t Filter_turns::since_ms(const dvb_filter_desc* f) const {
  const auto at = turns_.find(f);
  return at == turns_.end() ? NEVER : at->second.since_ms;
}

int64_t Filter_turns::listened_ms(const dvb_filter_desc* f) const {
  const auto at = turns_.find(f);
  return at == turns_.end() ? 0 : at->second.listened_ms;
}
