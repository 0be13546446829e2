// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// PAT, PMT and CAT.
#include "si/si_support.h"

using namespace si_support;

namespace {

class Pat : public Parser_test {
 protected:
  Pat() { open(PAT); }
};

TEST_F(Pat, opens_the_filters_of_the_scan_and_closes_its_own) {
  const struct {
    const char* legend;
    std::vector<Program> programs;
    std::vector<Filter> filters;
  } cases[] = {
      {"of an empty one NIT and SDT only", {}, {NIT, SDT}},
      {"a PMT of each program", {{1, 0x100}, {2, 0x200}}, {NIT, pmt_on(0x100), pmt_on(0x200), SDT}},
      {"the NIT on 16 without a network entry", {{1, 0x100}}, {NIT, pmt_on(0x100), SDT}},
      {"the NIT on the PID of the last of two network entries",
       {{0, 0x30}, {1, 0x100}, {0, 0x31}},
       {{0x31, table::NIT_ACTUAL}, pmt_on(0x100), SDT}},
      {"two of two programs on one PID", {{1, 0x100}, {2, 0x100}}, {NIT, pmt_on(0x100), pmt_on(0x100), SDT}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.legend);
    filter.remove_all();
    open(PAT);
    EXPECT_EQ(scan_at(2, pat(c.programs)), "");
    EXPECT_THAT(filters(), testing::UnorderedElementsAreArray(c.filters));
    EXPECT_TRUE(all_filters_have_freq());
    EXPECT_EQ(table("kanalid_scan_0").size(),
              static_cast<size_t>(std::ranges::count_if(c.programs, [](const Program& p) { return p.number != 0; })));
    db.clear_temp_tables(0);
  }
}

TEST_F(Pat, opens_them_in_the_order_of_the_table_and_its_own_place_goes_to_the_sdt) {
  scan(pat({{2, 0x200}, {0, 0x30}, {1, 0x100}}));
  EXPECT_THAT(filters(), ElementsAre(SDT, Filter(0x30, table::NIT_ACTUAL), pmt_on(0x200), pmt_on(0x100)));
}

TEST_F(Pat, every_program_becomes_a_row) {
  scan(pat({{1, 0x100}, {65535, 0x1FFF}}));
  EXPECT_THAT(rows("SELECT channel, dvb_type, hf_conn, freq, pat_prnr, tstream_id, pmt_pid FROM kanalid_scan_0"),
              ElementsAre("1|1|3|506000000|1|4097|256", "2|1|3|506000000|65535|4097|8191"));
}

TEST_F(Pat, a_section_1_of_1_is_reported_as_fragmented_and_still_parsed) {
  const Bytes section = pat({{1, 0x100}}, 1, 1);
  EXPECT_EQ(scan_at(-1, section), "");
  open(PAT);
  EXPECT_EQ(scan_at(0, section), "ERROR: Fragmented PAT secnr: 1, lastsec 1\n");
  EXPECT_TRUE(is_open(pmt_on(0x100)));
}

TEST_F(Pat, a_first_section_of_two_is_reported_as_fragmented) {
  EXPECT_EQ(scan_at(0, pat({{1, 0x100}}, 0, 1)), "ERROR: Fragmented PAT secnr: 0, lastsec 1\n");
}

TEST_F(Pat, traces_every_program_and_the_end) {
  EXPECT_THAT(scan_at(4, pat({{0, 0x30}, {258, 0x100}, {0, 0x31}})),
              AllOf(HasSubstr("NetworkPid 48\nNetworkPid 49\n"),
                    HasSubstr("PAT: ProgramNr: 258, ProgramMapPid: 256, ts_id: 4097\n"),
                    HasSubstr("PAT scanned, setting SDT, NIT, PMT\n")));
}

// --- PMT -------------------------------------------------------------------------------------------------------------

struct Pmt_bench : Parser_bench {
  Pmt_bench() { scan(pat({{1, 0x100}, {2, 0x200}})); }
  Texts streams(const std::string& columns =
                    "channel, es_pid, es_type, es_subtype, codec, languages, lang_codes, p1, "
                    "p2, ca_sysid, ca_pid") {
    return rows("SELECT " + columns + " FROM estreams_scan_0 ORDER BY oid");
  }
};
class Pmt : public testing::Test, protected Pmt_bench {};

TEST_F(Pmt, without_streams_the_pcr_pid_is_stored_and_the_filter_closed) {
  scan(pmt(1, 0x101, {}));
  EXPECT_EQ(text("SELECT pcr_pid FROM kanalid_scan_0"), "257");
  EXPECT_EQ(streams(), Texts{});
  EXPECT_FALSE(is_open(pmt_on(0x100)));
}

TEST(Pmt_streams, become_rows_with_what_is_their_own) {
  const Bytes ac3 = descriptor(tag::AC3, {0});
  const Bytes one = languages({{"est", 0}});
  const Bytes two = languages({{"est", 0}, {"rus", 3}});
  const Bytes subtitles = subtitling({{"est", 0x10, 1, 2}});
  const Bytes teletext = descriptor(tag::TELETEXT, join({bytes("deu"), {2 << 3 | 1, 0x88}}));
  const Bytes two_ca = join({ca(0x500, 0x111), ca(0xB00, 0x112)});
  const struct {
    const char* legend;
    std::vector<Bytes> pmts;  // of program 1 on 0x100, of 2 on 0x200
    Texts rows;
  } cases[] = {
      {"of their program's channel",
       {pmt(2, 0x101, {{0x02, 0x101}, {0x04, 0x102}})},
       {"2|257|2|0||||0|0|0|0", "2|258|4|0||||0|0|0|0"}},
      {"of channel 0 when the PAT does not name the program",
       {pmt(5, 0x101, {{0x02, 0x101}})},
       {"0|257|2|0||||0|0|0|0"}},
      {"attributes do not reach the next stream",
       {pmt(1, 0x101, {{0x06, 0x102, join({ac3, one, ca(0x102, 0x103)})}, {0x03, 0x103}})},
       {"1|258|6|-2147483647|AC3|est ||0|0|258|259", "1|259|3|0||||0|0|0|0"}},
      {"nor do all of them together",
       {pmt(1, 0x101, {{0x06, 0x102, join({ac3, two, ca(0x102, 0x103), teletext})}, {0x03, 0x103}})},
       {"1|258|6|-2147471358|AC3|deu|0 3 |136|1|258|259", "1|259|3|0||||0|0|0|0"}},
      {"two languages are joined with blanks and do not reach the next stream",
       {pmt(1, 0x101, {{0x03, 0x103, two}, {0x03, 0x104}, {0x03, 0x105, two}})},
       {"1|259|3|0||est rus |0 3 |0|0|0|0", "1|260|3|0||||0|0|0|0", "1|261|3|0||est rus |0 3 |0|0|0|0"}},
      {"subtitles in two languages become two rows",
       {pmt(1, 0x101, {{0x06, 0x104, subtitling({{"est", 0x10, 1, 2}, {"rus", 0x20, 3, 4}})}, {0x06, 0x105}})},
       {"1|260|6|-2147467248||est||2|1|0|0", "1|260|6|-2147467232||rus||4|3|0|0", "1|261|6|0||||0|0|0|0"}},
      {"subtitles of the programme loop are the first stream's",
       {pmt(1, 0x101, {{0x02, 0x101}, {0x03, 0x102}}, subtitles)},
       {"1|257|2|-2147467248||est||2|1|0|0", "1|258|3|0||||0|0|0|0"}},
      {"subtitles without a stream do not reach another program",
       {pmt(1, 0x101, {}, subtitles), pmt(2, 0x201, {{0x02, 0x201}})},
       {"2|513|2|0||||0|0|0|0"}},
      {"CA of a stream", {pmt(1, 0x101, {{0x02, 0x101, ca(0xB00, 0x456)}})}, {"1|257|2|0||||0|0|2816|1110"}},
      {"CA of one program does not reach the next",
       {pmt(1, 0x101, {{0x02, 0x101}}, ca(0x500, 0x111)), pmt(2, 0x201, {{0x02, 0x201}})},
       {"1|257|2|0||||0|0|1280|273", "2|513|2|0||||0|0|0|0"}},
      {"the last of several CA descriptors wins",
       {pmt(1, 0x101, {{0x02, 0x101, two_ca}}), pmt(2, 0x201, {{0x02, 0x201}}, two_ca)},
       {"1|257|2|0||||0|0|2816|274", "2|513|2|0||||0|0|2816|274"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.legend);
    Pmt_bench fresh;
    for (const Bytes& section : c.pmts)
      EXPECT_EQ(messages_at(2, [&] { fresh.scan(section, section[4] == 2 ? 0x200 : 0x100); }), "");
    EXPECT_EQ(fresh.streams(), c.rows);
    EXPECT_EQ(fresh.is_open(pmt_on(0x200)), c.pmts.back()[4] != 2);
  }
}

TEST_F(Pmt, quirk_the_audio_type_of_a_single_language_is_too_short_to_be_stored) {
  scan(pmt(1, 0x101, {{0x03, 0x103, languages({{"est", 1}})}}));
  EXPECT_EQ(streams("languages, lang_codes"), Texts{"est |"});
}

TEST_F(Pmt, quirk_ca_of_the_program_wins_over_the_streams_own) {
  scan(pmt(1, 0x101, {{0x02, 0x101, ca(0xB00, 0x456)}, {0x03, 0x102, {}}}, ca(0x500, 0x111)));
  EXPECT_EQ(streams("ca_sysid, ca_pid"), (Texts{"1280|273", "1280|273"}));
}

TEST_F(Pmt, a_fragmented_one_is_reported_and_parsed) {
  const Bytes section = pmt(1, 0x101, {{2, 0x101}}, {}, 0, 3);
  EXPECT_EQ(scan_at(-1, section), "");
  open(pmt_on(0x100));
  EXPECT_EQ(scan_at(0, section), "ERROR: Fragmented PMT secnr: 0, lastsec 3\n");
  EXPECT_EQ(streams().size(), 2u);
}

TEST_F(Pmt, traces_program_and_streams_at_4) {
  EXPECT_THAT(scan_at(4, pmt(258, 0x101, {{2, 0x101}})), AllOf(HasSubstr("PMT: Program 258, PID 100, PCR pid 101\n"),
                                                               HasSubstr("Program 258: ES pid 257, ES type 2\n")));
}

// --- PMTs of known services ------------------------------------------------------------------------------------------

class Pmt_refresh : public Parser_test {
 protected:
  // Two television services in the database, listed by init_cache_list().
  Pmt_refresh() {
    insert(1, 0x100, 0x101);
    insert(2, 0x200, 0x201);
    parser.init_cache_list(FREQ, SCAN_EIT);
  }
  size_t streams() { return table("estreams_scan_0").size(); }
  // A PMT of program 1 in this version, behind the start of a refresh.
  void refresh(uint8_t version, int es_pid = 0x101) {
    parser.init_pmt_table_scan_from_database(FREQ);
    scan(pmt(1, 0x101, {{2, es_pid}}, {}, version), 0x100, SCAN_PMT);
  }
};

TEST_F(Pmt_refresh, opens_the_filters_of_the_listed_services) {
  EXPECT_EQ(parser.init_pmt_table_scan_from_database(FREQ), 0);
  EXPECT_THAT(filters(), ElementsAre(pmt_on(0x100), pmt_on(0x200)));
  EXPECT_TRUE(all_filters_have_freq());
}

TEST_F(Pmt_refresh, an_empty_list_gives_1_and_no_filter) {
  parser.init_cache_list(FREQ + 8000000, SCAN_EIT);
  EXPECT_EQ(parser.init_pmt_table_scan_from_database(FREQ), 1);
  EXPECT_THAT(filters(), IsEmpty());
}

TEST_F(Pmt_refresh, a_service_without_pcr_pid_or_pmt_pid_gets_no_filter) {
  insert(3, 0x300, 0);
  insert(4, 0, 0x301);
  insert(5, 0x400, 0x401);
  insert(6, 0, 0x501);
  parser.init_cache_list(FREQ, SCAN_EIT);
  EXPECT_EQ(parser.init_pmt_table_scan_from_database(FREQ), 0);
  EXPECT_THAT(filters(), ElementsAre(pmt_on(0x100), pmt_on(0x200), pmt_on(0x400)));
}

TEST_F(Pmt_refresh, the_first_version_seen_counts_as_changed) {
  refresh(0);
  EXPECT_EQ(rows("SELECT channel, es_pid FROM estreams_scan_0"), Texts{"1|257"});
  EXPECT_THAT(filters(), ElementsAre(pmt_on(0x200)));
}

TEST_F(Pmt_refresh, the_version_last_seen_closes_the_filter_without_touching_the_database) {
  refresh(7);
  parser.init_pmt_table_scan_from_database(FREQ);
  EXPECT_TRUE(is_open(pmt_on(0x100)));
  EXPECT_THAT(scan_at(4, pmt(1, 0x999, {{2, 0x105}}, {}, 7), 0x100, SCAN_PMT), Not(HasSubstr("sql")));
  EXPECT_EQ(streams(), 1u);
  EXPECT_FALSE(is_open(pmt_on(0x100)));
}

TEST_F(Pmt_refresh, a_new_version_and_the_same_of_another_service_are_read) {
  refresh(7);
  scan(pmt(2, 0x201, {{2, 0x201}}, {}, 7), 0x200, SCAN_PMT);
  EXPECT_EQ(streams(), 2u);
  refresh(8, 0x105);
  EXPECT_EQ(streams(), 3u);
}

TEST_F(Pmt_refresh, a_program_that_is_not_listed_closes_the_filter_with_a_warning) {
  const Bytes section = pmt(3, 0x301, {{2, 0x301}});
  open(pmt_on(0x300));
  EXPECT_EQ(scan_at(1, section, 0x300, SCAN_PMT),
            "WARNING: parse_section_pmt: cannot locate program number in sql cache\n");
  EXPECT_THAT(filters(), IsEmpty());
  EXPECT_EQ(streams(), 0u);
  open(pmt_on(0x300));
  EXPECT_EQ(scan_at(0, section, 0x300, SCAN_PMT), "");
}

TEST_F(Pmt_refresh, in_other_states_the_list_is_not_looked_at) {
  for (SCAN_STATE state : {SCAN_NONE, SCAN_PAT, SCAN_EIT}) {
    filter.remove_all();
    open(pmt_on(0x300));
    db.clear_temp_tables(0);
    EXPECT_EQ(scan_at(1, pmt(3, 0x301, {{2, 0x301}}), 0x300, state), "");
    EXPECT_EQ(streams(), 1u) << state;
    EXPECT_THAT(filters(), IsEmpty());
  }
}

TEST_F(Pmt_refresh, in_a_full_scan_the_version_is_not_looked_at) {
  scan(pat({{1, 0x100}}));
  scan(pmt(1, 0x101, {{2, 0x101}}, {}, 7), 0x100, SCAN_PAT);
  open(pmt_on(0x100));
  scan(pmt(1, 0x101, {{2, 0x101}}, {}, 7), 0x100, SCAN_PAT);
  EXPECT_EQ(streams(), 2u);
}

TEST_F(Pmt_refresh, a_refresh_does_not_touch_the_scan_table_of_services) {
  db.sql_cache(true, 0, "INSERT INTO kanalid_scan_DVBNR (freq, pat_prnr, pcr_pid) VALUES ($freq, 1, 5)", FREQ);
  parser.init_pmt_table_scan_from_database(FREQ);
  scan(pmt(1, 0x101, {{2, 0x101}}), 0x100, SCAN_PMT);
  EXPECT_EQ(text("SELECT pcr_pid FROM kanalid_scan_0"), "5");
}

// --- CAT -------------------------------------------------------------------------------------------------------------

using Cat = Parser_test;

TEST_F(Cat, leaves_its_filter_open_and_stores_nothing) {
  open(CAT);
  EXPECT_THAT(scan_at(4, cat(ca(0x102, 0x103))),
              HasSubstr("Parsing descriptor 9, dec 9, oid -1\nCA descriptor SysId: 258, PID: 259 \n"));
  EXPECT_TRUE(is_open(CAT));
}

}  // namespace
