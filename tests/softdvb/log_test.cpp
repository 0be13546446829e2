// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <fcntl.h>

#include "support/softdvb.h"
#include "support/test.h"
#include "support/text.h"

using support::hexadecimal;
using support::run_softdvb;
using support::Softdvb_run;
using namespace testing;

// The lines of a log without their times, processes and threads.
static support::Texts calls_of(const std::string& log) {
  static const std::regex line_form("([0-9]+\\.[0-9]{6}) ([0-9]+) ([0-9]+) (.*)");
  support::Texts calls;
  double last = 0;
  for (const std::string& line : support::lines_of(log)) {
    std::smatch parts;
    EXPECT_TRUE(std::regex_match(line, parts, line_form)) << line;
    EXPECT_GE(std::stod(parts[1]), last);
    last = std::stod(parts[1]);
    calls.push_back(parts[4]);
  }
  return calls;
}

static const std::string STREAM = "506000000=" SOFTDVB_STREAMS "/counting.188.ts";

TEST(Log, holds_every_call_on_a_device) {
  const Softdvb_run run =
      run_softdvb({"--mux", STREAM, "--pace", "fast", "--once"}, {SOFTDVB_LISTEN, "tune=506000000", "count=1"});
  EXPECT_THAT(
      calls_of(run.log),
      ElementsAre(
          "open /dev/dvb/adapter0/frontend0 " + hexadecimal(O_RDWR | O_NONBLOCK) + " = 3",
          "ioctl frontend0.0 3 FE_SET_FRONTEND freq=506000000 inv=2 bw=0 hp=9 lp=9 const=6 mode=2 guard=4 hier=4 = 0",
          "open /dev/dvb/adapter0/demux0 " + hexadecimal(O_RDONLY | O_NONBLOCK) + " = 4",
          "ioctl demux0.0 4 DMX_SET_FILTER pid=0x100 filter=00 mask=00 mode=00 timeout=0 flags=0x5 = 0",
          "poll 4:1>1 5000 ms = 1", "read demux0 4 8192 = 40"));
}

TEST(Log, tells_the_names_of_errors) {
  const Softdvb_run run = run_softdvb({"--fault", "open(frontend0)=ENODEV"}, {"cat", "/dev/dvb/adapter0/frontend0"});
  EXPECT_THAT(calls_of(run.log), IsSupersetOf({"open /dev/dvb/adapter0/frontend0 (fault) = -1 ENODEV",
                                               "open /dev/dvb/adapter0/frontend0 0x0 = -1 ENODEV"}));
}

TEST(Log, records_clocks_that_are_set) {
  const Softdvb_run run = run_softdvb({}, {"date", "-u", "-s", "2001-09-09 01:46:40"});
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_THAT(calls_of(run.log), ElementsAre(MatchesRegex("(clock_settime|settimeofday) 1000000000\\.000000000 = 0")));
}

TEST(Log, is_written_by_all_processes_and_emptied_at_the_start) {
  const Softdvb_run run = run_softdvb({}, {"sh", "-c", "cat /dev/dvb/adapter0/demux0"});
  EXPECT_THAT(calls_of(run.log), IsSupersetOf({Matcher<std::string>("open /dev/dvb/adapter0/demux0 0x0 = 3"),
                                               Matcher<std::string>(StartsWith("read demux0 3 "))}));
}
