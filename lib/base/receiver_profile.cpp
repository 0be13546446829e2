// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "base/receiver_profile.h"

Receiver_profile Receiver_profile::box() {
  return {};
}

Receiver_profile Receiver_profile::any_linux() {
  Receiver_profile profile;
  profile.frontend = Frontend::BEST;
  profile.tune_at_start = false;
  profile.tuning = Tuning::PROPERTIES;
  profile.lock = Lock::STATUS;
  profile.search = true;
  profile.key = Key::ASKED;
  profile.remember_tunings = true;
  profile.readings = Readings::STATISTICS;
  profile.demux_buffer = 256 * 1024;
  profile.repeat_lost = true;
  profile.whole_nit = true;
  profile.watch_device = true;
  profile.set_filters_again = true;
  profile.texts = Texts::STANDARD;
  profile.whole_tables = true;
  profile.pmt_turns = true;
  profile.watch_tables = true;
  profile.channel_numbers = Channel_numbers::ALL;
  profile.name_streams = true;
  profile.refresh = true;
  profile.guide = Guide::WHOLE;
  profile.zone_country = Zone_country::COUNTRY;
  profile.set_clock = false;
  profile.set_zone = false;
  return profile;
}
