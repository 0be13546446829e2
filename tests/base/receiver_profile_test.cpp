// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The two profiles, switch by switch.
#include "kelvo/receiver_profile.h"

#include "support/test.h"

namespace {

std::string text(const Receiver_profile& p) {
  std::ostringstream out;
  out << "frontend " << static_cast<int>(p.frontend) << ", start " << p.tune_at_start << ", tuning "
      << static_cast<int>(p.tuning) << ", lock " << static_cast<int>(p.lock) << ", search " << p.search << ", offset "
      << p.offset_hz << ", key " << static_cast<int>(p.key) << ", remember " << p.remember_tunings << ", readings "
      << static_cast<int>(p.readings) << ", buffer " << p.demux_buffer << ", repeat " << p.repeat_lost << ", nit "
      << p.whole_nit << ", device " << p.watch_device << ", again " << p.set_filters_again << ", texts "
      << static_cast<int>(p.texts) << p.charset << ", tables " << p.whole_tables << ", turns " << p.pmt_turns
      << ", watch " << p.watch_tables << ", others " << p.other_networks << ", numbers "
      << static_cast<int>(p.channel_numbers) << ", streams " << p.name_streams << ", refresh " << p.refresh
      << ", guide " << static_cast<int>(p.guide) << ", other guides " << p.other_guides << ", country "
      << static_cast<int>(p.zone_country) << p.country << ", clock " << p.set_clock << ", zone " << p.set_zone;
  return out.str();
}

std::string text(const Receiver_profile::Lock_times& t) {
  std::ostringstream out;
  out << t.silent_t << " " << t.silent_t_of_both << " " << t.silent_t2 << " " << t.signal_t << " " << t.signal_t2 << " "
      << t.first_pat;
  return out.str();
}

}  // namespace

TEST(Receiver_profile_test, box_is_what_a_host_without_one_gets) {
  EXPECT_EQ(text(Receiver_profile::box()), text(Receiver_profile{}));
  EXPECT_EQ(
      text(Receiver_profile::box()),
      "frontend 0, start 1, tuning 0, lock 0, search 0, offset 166667, key 0, remember 0, readings 0, buffer 0, "
      "repeat 0, nit 0, device 0, again 0, texts 0, tables 0, turns 0, watch 0, others 0, numbers 0, streams 0, refresh 0, guide 0, "
      "other guides 0, country 0, clock 1, zone 1");
}

TEST(Receiver_profile_test, any_linux_switches_everything) {
  EXPECT_EQ(
      text(Receiver_profile::any_linux()),
      "frontend 1, start 0, tuning 1, lock 1, search 1, offset 166667, key 1, remember 1, readings 1, buffer "
      "262144, repeat 1, nit 1, device 1, again 1, texts 1, tables 1, turns 1, watch 1, others 0, numbers 1, streams 1, refresh 1, "
      "guide 1, other guides 0, country 1, clock 0, zone 0");
  EXPECT_EQ(text(Receiver_profile::any_linux().lock_times), "2000 1200 2000 3000 4000 3000");
}
