// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

// Events come section by section, now of one channel, now of the next.
struct Guide_slot {
  int channel;  // from 1 on
  int start;    // seconds since 1970
};

struct Guide_slots {
  int events_of_a_section;
  int channels;
  int first_start;
  int duration;  // seconds

  // The nth event, from 0 on.
  Guide_slot at(int n) const {
    const int section = n / events_of_a_section;
    const int event = section / channels * events_of_a_section + n % events_of_a_section;
    return {1 + section % channels, first_start + event * duration};
  }
};
