// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// `kelvo epg update` where a stream makes it hard.

#include "scan/guide_run.h"
#include "support/command.h"

namespace {

using support::Command_result;
using support::run_command;

class Epg_update : public Guide_test {
 protected:
  Command_result kelvo(const std::string& file, const std::vector<std::string>& arguments) const {
    std::vector<std::string> argv{SOFTDVB_COMMAND,     "--now", NOW,          "--time", "x10", "--mux",
                                  "506000000=" + file, "--",    KELVO_COMMAND};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return run_command(argv, {{"TZ", "UTC"}});
  }
};

}  // namespace

TEST_F(Epg_update, now_and_next_are_collected_where_a_scan_cannot_complete) {
  constexpr char NOW_AND_NEXT[] =
      R"([{ "start": "now-30m", "duration": "1h" }, { "start": "now+30m", "duration": "1h" }])";
  const std::string file = stream({events_of(INDEX_OF_101, NOW_AND_NEXT),
                                   events_of(INDEX_OF_102, NOW_AND_NEXT),
                                   {{"op", "add"}, {"path", "/services/0/eit_schedule"}, {"value", false}},
                                   {{"op", "add"}, {"path", "/services/1/eit_schedule"}, {"value", false}},
                                   {{"op", "add"}, {"path", "/services/1/pmt"}, {"value", false}}});
  ASSERT_EQ(0, kelvo(file, {"scan", "--freq", "506000000", "--db", database()}).exit_code);
  const Command_result update = kelvo(file, {"epg", "update", "--db", database()});
  EXPECT_EQ(0, update.exit_code) << update.err;
  EXPECT_EQ(
      "  MULTIPLEX  LCN  NAME         EVENTS  GUIDE\n"
      "506.000 MHz    1  Laine TV          2  no schedule sent, now and next only\n"
      "506.000 MHz   12  Luide Film        2  no schedule sent, now and next only\n"
      "506.000 MHz  201  Raadio Meri       0  nothing sent\n"
      "\n"
      "3 of 3 services done, 4 events, 4 of them new.\n",
      update.out);
  EXPECT_EQ("101|2\n102|2\n", sql("SELECT pat_prnr, count(*) FROM epglist GROUP BY pat_prnr"));
}
