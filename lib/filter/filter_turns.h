// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <map>

#include "filter/dvb_filter_desc.h"
#include "filter/filter_options.h"

// How long filters of PMTs have had a handle; not installed. A PMT is sent several times a second, so that one which
// has not come within its turn may let another one listen, and one that does not come in many turns is not on air.
// Tables that are sent more seldom have no turns. Every moment is one of monotonic_ms(). Not locked.
class Filter_turns {
 public:
  void configure(const Filter_options& options) {
    turn_ms_ = options.pmt_turn_ms;
    patience_ms_ = options.pmt_patience_ms;
  }
  bool on() const { return turn_ms_ > 0; }
  static bool has_turns(const dvb_filter_desc* f);

  // `f` gets a handle, and has none any more.
  void began(const dvb_filter_desc* f, int64_t now_ms);
  void ended(const dvb_filter_desc* f, int64_t now_ms);
  // `f` is no filter any more, or another one.
  void forget(const dvb_filter_desc* f) { turns_.erase(f); }
  // The filters of two slots have changed places.
  void exchange(const dvb_filter_desc* a, const dvb_filter_desc* b);

  // A PMT has come whole, or one has come broken: reception is such that the others are waited for as long again.
  void note_sign_of_life(int64_t now_ms);

  // Whether a running `f` has had its turn, and whether it has listened for long enough.
  bool turn_is_over(const dvb_filter_desc* f, int64_t now_ms) const;
  bool is_hopeless(const dvb_filter_desc* f, int64_t now_ms) const;
  // When the turn of a running `f` began.
  int64_t since_ms(const dvb_filter_desc* f) const;
  // For how long it has had a handle before this turn; what has waited longest has the least.
  int64_t listened_ms(const dvb_filter_desc* f) const;

 private:
  static constexpr int64_t NEVER = -1;
  struct Turn {
    int64_t since_ms = NEVER;  // when the present turn began
    int64_t listened_ms = 0;   // in the turns before, since the last sign of life
  };
  int64_t listened_now_ms(const Turn& turn, int64_t now_ms) const;

  int turn_ms_ = 0;
  int patience_ms_ = 0;
  int64_t life_ms_ = 0;  // of the last sign
  std::map<const dvb_filter_desc*, Turn> turns_;
};
