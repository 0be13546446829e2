// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/scan/same_multiplex.h"

#include "support/test.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Notes = std::map<int, std::string>;

constexpr int A = 506'000'000;
constexpr int B = 522'000'000;
constexpr int C = 690'000'000;

Service service(int channel, int freq, int program, const char* name, int scan_state = 1, int stream = 7) {
  Service out;
  std::tie(out.channel, out.freq, out.program_number, out.scan_state) = std::tie(channel, freq, program, scan_state);
  out.original_network_id = 9;
  out.transport_stream_id = stream;
  out.name = name;
  return out;
}

Reception decibels(int freq, double snr, bool complete = true) {
  return {freq, true, complete, {SCALE_DECIBEL, snr}, {}};
}

Reception nothing(int freq) {
  return {freq, false, false, {}, {}};
}

const std::vector<Service> ON_A{service(1, A, 1, "One"), service(2, A, 2, "Two")};
const std::vector<Service> ON_B{service(3, B, 1, "One"), service(4, B, 2, "Two")};

std::vector<Service> both(std::vector<Service> services, const std::vector<Service>& more) {
  services.insert(services.end(), more.begin(), more.end());
  return services;
}

std::vector<Service> lost(std::vector<Service> services) {
  for (Service& one : services)
    one.scan_state = 0;
  return services;
}

TEST(Same_multiplex, the_better_reception_is_kept) {
  const std::vector<Service> all = both(ON_A, ON_B);
  const struct {
    const char* legend;
    std::vector<Service> before;
    std::vector<Service> after;
    std::vector<Reception> receptions;
    std::vector<int> doubles;
    Notes notes;
  } cases[] = {
      {"one frequency", {}, ON_A, {decibels(A, 20)}, {}, {}},
      {"A is better",
       {},
       all,
       {decibels(A, 20), decibels(B, 15)},
       {3, 4},
       {{B, "same multiplex as 506.000 MHz, weaker"}}},
      {"B is better",
       {},
       all,
       {decibels(A, 15), decibels(B, 20)},
       {1, 2},
       {{A, "same multiplex as 522.000 MHz, weaker"}}},
      {"B is better, though A was known",
       ON_A,
       all,
       {decibels(A, 15), decibels(B, 20)},
       {1, 2},
       {{A, "same multiplex as 522.000 MHz, weaker"}}},
      {"hardly better: the known one stays",
       ON_A,
       all,
       {decibels(A, 19.5), decibels(B, 20)},
       {3, 4},
       {{B, "same multiplex as 506.000 MHz"}}},
      {"hardly better: the known one stays, whichever it is",
       ON_B,
       all,
       {decibels(A, 20), decibels(B, 19.5)},
       {1, 2},
       {{A, "same multiplex as 522.000 MHz"}}},
      {"marked as lost is not known",
       both(ON_A, lost(ON_B)),
       all,
       {decibels(A, 20), decibels(B, 20.5)},
       {3, 4},
       {{B, "same multiplex as 506.000 MHz"}}},
      {"both known, alike",
       all,
       all,
       {decibels(A, 20), decibels(B, 20.5)},
       {3, 4},
       {{B, "same multiplex as 506.000 MHz"}}},
      {"all tables count more",
       {},
       all,
       {decibels(A, 25, false), decibels(B, 15)},
       {1, 2},
       {{A, "same multiplex as 522.000 MHz"}}},
      {"the strength decides where SNR does not",
       {},
       all,
       {{A, true, true, {SCALE_DECIBEL, 20}, {SCALE_DECIBEL, -70}},
        {B, true, true, {SCALE_DECIBEL, 20.2}, {SCALE_DECIBEL, -50}}},
       {1, 2},
       {{A, "same multiplex as 522.000 MHz, weaker"}}},
      {"readings of different scales are not compared",
       {},
       all,
       {{A, true, true, {SCALE_DECIBEL, 20}, {}}, {B, true, true, {SCALE_RELATIVE, 90}, {}}},
       {3, 4},
       {{B, "same multiplex as 506.000 MHz"}}},
      {"those of drivers are, roughly",
       {},
       all,
       {{A, true, true, {SCALE_DRIVER, 50000}, {}}, {B, true, true, {SCALE_DRIVER, 60000}, {}}},
       {1, 2},
       {{A, "same multiplex as 522.000 MHz, weaker"}}},
      {"no readings at all",
       {},
       all,
       {{A, true, true, {}, {}}, {B, true, true, {}, {}}},
       {3, 4},
       {{B, "same multiplex as 506.000 MHz"}}},
      {"three of them",
       {},
       both(all, {service(5, C, 1, "One"), service(6, C, 2, "Two")}),
       {decibels(A, 15), decibels(B, 20), decibels(C, 25)},
       {1, 2, 3, 4},
       {{A, "same multiplex as 690.000 MHz, weaker"}, {B, "same multiplex as 690.000 MHz, weaker"}}},
      {"lost there already", {}, both(ON_A, lost(ON_B)), {decibels(A, 20), decibels(B, 15)}, {}, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.legend);
    const Same_multiplex same = same_multiplexes(c.before, c.after, c.receptions);
    EXPECT_EQ(same.doubles, c.doubles);
    EXPECT_EQ(same.notes, c.notes);
  }
}

// Small broadcasters use ids that others use, too.
TEST(Same_multiplex, equal_ids_do_not_make_the_same_service) {
  const std::vector<Reception> receptions{decibels(A, 20), decibels(B, 15)};
  const auto run = [&](const std::vector<Service>& on_b) { return same_multiplexes({}, both(ON_A, on_b), receptions); };
  Same_multiplex same = run({service(3, B, 1, "Other"), service(4, B, 2, "Another")});
  EXPECT_THAT(same.doubles, IsEmpty());
  EXPECT_THAT(same.notes, IsEmpty());

  same = run({service(3, B, 1, "One", 1, 8), service(4, B, 2, "Two", 1, 8)});
  EXPECT_THAT(same.doubles, IsEmpty()) << "another stream";

  same = run({service(3, B, 1, "One"), service(4, B, 2, "Regional")});
  EXPECT_THAT(same.doubles, ElementsAre(3)) << "a regional variant keeps what only it has";
}

// What the better frequency named, but did not describe in time, is not lost with the weaker one.
TEST(Same_multiplex, a_service_that_was_not_found_replaces_nothing) {
  const std::vector<Service> after{service(1, A, 1, "One"), service(2, A, 2, "Two", 2), service(3, B, 1, "One"),
                                   service(4, B, 2, "Two")};
  EXPECT_THAT(same_multiplexes({}, after, {decibels(A, 20), decibels(B, 15)}).doubles, ElementsAre(3));
}

TEST(Same_multiplex, says_what_moved_and_what_vanished) {
  Same_multiplex same = same_multiplexes(ON_A, both(ON_A, ON_B), {nothing(A), decibels(B, 15)});
  EXPECT_THAT(same.doubles, ElementsAre(1, 2));
  EXPECT_EQ(same.notes, (Notes{{A, "moved to 522.000 MHz"}}));

  same = same_multiplexes(ON_A, ON_A, {nothing(A), nothing(B)});
  EXPECT_THAT(same.doubles, IsEmpty()) << "a thunderstorm is no reason to forget channels";
  EXPECT_EQ(same.notes, (Notes{{A, "had 2 services"}}));

  same = same_multiplexes({ON_A[0]}, {ON_A[0]}, {nothing(A)});
  EXPECT_EQ(same.notes, (Notes{{A, "had 1 service"}}));

  same = same_multiplexes(lost(ON_A), lost(ON_A), {nothing(A)});
  EXPECT_THAT(same.notes, IsEmpty()) << "it had none";
}

TEST(Same_multiplex, what_was_not_scanned_stays) {
  const Same_multiplex same = same_multiplexes(ON_A, both(ON_A, ON_B), {decibels(B, 15)});
  EXPECT_THAT(same.doubles, IsEmpty());
  EXPECT_EQ(same.notes, (Notes{{B, "same multiplex as 506.000 MHz, which was not scanned"}}));
}

}  // namespace
