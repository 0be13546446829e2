// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/frequencies/follow_queue.h"

#include <linux/dvb/frontend.h>

#include "support/test.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

Tuning_request asked(int freq, int pipe = -1) {
  Tuning_request out;
  std::tie(out.freq, out.pipe) = std::tie(freq, pipe);
  return out;
}

Announced_multiplex t(int freq, int bandwidth_hz = 8'000'000) {
  return {1, 1, SYS_DVBT, freq, bandwidth_hz, -1};
}

Announced_multiplex t2(int freq, int pipe, int transport_stream_id = 1) {
  return {1, transport_stream_id, SYS_DVBT2, freq, 8'000'000, pipe};
}

std::vector<std::string> texts_of(const std::vector<Tuning_request>& requests) {
  std::vector<std::string> out;
  for (const Tuning_request& request : requests)
    out.push_back(std::to_string(request.freq) + "/" + std::to_string(request.bandwidth_hz) +
                  (request.system == SYS_DVBT ? " T" : " T2 pipe " + std::to_string(request.pipe)));
  return out;
}

TEST(Follow_queue, adds_what_is_new) {
  const struct {
    const char* legend;
    std::vector<Tuning_request> asked;
    std::vector<Announced_multiplex> list;
    std::vector<std::string> added;
  } cases[] = {
      {"nothing", {asked(506000000)}, {}, {}},
      {"another frequency", {asked(506000000)}, {t(514000000)}, {"514000000/8000000 T"}},
      {"itself", {asked(506000000)}, {t(506000000)}, {}},
      {"itself, beside its channel", {asked(506000000)}, {t(506166667), t(505500000)}, {}},
      {"just far enough", {asked(506000000)}, {t(506500001)}, {"506500001/8000000 T"}},
      {"one name twice", {asked(506000000)}, {t(514000000), t(514166667)}, {"514000000/8000000 T"}},
      {"T2",
       {asked(506000000)},
       {t2(514000000, 0), t2(522000000, 2)},
       {"514000000/8000000 T2 pipe 0", "522000000/8000000 T2 pipe 2"}},
      {"a pipe of a known frequency",
       {asked(506000000)},
       {t2(506000000, 0), t2(506000000, 1), t2(506000000, 1)},
       {"506000000/8000000 T2 pipe 1"}},
      {"that pipe was asked for", {asked(506000000, 1)}, {t2(506000000, 1)}, {}},
      {"T on an asked T2 frequency", {asked(506000000, 1)}, {t(506000000)}, {}},
      {"no width, and one that is none", {}, {t(506000000, 0), t(514000000, 8)}, {"506000000/0 T", "514000000/0 T"}},
      {"nonsense",
       {},
       {t(0),
        t(-5),
        t(29999999),
        t(1000000001),
        t(2147483647),
        t2(506000000, 256),
        t2(506000000, -2),
        {1, 1, SYS_DVBC_ANNEX_A, 506000000, 8000000, -1},
        {1, 1, 99, 506000000, 0, -1}},
       {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.legend);
    Follow_queue queue(c.asked);
    EXPECT_EQ(texts_of(queue.announced(506000000, -1, -1, c.list)), c.added);
  }
}

TEST(Follow_queue, visits_nothing_twice_and_knows_where_it_came_from) {
  Follow_queue queue({asked(506000000)});
  EXPECT_THAT(texts_of(queue.announced(506000000, 1, 1, {t(514000000)})), ElementsAre("514000000/8000000 T"));
  EXPECT_THAT(texts_of(queue.announced(514000000, 1, 2, {t(506000000), t(514000000), t(522000000)})),
              ElementsAre("522000000/8000000 T"));
  EXPECT_THAT(queue.announced(522000000, 1, 3, {t(506000000), t(514000000), t(522000000)}), IsEmpty());
  EXPECT_EQ(queue.announced_by(506000000), 0);
  EXPECT_EQ(queue.announced_by(514000000), 506000000);
  EXPECT_EQ(queue.announced_by(522000000), 514000000);
}

// A frequency with one pipe only, whose number is not 0: a visit without a pipe has found it already.
TEST(Follow_queue, a_pipe_whose_stream_was_found_there_is_no_other_one) {
  Follow_queue queue({asked(506000000)});
  EXPECT_THAT(queue.announced(506000000, 1, 7, {t2(506000000, 1, 7)}), IsEmpty());
  EXPECT_THAT(texts_of(queue.announced(506000000, 1, 7, {t2(506000000, 2, 8)})),
              ElementsAre("506000000/8000000 T2 pipe 2"));
  EXPECT_EQ(queue.announced_by(506000002), 506000000);
  // The same stream from another transmitter is another frequency.
  EXPECT_THAT(texts_of(queue.announced(506000000, 1, 7, {t2(514000000, 1, 7)})),
              ElementsAre("514000000/8000000 T2 pipe 1"));
}

// A broken NIT must not keep a receiver busy for days.
TEST(Follow_queue, takes_no_more_than_any_country_has) {
  Follow_queue queue({asked(506000000)});
  std::vector<Announced_multiplex> list;
  for (int freq = 30'000'000; freq <= 1'000'000'000; freq += 1'000'000)
    list.push_back(t(freq));
  EXPECT_EQ(queue.announced(506000000, 1, 1, list).size(), 100U);
  EXPECT_THAT(queue.announced(31000000, 1, 2, list), IsEmpty());
}

}  // namespace
