// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/device_support.h"

// The launcher's options are part of these tests, so an inner program (listen) does the work under it.
using support::run_softdvb;
using support::Softdvb_run;

static std::string counting(int packet_size = 188) {
  return std::string(SOFTDVB_STREAMS) + "/counting." + std::to_string(packet_size) + ".ts";
}

static std::vector<std::string> with_stream(std::vector<std::string> options, int packet_size = 188) {
  options.insert(options.end(), {"--mux", "506000000=" + counting(packet_size)});
  return options;
}

// Runs `listen` with its arguments; it prints the extensions of the sections that it read, one after the other.
static Softdvb_run listen(const std::vector<std::string>& options, std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), SOFTDVB_LISTEN);
  return run_softdvb(options, arguments);
}

static std::string numbers(int from, int to) {
  std::string text;
  for (int i = from; i < to; ++i)
    text += std::to_string(i) + " ";
  return text;
}

// The first number of a list, 20 for an empty one.
static int first_of(const std::string& list) {
  return list.empty() ? 20 : std::stoi(list);
}

class Packet_size : public testing::TestWithParam<int> {};

TEST_P(Packet_size, is_detected) {
  const Softdvb_run run = listen(with_stream({"--pace", "fast", "--once"}, GetParam()), {"tune=506000000", "wait=300"});
  EXPECT_EQ(run.out, numbers(0, 20)) << run.err;
}

INSTANTIATE_TEST_SUITE_P(All, Packet_size, testing::Values(188, 192, 204));

using Words = std::vector<std::string>;

struct Play {
  const char* name;
  Words options;
  Words arguments;
  std::string heard;
};

class Player : public testing::TestWithParam<Play> {};

TEST_P(Player, is_heard) {
  Words arguments = GetParam().arguments;
  arguments.insert(arguments.begin(), "tune=506000000");
  const Softdvb_run run = listen(with_stream(GetParam().options), arguments);
  EXPECT_EQ(run.out, GetParam().heard) << run.err;
}

static const Play PLAYS[] = {
    {"goes_round_in_a_loop", {"--pace", "fast"}, {"count=45"}, numbers(0, 20) + numbers(0, 20) + numbers(0, 5)},
    {"plays_once_and_falls_silent", {"--time", "x20", "--start", "filter", "--once"}, {"wait=3000"}, numbers(0, 20)},
    {"begins_at_the_offset",
     {"--time", "x20", "--start", "filter", "--once", "--offset", "1.45"},
     {"wait=3000"},
     numbers(15, 20)},
    {"stops_after_a_time",
     {"--time", "x20", "--start", "filter", "--stop-after", "0.75"},
     {"wait=3000"},
     numbers(0, 8)},
    {"can_wait_for_the_first_filter",
     {"--time", "x20", "--start", "filter", "--once"},
     {"late=900", "wait=3000"},
     numbers(0, 20)},
    {"fast_waits_for_a_reader_instead_of_overflowing",
     {"--pace", "fast", "--once"},
     {"buffer=64", "slow=2", "wait=200"},
     numbers(0, 20)},
    {"plays_by_hand",
     {"--pace", "manual", "--once"},
     {"play=301", "wait=0", "play=1", "wait=0", "play=5000", "wait=0"},
     numbers(0, 20)}};

INSTANTIATE_TEST_SUITE_P(All, Player, testing::ValuesIn(PLAYS), [](const auto& play) { return play.param.name; });

class Pace : public testing::TestWithParam<const char*> {};

// Ten times as fast as the clock says, or 2000 packets of 1504 bits at 15.04 Mbit/s, take 200 ms. Time runs slower than
// the machine's, which leaves a busy one four seconds.
TEST_P(Pace, makes_it_faster) {
  const Softdvb_run run =
      listen(with_stream({"--time", "x0.2", "--pace", GetParam()}), {"tune=506000000", "count=20", "clock"});
  EXPECT_EQ(run.out, numbers(0, 20));
  EXPECT_LT(std::stod(run.err), 1.0);
  EXPECT_GT(std::stod(run.err), 0.15);
}

INSTANTIATE_TEST_SUITE_P(All, Pace, testing::Values("x10", "15.04M"));

struct Late {
  const char* name;
  Words options;
  Words arguments;
  int first_at_least;
  int first_at_most;
};

class Late_listener : public testing::TestWithParam<Late> {};

TEST_P(Late_listener, hears_the_rest) {
  const Softdvb_run run = listen(with_stream(GetParam().options), GetParam().arguments);
  EXPECT_GE(first_of(run.out), GetParam().first_at_least);
  EXPECT_LE(first_of(run.out), GetParam().first_at_most);
  EXPECT_EQ(run.out, numbers(first_of(run.out), 20));
}

static const Late LATE[] = {
    {"on_air_it_does_not_wait_for_anybody",
     {"--time", "x4", "--start", "air", "--once", "--lock-delay", "0"},
     {"sleep=800", "tune=506000000", "wait=3000"},
     8,
     20},
    {"is_ahead_of_a_filter_that_comes_late",
     {"--time", "x20", "--once", "--lock-delay", "0"},
     {"tune=506000000", "late=950", "wait=3000"},
     9,
     20},
    {"sees_a_stream_that_another_process_tuned", {"--tuned", "506000000", "--once"}, {"wait=500"}, 0, 18}};

INSTANTIATE_TEST_SUITE_P(All, Late_listener, testing::ValuesIn(LATE), [](const auto& late) { return late.param.name; });

TEST(Section_fault, drops_doubles_cuts_and_damages) {
  const Softdvb_run run =
      listen(with_stream({"--pace", "fast", "--once", "--section", "0x100/0x42=drop@2", "--section", "256=double@5",
                          "--section", "256=cut:8@8", "--section", "0x100=crc@11*2", "--section", "0x101=drop"}),
             {"tune=506000000", "wait=300"});
  EXPECT_EQ(run.out, "0 2 3 4 4 5 6 7/8 8 9 12 13 14 15 16 17 18 19 ");
}

TEST(Section_fault, silence_from_a_time_on) {
  const Softdvb_run run = listen(with_stream({"--time", "x20", "--once", "--section", "0x100=silence+100"}),
                                 {"tune=506000000", "wait=3000"});
  EXPECT_EQ(run.out, numbers(0, 20));
  const Softdvb_run silent =
      listen(with_stream({"--time", "x20", "--once", "--section", "0x100=silence"}), {"tune=506000000", "wait=3000"});
  EXPECT_EQ(silent.out, "");
}

TEST(Section_fault, of_one_adapter_leaves_the_others_alone) {
  const std::vector<std::string> options{
      "--pace", "fast", "--once", "--mux", "506000000=" + counting(), "--section", "0x100=drop", "--adapter", "1",
      "--pace", "fast", "--once", "--mux", "506000000=" + counting()};
  EXPECT_EQ(listen(options, {"tune=506000000", "wait=300"}).out, "");
  EXPECT_EQ(listen(options, {"adapter=1", "tune=506000000", "wait=300"}).out, numbers(0, 20));
}
