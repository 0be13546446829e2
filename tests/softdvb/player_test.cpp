// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "support/softdvb.h"
#include "support/test.h"

// The launcher's options are part of these tests, so an inner program (listen) does the work under it.
using support::run_softdvb;
using support::Softdvb_run;

static std::string counting(int packet_size = 188) {
  return "506000000=" SOFTDVB_STREAMS "/counting." + std::to_string(packet_size) + ".ts";
}

// Runs `listen` with its arguments, both lists of words; it prints the extensions of the sections that it read, one
// after the other.
static Softdvb_run listen(const std::string& options, const std::string& arguments,
                          const std::string& stream = counting()) {
  std::istringstream in(options + " --mux " + stream);
  std::vector<std::string> all{std::istream_iterator<std::string>(in), {}};
  std::istringstream words(SOFTDVB_LISTEN " " + arguments);
  return run_softdvb(all, {std::istream_iterator<std::string>(words), {}});
}

static std::string numbers(int from, int to) {
  std::string text;
  for (int i = from; i < to; ++i)
    text += std::to_string(i) + " ";
  return text;
}

struct Play {
  const char* legend;
  const char* options;
  const char* arguments;
  std::string heard;
};

TEST(Player, is_heard) {
  const Play CASES[] = {
      {"goes round in a loop", "--pace fast", "tune=506000000 count=45",
       numbers(0, 20) + numbers(0, 20) + numbers(0, 5)},
      {"plays once and falls silent", "--time x20 --start filter --once", "tune=506000000 wait=3000", numbers(0, 20)},
      {"begins at the offset", "--time x20 --start filter --once --offset 1.45", "tune=506000000 wait=3000",
       numbers(15, 20)},
      {"stops after a time", "--time x20 --start filter --stop-after 0.75", "tune=506000000 wait=3000", numbers(0, 8)},
      {"can wait for the first filter", "--time x20 --start filter --once", "tune=506000000 late=900 wait=3000",
       numbers(0, 20)},
      {"fast waits for a reader instead of overflowing", "--pace fast --once",
       "tune=506000000 buffer=64 slow=2 wait=200", numbers(0, 20)},
      {"plays by hand", "--pace manual --once", "tune=506000000 play=301 wait=0 play=1 wait=0 play=5000 wait=0",
       numbers(0, 20)},
      {"sections dropped, doubled, cut and damaged",
       "--pace fast --once --section 0x100/0x42=drop@2 --section 256=double@5 --section 256=cut:8@8 "
       "--section 0x100=crc@11*2 --section 0x101=drop",
       "tune=506000000 wait=300", "0 2 3 4 4 5 6 7/8 8 9 12 13 14 15 16 17 18 19 "},
      {"silence from a time on that does not come", "--time x20 --start filter --once --section 0x100=silence+100",
       "tune=506000000 wait=3000", numbers(0, 20)},
      {"silence", "--time x20 --once --section 0x100=silence", "tune=506000000 wait=3000", ""}};
  for (const Play& c : CASES) {
    const Softdvb_run run = listen(c.options, c.arguments);
    EXPECT_EQ(run.out, c.heard) << c.legend << " " << run.err;
  }
}

TEST(Player, another_stream_takes_its_place_while_it_is_tuned) {
  // The adapter's time begins before the program does: 30 seconds leave it one and a half to begin to listen.
  const std::string options = "--time x20 --start filter --once --mux " + counting() +
                              " --then 506000000=30:" + SOFTDVB_STREAMS "/counting.204.ts --then 506000000=45:" +
                              SOFTDVB_STREAMS "/counting.188.ts";
  const Softdvb_run run = listen(options, "tune=506000000 wait=46000");
  EXPECT_EQ(run.out, numbers(0, 20) + numbers(0, 20) + numbers(0, 20)) << run.err;
}

TEST(Player, detects_the_size_of_packets) {
  for (const int size : {188, 192, 204}) {
    const Softdvb_run run = listen("--pace fast --once", "tune=506000000 wait=300", counting(size));
    EXPECT_EQ(run.out, numbers(0, 20)) << size << " " << run.err;
  }
}

// Ten times as fast as the clock says, or 2000 packets of 1504 bits at 15.04 Mbit/s, take 200 ms. Time runs slower than
// the machine's, which leaves a busy one four seconds.
TEST(Player, can_be_made_faster) {
  for (const char* pace : {"x10", "15.04M"}) {
    const Softdvb_run run = listen(std::string("--time x0.2 --pace ") + pace, "tune=506000000 count=20 clock");
    EXPECT_EQ(run.out, numbers(0, 20)) << pace;
    EXPECT_LT(std::stod(run.err), 1.0) << pace;
    EXPECT_GT(std::stod(run.err), 0.15) << pace;
  }
}

TEST(Player, is_heard_from_there_on_by_one_who_comes_late) {
  const struct {
    const char* legend;
    const char* options;
    const char* arguments;
    int first_at_least;
    int first_at_most;
  } CASES[] = {{"on air it does not wait for anybody", "--time x4 --start air --once --lock-delay 0",
                "sleep=800 tune=506000000 wait=3000", 8, 20},
               {"is ahead of a filter that comes late", "--time x20 --once --lock-delay 0",
                "tune=506000000 late=950 wait=3000", 9, 20},
               {"sees a stream that another process tuned", "--tuned 506000000 --once", "wait=500", 0, 18}};
  for (const auto& c : CASES) {
    SCOPED_TRACE(c.legend);
    const Softdvb_run run = listen(c.options, c.arguments);
    const int first = run.out.empty() ? 20 : std::stoi(run.out);
    EXPECT_GE(first, c.first_at_least);
    EXPECT_LE(first, c.first_at_most);
    EXPECT_EQ(run.out, numbers(first, 20));
  }
}

TEST(Player, section_faults_of_one_adapter_leave_the_others_alone) {
  const std::string options =
      "--pace fast --once --mux " + counting() + " --section 0x100=drop --adapter 1 --pace fast --once";
  EXPECT_EQ(listen(options, "tune=506000000 wait=300").out, "");
  EXPECT_EQ(listen(options, "adapter=1 tune=506000000 wait=300").out, numbers(0, 20));
}
