// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// `kelvo epg update` where a stream makes it hard.

#include "scan/guide_run.h"
#include "tools/command_fixture.h"

namespace {

class Epg_update : public Guide_test {
 protected:
  Command_result kelvo(const std::string& file, const Words& arguments) const {
    return run_command(joined({{SOFTDVB_COMMAND, "--now", NOW, "--time", "x10", "--mux", "506000000=" + file, "--"},
                               {KELVO_COMMAND},
                               arguments,
                               {"--db", database()}}),
                       {{"TZ", "UTC"}});
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
  ASSERT_EQ(kelvo(file, {"scan", "--freq", "506000000"}).exit_code, 0);
  std::filesystem::remove(folder_.file("dvb_epg.db"));  // a part of the guide comes with the scan
  EXPECT_THAT(without_carousels(kelvo(file, {"epg", "update"})),
              ends(0,
                   "  MULTIPLEX  LCN  NAME         EVENTS  GUIDE\n"
                   "506.000 MHz    1  Laine TV          2  no schedule sent, now and next only\n"
                   "506.000 MHz   12  Luide Film        2  no schedule sent, now and next only\n"
                   "506.000 MHz  201  Raadio Meri       0  nothing sent\n"
                   "\n"
                   "3 of 3 services done, 4 events, 4 of them new.\n"));
  EXPECT_EQ(sql("SELECT pat_prnr, count(*) FROM epglist GROUP BY pat_prnr"), "101|2\n102|2\n");
}
