// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// How a frequency is searched: which attempts, in which order.
#include "tuner/search_plan.h"

#include "support/test.h"
#include "support/text.h"

using support::Texts;

namespace {

constexpr int FREQ = 506000000;
const std::vector<int> T{SYS_DVBT};
const std::vector<int> BOTH{SYS_DVBT, SYS_DVBT2};

// "T 506000000 8000000", with " pipe 3" and " stored" where they are.
std::string text(const Attempt& attempt) {
  std::string out = attempt.system == SYS_DVBT2 ? "T2" : attempt.system == SYS_DVBT ? "T" : "?";
  out += " " + std::to_string(attempt.freq) + " " + std::to_string(attempt.bandwidth_hz);
  if (attempt.pipe >= 0)
    out += " pipe " + std::to_string(attempt.pipe);
  return out + (attempt.stored ? " stored" : "");
}

Texts texts(const std::vector<Attempt>& attempts) {
  Texts out;
  for (const Attempt& attempt : attempts)
    out.push_back(text(attempt));
  return out;
}

Receiver_profile without_offsets() {
  Receiver_profile profile = Receiver_profile::any_linux();
  profile.offset_hz = 0;
  return profile;
}

struct Order_case {
  const char* legend;
  Tuning_request request;
  Known_tuning known;
  Texts expected;
};

Known_tuning known(std::vector<int> systems, int last = 0, int stored = 0, int pipe = -1, int bandwidth = 0,
                   int offset = 0) {
  Known_tuning out;
  out.systems = std::move(systems);
  out.last_system = last;
  out.stored_system = stored;
  out.stored_pipe = pipe;
  out.stored_bandwidth_hz = bandwidth;
  out.stored_offset_hz = offset;
  return out;
}

Tuning_request request(int freq, int system = 0, int bandwidth = 0, int pipe = -1) {
  Tuning_request out;
  out.freq = freq;
  out.system = system;
  out.bandwidth_hz = bandwidth;
  out.pipe = pipe;
  return out;
}

}  // namespace

TEST(Search_plan_of_any_linux, tries_systems_in_the_order_of_what_is_known) {
  const Order_case cases[] = {
      {"a frontend for T only", request(FREQ), known(T), {"T 506000000 8000000"}},
      {"nothing known of the frontend", request(FREQ), known({}), {"T 506000000 8000000"}},
      {"both", request(FREQ), known(BOTH), {"T 506000000 8000000", "T2 506000000 8000000"}},
      {"T2 first in the driver's order",
       request(FREQ),
       known({SYS_DVBT2, SYS_DVBT}),
       {"T 506000000 8000000", "T2 506000000 8000000"}},
      {"T2 locked last", request(FREQ), known(BOTH, SYS_DVBT2), {"T2 506000000 8000000", "T 506000000 8000000"}},
      {"stored before last",
       request(FREQ),
       known(BOTH, SYS_DVBT2, SYS_DVBT),
       {"T 506000000 8000000", "T2 506000000 8000000"}},
      {"stored for T2, on a frontend that only does T", request(FREQ), known(T, 0, SYS_DVBT2), {"T 506000000 8000000"}},
      {"a stored system that is none of them",
       request(FREQ),
       known(BOTH, 0, SYS_DVBC_ANNEX_A),
       {"T 506000000 8000000", "T2 506000000 8000000"}},
      {"asked for one", request(FREQ, SYS_DVBT2), known(BOTH, SYS_DVBT, SYS_DVBT), {"T2 506000000 8000000"}},
      {"a frontend for neither", request(FREQ), known({SYS_DVBT2, SYS_DVBT2}), {"T2 506000000 8000000"}},
      {"VHF below 300 MHz", request(299999999), known(T), {"T 299999999 7000000"}},
      {"and from there", request(300000000), known(T), {"T 300000000 8000000"}},
      {"a bandwidth asked for", request(FREQ, 0, 1712000), known(T), {"T 506000000 1712000"}},
      {"a stored one", request(FREQ), known(T, 0, SYS_DVBT, -1, 6000000), {"T 506000000 6000000"}},
      {"asked for before stored",
       request(FREQ, 0, 5000000),
       known(T, 0, SYS_DVBT, -1, 6000000),
       {"T 506000000 5000000"}},
      {"a pipe asked for", request(FREQ, SYS_DVBT2, 0, 7), known(BOTH), {"T2 506000000 8000000 pipe 7"}},
      {"a stored pipe, then any",
       request(FREQ),
       known(BOTH, 0, SYS_DVBT2, 2),
       {"T2 506000000 8000000 pipe 2", "T2 506000000 8000000", "T 506000000 8000000"}},
  };
  for (const Order_case& c : cases) {
    SCOPED_TRACE(c.legend);
    const Search_plan plan = make_search_plan(without_offsets(), c.request, c.known);
    EXPECT_EQ(texts(plan.attempts), c.expected);
    EXPECT_EQ(texts(plan.second), Texts());
  }
}

TEST(Search_plan_of_any_linux, looks_beside_the_centre_afterwards) {
  const Search_plan plan = make_search_plan(Receiver_profile::any_linux(), request(FREQ), known(BOTH));
  EXPECT_EQ(texts(plan.attempts), (Texts{"T 506000000 8000000", "T2 506000000 8000000"}));
  EXPECT_EQ(texts(plan.second),
            (Texts{"T 506166667 8000000", "T 505833333 8000000", "T2 506166667 8000000", "T2 505833333 8000000"}));
}

TEST(Search_plan_of_any_linux, begins_beside_the_centre_where_it_was_found_there) {
  const auto first = [](int offset) {
    return texts(
        make_search_plan(Receiver_profile::any_linux(), request(FREQ), known(T, 0, SYS_DVBT, -1, 0, offset)).attempts);
  };
  EXPECT_EQ(first(166667), (Texts{"T 506166667 8000000", "T 506000000 8000000"}));
  EXPECT_EQ(first(-125000), (Texts{"T 505875000 8000000", "T 506000000 8000000"}));
  EXPECT_EQ(first(0), (Texts{"T 506000000 8000000"}));
}

TEST(Search_plan_of_any_linux, keeps_the_networks_parameters_for_a_second_try) {
  Known_tuning announced = known(BOTH);
  announced.nit = dvb_frontend_parameters{};
  const Search_plan plan = make_search_plan(without_offsets(), request(FREQ), announced);
  EXPECT_EQ(texts(plan.attempts), (Texts{"T 506000000 8000000", "T2 506000000 8000000"}));
  EXPECT_EQ(texts(plan.second), (Texts{"T 506000000 8000000 stored"}));
}

TEST(Search_plan_of_any_linux, waits_for_a_pat_as_long_as_the_profile_or_the_request_says) {
  const Receiver_profile profile = Receiver_profile::any_linux();
  Tuning_request one = request(FREQ);
  EXPECT_EQ(make_search_plan(profile, one, known(T)).first_pat_ms, 3000);
  one.first_pat_ms = 7000;
  EXPECT_EQ(make_search_plan(profile, one, known(T)).first_pat_ms, 7000);
  one.first_pat_ms = 60000;
  EXPECT_EQ(make_search_plan(profile, one, known(T)).first_pat_ms, 10000);
}

TEST(Search_plan_of_any_linux, tries_pipes_unless_one_is_asked_for) {
  const Receiver_profile profile = Receiver_profile::any_linux();
  EXPECT_TRUE(make_search_plan(profile, request(FREQ), known(BOTH)).pipes);
  EXPECT_FALSE(make_search_plan(profile, request(FREQ, SYS_DVBT2, 0, 1), known(BOTH)).pipes);
}

// The box's way, whatever is known besides the network's parameters.
TEST(Search_plan_of_the_box, is_one_attempt_with_the_stored_parameters) {
  const Receiver_profile box = Receiver_profile::box();
  Known_tuning announced = known(BOTH, SYS_DVBT2, 0);
  announced.nit = dvb_frontend_parameters{};
  announced.systems = {SYS_DVBT};
  for (const auto& [freq, expected] : std::vector<std::pair<int, std::string>>{
           {FREQ, "T 506000000 8000000 stored"},
           {399999999, "T 399999999 7000000 stored"},
           {400000000, "T 400000000 8000000 stored"},
           {-1, "T -1 8000000 stored"},  // 4294967295 Hz to the driver
       }) {
    const Search_plan plan = make_search_plan(box, request(freq), announced);
    EXPECT_EQ(texts(plan.attempts), Texts{expected});
    EXPECT_EQ(texts(plan.second), Texts());
    EXPECT_EQ(plan.first_pat_ms, 0);
    EXPECT_FALSE(plan.pipes);
    EXPECT_FALSE(plan.read_back);
  }
}
