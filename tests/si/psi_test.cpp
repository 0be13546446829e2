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

TEST_F(Pat, an_empty_pat_opens_nit_and_sdt_only) {
  scan(pat({}));
  EXPECT_THAT(filters(), UnorderedElementsAre(NIT, SDT));
  EXPECT_THAT(rows("SELECT * FROM kanalid_scan_0"), IsEmpty());
}

TEST_F(Pat, opens_the_filters_of_the_scan_and_closes_its_own) {
  EXPECT_EQ(scan_at(2, pat({{1, 0x100}, {2, 0x200}})), "");
  EXPECT_THAT(filters(), UnorderedElementsAre(NIT, pmt_on(0x100), pmt_on(0x200), SDT));
  EXPECT_TRUE(all_filters_have_freq());
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

TEST_F(Pat, without_a_network_entry_the_nit_is_on_16) {
  scan(pat({{1, 0x100}}));
  EXPECT_TRUE(is_open(NIT));
}

TEST_F(Pat, of_two_network_entries_the_last_ones_pid_is_used) {
  EXPECT_THAT(scan_at(4, pat({{0, 0x30}, {1, 0x100}, {0, 0x31}})), HasSubstr("NetworkPid 48\nNetworkPid 49\n"));
  EXPECT_THAT(filters(), UnorderedElementsAre(Filter(0x31, table::NIT_ACTUAL), pmt_on(0x100), SDT));
}

TEST_F(Pat, a_section_1_of_1_is_reported_as_fragmented_and_still_parsed) {
  const Bytes section = pat({{1, 0x100}}, 1, 1);
  EXPECT_EQ(scan_at(0, section), "ERROR: Fragmented PAT secnr: 1, lastsec 1\n");
  EXPECT_TRUE(is_open(pmt_on(0x100)));
  filter.remove_all();
  open(PAT);
  EXPECT_EQ(scan_at(-1, section), "");
}

TEST_F(Pat, a_first_section_of_two_is_reported_as_fragmented) {
  EXPECT_EQ(scan_at(0, pat({{1, 0x100}}, 0, 1)), "ERROR: Fragmented PAT secnr: 0, lastsec 1\n");
}

TEST_F(Pat, traces_every_program_and_the_end) {
  const std::string all = scan_at(4, pat({{258, 0x100}}));
  EXPECT_THAT(all, HasSubstr("PAT: ProgramNr: 258, ProgramMapPid: 256, ts_id: 4097\n"));
  EXPECT_THAT(all, HasSubstr("PAT scanned, setting SDT, NIT, PMT\n"));
}

TEST_F(Pat, two_programs_on_one_pid_get_two_filters) {
  scan(pat({{1, 0x100}, {2, 0x100}}));
  EXPECT_THAT(filters(), UnorderedElementsAre(NIT, pmt_on(0x100), pmt_on(0x100), SDT));
}

// --- PMT -------------------------------------------------------------------------------------------------------------

class Pmt : public Parser_test {
 protected:
  Pmt() { scan(pat({{1, 0x100}, {2, 0x200}})); }
  Texts streams(const std::string& columns =
                    "channel, es_pid, es_type, es_subtype, codec, languages, lang_codes, p1, "
                    "p2, ca_sysid, ca_pid") {
    return rows("SELECT " + columns + " FROM estreams_scan_0 ORDER BY oid");
  }
  const Bytes two = languages({{"est", 0}, {"rus", 3}});
  const Bytes subtitles = subtitling({{"est", 0x10, 1, 2}});
};

TEST_F(Pmt, without_streams_the_pcr_pid_is_stored_and_the_filter_closed) {
  scan(pmt(1, 0x101, {}));
  EXPECT_EQ(text("SELECT pcr_pid FROM kanalid_scan_0"), "257");
  EXPECT_EQ(streams(), Texts{});
  EXPECT_FALSE(is_open(pmt_on(0x100)));
}

TEST_F(Pmt, every_stream_becomes_a_row_of_its_programs_channel) {
  EXPECT_EQ(scan_at(2, pmt(2, 0x101, {{0x02, 0x101, {}}, {0x04, 0x102, {}}}), 0x200), "");
  EXPECT_EQ(streams(), (Texts{"2|257|2|0||||0|0|0|0", "2|258|4|0||||0|0|0|0"}));
  EXPECT_FALSE(is_open(pmt_on(0x200)));
}

TEST_F(Pmt, of_a_program_that_the_pat_does_not_name_goes_to_channel_0) {
  scan(pmt(5, 0x101, {{0x02, 0x101, {}}}));
  EXPECT_THAT(streams(), ElementsAre(StartsWith("0|257|2|")));
}

TEST_F(Pmt, the_attributes_of_one_stream_do_not_reach_the_next) {
  const Bytes ac3 = join({descriptor(tag::AC3, {0}), languages({{"est", 0}}), ca(0x102, 0x103)});
  scan(pmt(1, 0x101, {{0x06, 0x102, ac3}, {0x03, 0x103, {}}}));
  EXPECT_EQ(streams(), (Texts{"1|258|6|-2147483647|AC3|est ||0|0|258|259", "1|259|3|0||||0|0|0|0"}));
}

TEST_F(Pmt, the_languages_of_one_stream_do_not_reach_the_next) {
  scan(pmt(1, 0x101, {{0x03, 0x103, two}, {0x03, 0x104, {}}, {0x03, 0x105, two}}));
  EXPECT_EQ(streams("es_pid, languages, lang_codes"), (Texts{"259|est rus |0 3 ", "260||", "261|est rus |0 3 "}));
}

TEST_F(Pmt, two_languages_of_a_stream_are_joined_with_blanks) {
  scan(pmt(1, 0x101, {{0x03, 0x103, two}}));
  EXPECT_EQ(streams("languages, lang_codes"), Texts{"est rus |0 3 "});
}

TEST_F(Pmt, quirk_the_audio_type_of_a_single_language_is_too_short_to_be_stored) {
  scan(pmt(1, 0x101, {{0x03, 0x103, languages({{"est", 1}})}}));
  EXPECT_EQ(streams("languages, lang_codes"), Texts{"est |"});
}

TEST_F(Pmt, subtitles_in_two_languages_become_two_rows) {
  scan(pmt(1, 0x101, {{0x06, 0x104, subtitling({{"est", 0x10, 1, 2}, {"rus", 0x20, 3, 4}})}, {0x06, 0x105, {}}}));
  EXPECT_EQ(streams("es_pid, es_subtype, languages, p1, p2"),
            (Texts{"260|-2147467248|est|2|1", "260|-2147467232|rus|4|3", "261|0||0|0"}));
}

TEST_F(Pmt, ca_of_a_stream_is_stored_with_it) {
  scan(pmt(1, 0x101, {{0x02, 0x101, ca(0xB00, 0x456)}}));
  EXPECT_EQ(streams("ca_sysid, ca_pid"), Texts{"2816|1110"});
}

TEST_F(Pmt, quirk_ca_of_the_program_wins_over_the_streams_own) {
  scan(pmt(1, 0x101, {{0x02, 0x101, ca(0xB00, 0x456)}, {0x03, 0x102, {}}}, ca(0x500, 0x111)));
  EXPECT_EQ(streams("ca_sysid, ca_pid"), (Texts{"1280|273", "1280|273"}));
}

TEST_F(Pmt, ca_of_one_program_does_not_reach_the_next) {
  scan(pmt(1, 0x101, {{0x02, 0x101, {}}}, ca(0x500, 0x111)));
  scan(pmt(2, 0x201, {{0x02, 0x201, {}}}), 0x200);
  EXPECT_EQ(streams("es_pid, ca_sysid, ca_pid"), (Texts{"257|1280|273", "513|0|0"}));
}

TEST_F(Pmt, the_last_of_several_ca_descriptors_wins) {
  const Bytes both = join({ca(0x500, 0x111), ca(0xB00, 0x112)});
  scan(pmt(1, 0x101, {{0x02, 0x101, both}}));
  scan(pmt(2, 0x201, {{0x02, 0x201, {}}}, both), 0x200);
  EXPECT_EQ(streams("es_pid, ca_sysid, ca_pid"), (Texts{"257|2816|274", "513|2816|274"}));
}

TEST_F(Pmt, a_stream_without_descriptors_has_nothing_of_the_one_before) {
  const Bytes teletext = descriptor(tag::TELETEXT, join({bytes("deu"), {2 << 3 | 1, 0x88}}));
  const Bytes everything = join({descriptor(tag::AC3, {0}), two, ca(0x102, 0x103), teletext});
  scan(pmt(1, 0x101, {{0x06, 0x102, everything}, {0x03, 0x103, {}}}));
  EXPECT_EQ(streams(), (Texts{"1|258|6|-2147471358|AC3|deu|0 3 |136|1|258|259", "1|259|3|0||||0|0|0|0"}));
}

TEST_F(Pmt, subtitles_of_the_programme_loop_are_the_first_streams) {
  scan(pmt(1, 0x101, {{0x02, 0x101, {}}, {0x03, 0x102, {}}}, subtitles));
  EXPECT_EQ(streams("es_pid, es_subtype, languages"), (Texts{"257|-2147467248|est", "258|0|"}));
}

TEST_F(Pmt, subtitle_languages_without_a_stream_do_not_reach_another_program) {
  scan(pmt(1, 0x101, {}, subtitles));
  scan(pmt(2, 0x201, {{0x02, 0x201, {}}}), 0x200);
  EXPECT_EQ(streams("es_pid, es_subtype, languages"), Texts{"513|0|"});
}

TEST_F(Pmt, a_fragmented_one_is_reported_and_parsed) {
  EXPECT_EQ(scan_at(0, pmt(1, 0x101, {{2, 0x101, {}}}, {}, 0, 3)), "ERROR: Fragmented PMT secnr: 0, lastsec 3\n");
  EXPECT_EQ(streams().size(), 1u);
}

TEST_F(Pmt, a_fragmented_one_is_silent_below_0) {
  EXPECT_EQ(scan_at(-1, pmt(1, 0x101, {{2, 0x101, {}}}, {}, 0, 3)), "");
}

TEST_F(Pmt, traces_program_and_streams_at_4) {
  const std::string all = scan_at(4, pmt(258, 0x101, {{2, 0x101, {}}}));
  EXPECT_THAT(all, HasSubstr("PMT: Program 258, PID 100, PCR pid 101\n"));
  EXPECT_THAT(all, HasSubstr("Program 258: ES pid 257, ES type 2\n"));
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
  void insert(int program, int pmt_pid, int pcr_pid) {
    db.sql_cache(true, 0,
                 "INSERT INTO kanalid (dvb_type, hf_conn, freq, pat_prnr, pmt_pid, pcr_pid, serv_type) VALUES "
                 "($type, $conn, $freq, $pat_prnr, $pmt_pid, $pcr_pid, 1)",
                 TYPE, CONN, FREQ, program, pmt_pid, pcr_pid);
  }
  int streams() { return static_cast<int>(rows("SELECT * FROM estreams_scan_0").size()); }
  // A PMT of program 1 in this version, behind the start of a refresh.
  void refresh(uint8_t version, int es_pid = 0x101) {
    parser.init_pmt_table_scan_from_database(FREQ);
    scan(pmt(1, 0x101, {{2, es_pid, {}}}, {}, version), 0x100, SCAN_PMT);
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
  EXPECT_THAT(scan_at(4, pmt(1, 0x999, {{2, 0x105, {}}}, {}, 7), 0x100, SCAN_PMT), Not(HasSubstr("sql")));
  EXPECT_EQ(streams(), 1);
  EXPECT_FALSE(is_open(pmt_on(0x100)));
}

TEST_F(Pmt_refresh, a_new_version_is_read) {
  refresh(7);
  refresh(8, 0x105);
  EXPECT_EQ(streams(), 2);
}

TEST_F(Pmt_refresh, the_versions_are_the_services_own) {
  refresh(7);
  scan(pmt(2, 0x201, {{2, 0x201, {}}}, {}, 7), 0x200, SCAN_PMT);
  EXPECT_EQ(streams(), 2);
}

TEST_F(Pmt_refresh, a_program_that_is_not_listed_closes_the_filter_with_a_warning) {
  const Bytes section = pmt(3, 0x301, {{2, 0x301, {}}});
  open(pmt_on(0x300));
  EXPECT_EQ(scan_at(1, section, 0x300, SCAN_PMT),
            "WARNING: parse_section_pmt: cannot locate program number in sql cache\n");
  EXPECT_THAT(filters(), IsEmpty());
  EXPECT_EQ(streams(), 0);
  open(pmt_on(0x300));
  EXPECT_EQ(scan_at(0, section, 0x300, SCAN_PMT), "");
}

TEST_F(Pmt_refresh, in_other_states_the_list_is_not_looked_at) {
  for (SCAN_STATE state : {SCAN_NONE, SCAN_PAT, SCAN_EIT}) {
    filter.remove_all();
    open(pmt_on(0x300));
    db.clear_temp_tables(0);
    EXPECT_EQ(scan_at(1, pmt(3, 0x301, {{2, 0x301, {}}}), 0x300, state), "");
    EXPECT_EQ(streams(), 1) << state;
    EXPECT_THAT(filters(), IsEmpty());
  }
}

TEST_F(Pmt_refresh, in_a_full_scan_the_version_is_not_looked_at) {
  scan(pat({{1, 0x100}}));
  scan(pmt(1, 0x101, {{2, 0x101, {}}}, {}, 7), 0x100, SCAN_PAT);
  open(pmt_on(0x100));
  scan(pmt(1, 0x101, {{2, 0x101, {}}}, {}, 7), 0x100, SCAN_PAT);
  EXPECT_EQ(streams(), 2);
}

TEST_F(Pmt_refresh, a_refresh_does_not_touch_the_scan_table_of_services) {
  db.sql_cache(true, 0, "INSERT INTO kanalid_scan_DVBNR (freq, pat_prnr, pcr_pid) VALUES ($freq, 1, 5)", FREQ);
  parser.init_pmt_table_scan_from_database(FREQ);
  scan(pmt(1, 0x101, {{2, 0x101, {}}}), 0x100, SCAN_PMT);
  EXPECT_EQ(text("SELECT pcr_pid FROM kanalid_scan_0"), "5");
}

// --- CAT -------------------------------------------------------------------------------------------------------------

using Cat = Parser_test;

TEST_F(Cat, leaves_its_filter_open_and_stores_nothing) {
  open(CAT);
  EXPECT_THAT(scan_at(4, support::long_section(table::CAT, 0xFFFF, 0, ca(0x102, 0x103))),
              HasSubstr("Parsing descriptor 9, dec 9, oid -1\nCA descriptor SysId: 258, PID: 259 \n"));
  EXPECT_TRUE(is_open(CAT));
}

}  // namespace
