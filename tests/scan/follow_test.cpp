// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// What the air says otherwise while a multiplex is tuned, with the profile for any device and with that of the box.

#include "scan/scan_run.h"

using nlohmann::literals::operator""_json;

namespace {

// Of service 101: another name and number; 102 is in the clear; 103 has left.
const auto LATER = R"([
    { "op": "replace", "path": "/services/0/name", "value": "Laine Uus" },
    { "op": "replace", "path": "/services/0/lcn", "value": 2 },
    { "op": "remove", "path": "/services/1/ca" },
    { "op": "remove", "path": "/services/2" },
    { "op": "add", "path": "/version", "value": 1 }])"_json;

constexpr char SERVICES[] = "SELECT channel, serv_name, lcn, free_ca, scan_state FROM kanalid ORDER BY channel";

class Follow_test : public Scan_test {
 protected:
  std::vector<std::string> changing(int seconds) {
    return on_freq(stream(), {"--then", std::to_string(FREQ) + "=" + std::to_string(seconds) + ":" + stream(LATER)});
  }
};

}  // namespace

TEST_F(Follow_test, a_multiplex_without_a_channel_is_read_again_at_once_and_answered_once) {
  const Scan_run watched =
      run(changing(30), "any_linux; kelvo 0 tuner; freq 0 506000000; wait_done 0 100; sleep 45; sql 1", 20);
  EXPECT_EQ(watched.lines({"freq", "done", "change", "followed"}),
            "freq -1\ndone 0 0\nfollowed 0 3 Laine TV>Laine Uus 1>2 506>506\n"
            "followed 0 544 Luide Film>Luide Film 12>12 506>506\nchange 0 16\n");
  EXPECT_EQ(sql(SERVICES), "1|Laine Uus|2|0|1\n2|Luide Film|12|0|1\n3|Raadio Meri|201|0|0\n");
}

TEST_F(Follow_test, the_box_reads_it_with_the_next_request_and_keeps_what_it_knows) {
  const Scan_run scanned = run(changing(30), "kelvo 0 tuner; freq 0 506000000; wait_done 0 100; sleep 45; sql 1", 20);
  EXPECT_EQ(scanned.lines({"done", "change", "followed"}), "done 0 0\n");
  EXPECT_EQ(sql(SERVICES), "1|Laine TV|1|0|1\n2|Luide Film|12|1|1\n3|Raadio Meri|201|0|1\n");
}

TEST_F(Follow_test, a_channel_is_followed_too_and_its_pmts_are_read_as_before) {
  scan_first();
  const Scan_run watched = run(
      changing(40),
      "any_linux; kelvo 0 tuner; channel 0 506000000 1; wait_sql 90 SELECT count(*) FROM kanalid WHERE serv_name = 'Laine Uus'; sleep 9; sql 1",
      20);
  EXPECT_THAT(watched.lines({"followed"}), testing::HasSubstr("Laine TV>Laine Uus 1>2 506>506\n"));
  EXPECT_EQ(sql(SERVICES), "1|Laine Uus|2|0|1\n2|Luide Film|12|0|1\n3|Raadio Meri|201|0|0\n");
  EXPECT_GE(watched.logged({"DMX_SET_FILTER pid=0x100 filter=02"}).size(), 5U);
}

TEST_F(Follow_test, two_programmes_on_a_pid_and_services_without_provider_are_stored_at_once) {
  const auto patch = R"([
      { "op": "replace", "path": "/services/1/pmt_pid", "value": 256 },
      { "op": "replace", "path": "/services/0/provider", "value": "" },
      { "op": "add", "path": "/services/2/in_sdt", "value": false },
      { "op": "add", "path": "/pat_programs_per_section", "value": 2 }])"_json;
  const Scan_run scanned =
      run(on_freq(stream(patch)),
          "any_linux; kelvo 0 tuner; verbosity 1; freq 0 506000000; wait_done 0 100; verbosity 0", 20);
  EXPECT_EQ(scanned.count_err("timed out"), 0U) << scanned.err;
  EXPECT_EQ(sql("SELECT pat_prnr, serv_name, prov_name, scan_state, (SELECT count(*) FROM estreams e WHERE e.channel = "
                "k.channel) > 0 FROM kanalid k ORDER BY pat_prnr"),
            "101|Laine TV||1|1\n102|Luide Film|Luide|1|1\n103|||1|1\n");
}

// Twelve services whose PMTs never come stand in the PAT before the three that have one.
TEST_F(Follow_test, pmts_on_air_are_read_however_many_others_never_come) {
  auto patch = Json::array();
  for (int i = 0; i < 12; ++i)
    patch.push_back({{"op", "add"},
                     {"path", "/services/0"},
                     {"value", {{"service_id", 200 + i}, {"name", "Tumm"}, {"provider", "Vaikus"}, {"pmt", false}}}});
  const char* const described =
      "SELECT pat_prnr FROM kanalid k WHERE scan_state = 1 AND (SELECT count(*) FROM estreams e WHERE e.channel = "
      "k.channel) > 0 ORDER BY pat_prnr";
  const Scan_run scanned =
      run(on_freq(stream(patch)),
          "any_linux; verbosity 2; kelvo 0 tuner; freq 0 506000000; wait_done 0 100; verbosity 0", 10);
  EXPECT_EQ(sql(described), "101\n102\n103\n");
  EXPECT_EQ(sql("SELECT count(*) FROM kanalid WHERE serv_name = 'Tumm' AND scan_state = 0 AND row_status = 2"), "12\n");
  EXPECT_EQ(scanned.count_err("No PMT on PID"), 12U) << scanned.err;
  EXPECT_EQ(scanned.count_err("timed out for frequency"), 0U) << "before the 40 s of the scan are over";
}

TEST_F(Follow_test, the_box_waits_for_pmts_that_never_come) {
  const Scan_run scanned = run(on_freq(stream(R"([{ "op": "add", "path": "/services/1/pmt", "value": false }])"_json)),
                               "verbosity 2; " + SCAN_ONCE + "verbosity 0", 40);
  EXPECT_EQ(scanned.count_err("No PMT on PID"), 0U);
  EXPECT_EQ(scanned.count_err("timed out for frequency"), 1U);
}

// Recorded multiplexes. What is expected was read from the bytes of their PAT, SDT and NIT by another program.
struct Recorded {
  const char* file;
  const char* services;  // all, with a name, and with a channel number
  const char* numbers;   // program=number
};

void PrintTo(const Recorded& recorded, std::ostream* out) {
  *out << recorded.file;
}

class Recorded_test : public Scan_test, public testing::WithParamInterface<Recorded> {};

TEST_P(Recorded_test, has_the_services_and_numbers_that_are_on_air) {
  const std::string file = support::capture_file(GetParam().file);
  if (file.empty())
    GTEST_SKIP() << GetParam().file << " is not here";
  const Scan_run scanned = run(on_freq(file), "any_linux; kelvo 0 tuner; freq 0 506000000; wait_done 0 100", 20);
  EXPECT_EQ(scanned.lines({"done", "no"}), "done 0 0\n");
  EXPECT_EQ(sql("SELECT count(*), sum(serv_name != ''), sum(lcn != 65535) FROM kanalid"),
            std::string(GetParam().services) + "\n");
  EXPECT_EQ(
      sql("SELECT coalesce(group_concat(pat_prnr || '=' || lcn, ' '), '') FROM (SELECT pat_prnr, lcn FROM kanalid "
          "WHERE lcn != 65535 ORDER BY pat_prnr)"),
      std::string(GetParam().numbers) + "\n");
}

// Half of the second one's services have no provider name, and the first one's SDT names none of its services.
INSTANTIATE_TEST_SUITE_P(
    , Recorded_test,
    testing::Values(Recorded{"fr_tnt_2018_all.ts", "6|0|6", "257=2 260=14 261=19 262=27 273=3 368=30"},
                    Recorded{"it_mediaset_2018_psi.ts", "20|20|0", ""},
                    Recorded{"fr_r4_paris_2019_si.ts", "5|5|5", "1025=6 1026=9 1031=7 1045=5 1046=22"},
                    Recorded{"cz_db_mux24_2023.si.ts", "19|19|0", ""},
                    Recorded{"it_rai_2022.ts", "8|8|8",
                             "3401=1 3402=2 3403=3 3404=701 3405=702 3406=703 3410=100 3411=48"},
                    Recorded{"gr_crete_2023_complete.ts", "12|12|12",
                             "9=1 10=2 11=3 12=4 20=5 21=6 22=7 31=8 32=9 35=10 40=11 41=12"}),
    [](const auto& row) {
      std::string name = row.param.file;
      std::replace(name.begin(), name.end(), '.', '_');
      return name;
    });
