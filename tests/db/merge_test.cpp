#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/log.h"
#include "db_support.h"
#include "support/support.h"

using db_support::rows;
using db_support::run;
using support::stderr_of;

namespace {

using Texts = std::vector<std::string>;

constexpr int FREQ = 506000000;
constexpr int TYPE = 1;
constexpr int CONN = 2;

class Merge : public testing::Test {
 protected:
  Merge() : sdbl_(dir_.file("a.db").c_str()) { sdbl_.create_temp_tables(0); }
  ~Merge() override { verbosity_kelvo = 0; }

  void scan(const std::vector<int>& programs, int net_id = 10, int dvbnr = 0) {
    sdbl_.clear_temp_tables(dvbnr);
    for (const int program : programs) {
      const int row = sdbl_.pat_for_network(dvbnr, TYPE, CONN, FREQ, program, 5, 100 + program);
      sdbl_.pmt_channel_number(dvbnr, TYPE, CONN, FREQ, program, 1000 + program, SCAN_PAT);
      sdbl_.pmt_for_service(dvbnr, row, 1000 + program, 27, 0, "H264", "", "", 0, 0, &none_);
      sdbl_.pmt_for_service(dvbnr, row, 2000 + program, 3, 0, "MPEG1", "eng", "", 0, 0, &none_);
    }
    sdbl_.nit_for_network(dvbnr, TYPE, CONN, FREQ, "network_id", net_id);
    sdbl_.nit_for_network(dvbnr, TYPE, CONN, FREQ, "orig_network_id", net_id);
  }
  int merge(SCAN_STATE state = SCAN_PAT, int dvbnr = 0) {
    return sdbl_.update_master_scan_data(dvbnr, TYPE, CONN, FREQ, state);
  }

  support::Temp_dir dir_;
  Sdbl sdbl_;
  std::list<PMT_subtxt_lang*> none_;
};

}  // namespace

TEST_F(Merge, new_services_are_added_with_their_streams) {
  scan({1, 2});
  EXPECT_EQ(merge(), 2 | 32);
  EXPECT_EQ(rows(sdbl_,
                 "SELECT channel, pat_prnr, pmt_pid, pcr_pid, network_id, tstream_id, scan_state, row_status, "
                 "modified > 0 FROM kanalid"),
            (Texts{"1|1|101|1001|10|5|1|0|1", "2|2|102|1002|10|5|1|0|1"}));
  EXPECT_EQ(rows(sdbl_, "SELECT channel, es_pid, codec, languages FROM estreams ORDER BY oid"),
            (Texts{"1|1001|H264|", "1|2001|MPEG1|eng", "2|1002|H264|", "2|2002|MPEG1|eng"}));
}

TEST_F(Merge, a_rescan_that_finds_the_same_changes_nothing) {
  scan({1, 2});
  merge();
  run(sdbl_, "UPDATE kanalid SET modified = 77");
  const Texts channels = rows(sdbl_, "SELECT * FROM kanalid");
  scan({1, 2});
  EXPECT_EQ(merge(), 0);
  EXPECT_EQ(rows(sdbl_, "SELECT * FROM kanalid"), channels);
}
