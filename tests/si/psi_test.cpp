// PAT, PMT and CAT.
#include <dvbsi++/ca_section.h>

#include "si/si_support.h"

using namespace si_support;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;

namespace {

class Pat : public Parser_test {};
class Pmt : public Parser_test {
 protected:
  const std::string streams =
      "SELECT channel, es_pid, es_type, es_subtype, codec, languages, lang_codes, p1, p2, "
      "ca_sysid, ca_pid FROM estreams_scan_0 ORDER BY oid";
};

TEST_F(Pat, an_empty_pat_opens_nit_and_sdt_only) {
  filter.addfilter(0, 0, FREQ);
  scan(pat({}), 0);
  EXPECT_THAT(filters(), UnorderedElementsAre(Filter(16, 0x40), Filter(17, 0x42)));
  EXPECT_THAT(rows("SELECT * FROM kanalid_scan_0"), IsEmpty());
}

TEST_F(Pat, opens_the_filters_of_the_scan_and_closes_its_own) {
  filter.addfilter(0, 0, FREQ);
  EXPECT_EQ(at_level(2, [&] { scan(pat({{1, 0x100}, {2, 0x200}}), 0); }), "");
  EXPECT_THAT(filters(),
              UnorderedElementsAre(Filter(16, 0x40), Filter(0x100, 0x02), Filter(0x200, 0x02), Filter(17, 0x42)));
  EXPECT_TRUE(all_filters_have_freq());
}

TEST_F(Pat, opens_them_in_the_order_of_the_table_and_its_own_place_goes_to_the_sdt) {
  filter.addfilter(0, 0, FREQ);
  scan(pat({{2, 0x200}, {0, 0x30}, {1, 0x100}}), 0);
  EXPECT_THAT(filters(), ElementsAre(Filter(17, 0x42), Filter(0x30, 0x40), Filter(0x200, 2), Filter(0x100, 2)));
}

TEST_F(Pat, every_program_becomes_a_row) {
  scan(pat({{1, 0x100}, {65535, 0x1FFF}}), 0);
  EXPECT_THAT(rows("SELECT channel, dvb_type, hf_conn, freq, pat_prnr, tstream_id, pmt_pid FROM kanalid_scan_0"),
              ElementsAre("1|1|3|506000000|1|4097|256", "2|1|3|506000000|65535|4097|8191"));
}

TEST_F(Pat, without_a_network_entry_the_nit_is_on_16) {
  scan(pat({{1, 0x100}}), 0);
  EXPECT_THAT(filters(), Contains(Filter(16, 0x40)));
}

TEST_F(Pat, of_two_network_entries_the_last_ones_pid_is_used) {
  const std::string all = at_level(4, [&] { scan(pat({{0, 0x30}, {1, 0x100}, {0, 0x31}}), 0); });
  EXPECT_THAT(all, HasSubstr("NetworkPid 48\nNetworkPid 49\n"));
  EXPECT_THAT(filters(), Contains(Filter(0x31, 0x40)));
  EXPECT_THAT(filters(), Not(Contains(Filter(0x30, 0x40))));
  EXPECT_THAT(filters(), Not(Contains(Filter(16, 0x40))));
}

TEST_F(Pat, a_section_1_of_1_is_reported_as_fragmented_and_still_parsed) {
  filter.addfilter(0, 0, FREQ);
  const Bytes section = pat({{1, 0x100}}, 1, 1);
  EXPECT_EQ(at_level(0, [&] { scan(section, 0); }), "ERROR: Fragmented PAT secnr: 1, lastsec 1\n");
  EXPECT_THAT(filters(), Contains(Filter(0x100, 0x02)));
  filter.remove_all();
  filter.addfilter(0, 0, FREQ);
  EXPECT_EQ(at_level(-1, [&] { scan(section, 0); }), "");
}

TEST_F(Pat, a_first_section_of_two_is_reported_as_fragmented) {
  filter.addfilter(0, 0, FREQ);
  EXPECT_EQ(at_level(0, [&] { scan(pat({{1, 0x100}}, 0, 1), 0); }), "ERROR: Fragmented PAT secnr: 0, lastsec 1\n");
}

TEST_F(Pat, traces_every_program_and_the_end) {
  const std::string all = at_level(4, [&] { scan(pat({{258, 0x100}}), 0); });
  EXPECT_THAT(all, HasSubstr("PAT: ProgramNr: 258, ProgramMapPid: 256, ts_id: 4097\n"));
  EXPECT_THAT(all, HasSubstr("PAT scanned, setting SDT, NIT, PMT\n"));
}

TEST_F(Pat, two_programs_on_one_pid_get_two_filters) {
  scan(pat({{1, 0x100}, {2, 0x100}}), 0);
  EXPECT_THAT(filters(), UnorderedElementsAre(Filter(16, 0x40), Filter(0x100, 2), Filter(0x100, 2), Filter(17, 0x42)));
}

// --- PMT -------------------------------------------------------------------------------------------------------------

TEST_F(Pmt, without_streams_the_pcr_pid_is_stored_and_the_filter_closed) {
  scan(pat({{1, 0x100}}), 0);
  scan(pmt(1, 0x101, {}), 0x100);
  EXPECT_EQ(text("SELECT pcr_pid FROM kanalid_scan_0"), "257");
  EXPECT_THAT(rows(streams), IsEmpty());
  EXPECT_THAT(filters(), Not(Contains(Filter(0x100, 2))));
}

TEST_F(Pmt, every_stream_becomes_a_row_of_its_programs_channel) {
  scan(pat({{9, 0x200}, {1, 0x100}}), 0);
  EXPECT_EQ(at_level(2, [&] { scan(pmt(1, 0x101, {{0x02, 0x101, {}}, {0x04, 0x102, {}}}), 0x100); }), "");
  EXPECT_THAT(rows(streams), ElementsAre("2|257|2|0|||"
                                         "|0|0|0|0",
                                         "2|258|4|0||||0|0|0|0"));
  EXPECT_THAT(filters(), Not(Contains(Filter(0x100, 2))));
}

TEST_F(Pmt, of_a_program_that_the_pat_does_not_name_goes_to_channel_0) {
  filter.addfilter(0x100, 2, FREQ);
  scan(pmt(5, 0x101, {{0x02, 0x101, {}}}), 0x100);
  EXPECT_THAT(rows(streams), ElementsAre(testing::StartsWith("0|257|2|")));
}

TEST_F(Pmt, the_attributes_of_one_stream_do_not_reach_the_next) {
  scan(pat({{1, 0x100}}), 0);
  const Bytes ac3 = join(
      {descriptor(0x6A, {0}), descriptor(0x0A, join({bytes("est"), {0}})), descriptor(0x09, {0x01, 0x02, 0xE1, 0x03})});
  scan(pmt(1, 0x101, {{0x06, 0x102, ac3}, {0x03, 0x103, {}}}), 0x100);
  EXPECT_THAT(rows(streams), ElementsAre("1|258|6|-2147483647|AC3|est ||0|0|258|259", "1|259|3|0||||0|0|0|0"));
}

TEST_F(Pmt, the_languages_of_one_stream_do_not_reach_the_next) {
  scan(pat({{1, 0x100}}), 0);
  const Bytes languages = descriptor(0x0A, join({bytes("est"), {0}, bytes("rus"), {3}}));
  scan(pmt(1, 0x101, {{0x03, 0x103, languages}, {0x03, 0x104, {}}, {0x03, 0x105, languages}}), 0x100);
  EXPECT_THAT(rows("SELECT es_pid, languages, lang_codes FROM estreams_scan_0"),
              ElementsAre("259|est rus |0 3 ", "260||", "261|est rus |0 3 "));
}

TEST_F(Pmt, two_languages_of_a_stream_are_joined_with_blanks) {
  scan(pat({{1, 0x100}}), 0);
  const Bytes languages = descriptor(0x0A, join({bytes("est"), {0}, bytes("rus"), {3}}));
  scan(pmt(1, 0x101, {{0x03, 0x103, languages}}), 0x100);
  EXPECT_EQ(text("SELECT languages || '/' || lang_codes FROM estreams_scan_0"), "est rus /0 3 ");
}

TEST_F(Pmt, quirk_the_audio_type_of_a_single_language_is_too_short_to_be_stored) {
  scan(pat({{1, 0x100}}), 0);
  scan(pmt(1, 0x101, {{0x03, 0x103, descriptor(0x0A, join({bytes("est"), {1}}))}}), 0x100);
  EXPECT_EQ(text("SELECT languages || '/' || lang_codes FROM estreams_scan_0"), "est /");
}

TEST_F(Pmt, subtitles_in_two_languages_become_two_rows) {
  scan(pat({{1, 0x100}}), 0);
  const Bytes subtitling = descriptor(0x59, join({bytes("est"), {0x10, 0, 1, 0, 2}, bytes("rus"), {0x20, 0, 3, 0, 4}}));
  scan(pmt(1, 0x101, {{0x06, 0x104, subtitling}, {0x06, 0x105, {}}}), 0x100);
  EXPECT_THAT(rows("SELECT es_pid, es_subtype, languages, p1, p2 FROM estreams_scan_0 ORDER BY oid"),
              ElementsAre("260|-2147467248|est|2|1", "260|-2147467232|rus|4|3", "261|0||0|0"));
}

TEST_F(Pmt, ca_of_a_stream_is_stored_with_it) {
  scan(pat({{1, 0x100}}), 0);
  scan(pmt(1, 0x101, {{0x02, 0x101, descriptor(0x09, {0x0B, 0x00, 0xE4, 0x56})}}), 0x100);
  EXPECT_EQ(text("SELECT ca_sysid || '/' || ca_pid FROM estreams_scan_0"), "2816/1110");
}

TEST_F(Pmt, quirk_ca_of_the_program_wins_over_the_streams_own) {
  scan(pat({{1, 0x100}}), 0);
  scan(pmt(1, 0x101, {{0x02, 0x101, descriptor(0x09, {0x0B, 0x00, 0xE4, 0x56})}, {0x03, 0x102, {}}},
           descriptor(0x09, {0x05, 0x00, 0xE1, 0x11})),
       0x100);
  EXPECT_THAT(rows("SELECT ca_sysid, ca_pid FROM estreams_scan_0"), ElementsAre("1280|273", "1280|273"));
}

TEST_F(Pmt, ca_of_one_program_does_not_reach_the_next) {
  scan(pat({{1, 0x100}, {2, 0x200}}), 0);
  scan(pmt(1, 0x101, {{0x02, 0x101, {}}}, descriptor(0x09, {0x05, 0x00, 0xE1, 0x11})), 0x100);
  scan(pmt(2, 0x201, {{0x02, 0x201, {}}}), 0x200);
  EXPECT_THAT(rows("SELECT es_pid, ca_sysid, ca_pid FROM estreams_scan_0"), ElementsAre("257|1280|273", "513|0|0"));
}

TEST_F(Pmt, the_last_of_several_ca_descriptors_wins) {
  const Bytes two = join({descriptor(0x09, {0x05, 0x00, 0xE1, 0x11}), descriptor(0x09, {0x0B, 0x00, 0xE1, 0x12})});
  scan(pat({{1, 0x100}, {2, 0x200}}), 0);
  scan(pmt(1, 0x101, {{0x02, 0x101, two}}), 0x100);
  scan(pmt(2, 0x201, {{0x02, 0x201, {}}}, two), 0x200);
  EXPECT_THAT(rows("SELECT es_pid, ca_sysid, ca_pid FROM estreams_scan_0"),
              ElementsAre("257|2816|274", "513|2816|274"));
}

TEST_F(Pmt, a_stream_without_descriptors_has_nothing_of_the_one_before) {
  const Bytes everything =
      join({descriptor(0x6A, {0}), descriptor(0x0A, join({bytes("est"), {0}, bytes("rus"), {3}})),
            descriptor(0x09, {0x01, 0x02, 0xE1, 0x03}), descriptor(0x56, join({bytes("deu"), {2 << 3 | 1, 0x88}}))});
  scan(pat({{1, 0x100}}), 0);
  scan(pmt(1, 0x101, {{0x06, 0x102, everything}, {0x03, 0x103, {}}}), 0x100);
  EXPECT_THAT(rows(streams), ElementsAre("1|258|6|-2147471358|AC3|deu|0 3 |136|1|258|259", "1|259|3|0||||0|0|0|0"));
}

TEST_F(Pmt, subtitles_of_the_programme_loop_are_the_first_streams) {
  scan(pat({{1, 0x100}}), 0);
  scan(
      pmt(1, 0x101, {{0x02, 0x101, {}}, {0x03, 0x102, {}}}, descriptor(0x59, join({bytes("est"), {0x10, 0, 1, 0, 2}}))),
      0x100);
  EXPECT_THAT(rows("SELECT es_pid, es_subtype, languages FROM estreams_scan_0"),
              ElementsAre("257|-2147467248|est", "258|0|"));
}

TEST_F(Pmt, a_fragmented_one_is_reported_and_parsed) {
  scan(pat({{1, 0x100}}), 0);
  EXPECT_EQ(at_level(0,
                     [&] {
                       scan(pmt(1, 0x101, {{2, 0x101, {}}}, {}, 0, 3), 0x100);
                     }),
            "ERROR: Fragmented PMT secnr: 0, lastsec 3\n");
  EXPECT_EQ(rows(streams).size(), 1u);
}

TEST_F(Pmt, a_fragmented_one_is_silent_below_0) {
  filter.addfilter(0x100, 2, FREQ);
  EXPECT_EQ(at_level(-1, [&] { scan(pmt(1, 0x101, {{2, 0x101, {}}}, {}, 0, 3), 0x100); }), "");
}

TEST_F(Pmt, traces_program_and_streams_at_4) {
  scan(pat({{258, 0x100}}), 0);
  const std::string all = at_level(4, [&] { scan(pmt(258, 0x101, {{2, 0x101, {}}}), 0x100); });
  EXPECT_THAT(all, HasSubstr("PMT: Program 258, PID 100, PCR pid 101\n"));
  EXPECT_THAT(all, HasSubstr("Program 258: ES pid 257, ES type 2\n"));
}

TEST_F(Pmt, subtitle_languages_without_a_stream_do_not_reach_another_program) {
  scan(pat({{1, 0x100}, {2, 0x200}}), 0);
  scan(pmt(1, 0x101, {}, descriptor(0x59, join({bytes("est"), {0x10, 0, 1, 0, 2}}))), 0x100);
  scan(pmt(2, 0x201, {{0x02, 0x201, {}}}), 0x200);
  EXPECT_THAT(rows("SELECT es_pid, es_subtype, languages FROM estreams_scan_0"), ElementsAre("513|0|"));
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
};

TEST_F(Pmt_refresh, opens_the_filters_of_the_listed_services) {
  EXPECT_EQ(parser.init_pmt_table_scan_from_database(FREQ), 0);
  EXPECT_THAT(filters(), ElementsAre(Filter(0x100, 2), Filter(0x200, 2)));
  EXPECT_TRUE(all_filters_have_freq());
}

TEST_F(Pmt_refresh, an_empty_list_gives_1_and_no_filter) {
  parser.init_cache_list(FREQ + 8000000, SCAN_EIT);
  EXPECT_EQ(parser.init_pmt_table_scan_from_database(FREQ), 1);
  EXPECT_THAT(filters(), IsEmpty());
}

TEST_F(Pmt_refresh, a_service_without_pcr_pid_gets_no_filter) {
  insert(3, 0x300, 0);
  parser.init_cache_list(FREQ, SCAN_EIT);
  EXPECT_EQ(parser.init_pmt_table_scan_from_database(FREQ), 0);
  EXPECT_THAT(filters(), ElementsAre(Filter(0x100, 2), Filter(0x200, 2)));
}

TEST_F(Pmt_refresh, a_service_without_pmt_pid_gets_no_filter) {
  insert(3, 0, 0x301);
  insert(4, 0x400, 0x401);
  insert(5, 0, 0x501);
  parser.init_cache_list(FREQ, SCAN_EIT);
  EXPECT_EQ(parser.init_pmt_table_scan_from_database(FREQ), 0);
  EXPECT_THAT(filters(), ElementsAre(Filter(0x100, 2), Filter(0x200, 2), Filter(0x400, 2)));
}

TEST_F(Pmt_refresh, the_first_version_seen_counts_as_changed) {
  parser.init_pmt_table_scan_from_database(FREQ);
  scan(pmt(1, 0x101, {{2, 0x101, {}}}, {}, 0), 0x100, SCAN_PMT);
  EXPECT_THAT(rows("SELECT channel, es_pid FROM estreams_scan_0"), ElementsAre("1|257"));
  EXPECT_THAT(filters(), ElementsAre(Filter(0x200, 2)));
}

TEST_F(Pmt_refresh, the_version_last_seen_closes_the_filter_without_touching_the_database) {
  parser.init_pmt_table_scan_from_database(FREQ);
  scan(pmt(1, 0x101, {{2, 0x101, {}}}, {}, 7), 0x100, SCAN_PMT);
  parser.init_pmt_table_scan_from_database(FREQ);
  EXPECT_THAT(filters(), Contains(Filter(0x100, 2)));
  const std::string all = at_level(4, [&] { scan(pmt(1, 0x999, {{2, 0x105, {}}}, {}, 7), 0x100, SCAN_PMT); });
  EXPECT_THAT(all, Not(HasSubstr("sql")));
  EXPECT_EQ(streams(), 1);
  EXPECT_THAT(filters(), Not(Contains(Filter(0x100, 2))));
}

TEST_F(Pmt_refresh, a_new_version_is_read) {
  parser.init_pmt_table_scan_from_database(FREQ);
  scan(pmt(1, 0x101, {{2, 0x101, {}}}, {}, 7), 0x100, SCAN_PMT);
  parser.init_pmt_table_scan_from_database(FREQ);
  scan(pmt(1, 0x101, {{2, 0x105, {}}}, {}, 8), 0x100, SCAN_PMT);
  EXPECT_EQ(streams(), 2);
}

TEST_F(Pmt_refresh, the_versions_are_the_services_own) {
  parser.init_pmt_table_scan_from_database(FREQ);
  scan(pmt(1, 0x101, {{2, 0x101, {}}}, {}, 7), 0x100, SCAN_PMT);
  scan(pmt(2, 0x201, {{2, 0x201, {}}}, {}, 7), 0x200, SCAN_PMT);
  EXPECT_EQ(streams(), 2);
}

TEST_F(Pmt_refresh, a_program_that_is_not_listed_closes_the_filter_with_a_warning) {
  filter.addfilter(0x300, 2, FREQ);
  EXPECT_EQ(at_level(1,
                     [&] {
                       scan(pmt(3, 0x301, {{2, 0x301, {}}}), 0x300, SCAN_PMT);
                     }),
            "WARNING: parse_section_pmt: cannot locate program number in sql cache\n");
  EXPECT_THAT(filters(), IsEmpty());
  EXPECT_EQ(streams(), 0);
  filter.addfilter(0x300, 2, FREQ);
  EXPECT_EQ(at_level(0, [&] { scan(pmt(3, 0x301, {{2, 0x301, {}}}), 0x300, SCAN_PMT); }), "");
}

TEST_F(Pmt_refresh, in_other_states_the_list_is_not_looked_at) {
  for (SCAN_STATE state : {SCAN_NONE, SCAN_PAT, SCAN_EIT}) {
    filter.remove_all();
    filter.addfilter(0x300, 2, FREQ);
    db.clear_temp_tables(0);
    EXPECT_EQ(at_level(1, [&] { scan(pmt(3, 0x301, {{2, 0x301, {}}}), 0x300, state); }), "");
    EXPECT_EQ(streams(), 1) << state;
    EXPECT_THAT(filters(), IsEmpty());
  }
}

TEST_F(Pmt_refresh, in_a_full_scan_the_version_is_not_looked_at) {
  scan(pat({{1, 0x100}}), 0);
  scan(pmt(1, 0x101, {{2, 0x101, {}}}, {}, 7), 0x100, SCAN_PAT);
  filter.addfilter(0x100, 2, FREQ);
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

TEST(Cat, leaves_its_filter_open_and_stores_nothing) {
  support::Temp_dir dir;
  Sdbl db(dir.file("dvb.db").c_str());
  db.create_temp_tables(0);
  Section_filter filter("/nonexistent/demux0");
  Siparse parser(&filter, 0, CONN, TYPE, &db);
  filter.addfilter(1, 1, FREQ);
  Bytes cat = support::long_section(0x01, 0xFFFF, 0, descriptor(0x09, {0x01, 0x02, 0xE1, 0x03}));
  const std::string all = at_level(4, [&] {
    EXPECT_EQ(parser.scan_assembled_section(reinterpret_cast<char*>(cat.data()), 1, FREQ, nullptr, SCAN_PAT), 0);
  });
  EXPECT_THAT(all, HasSubstr("Parsing descriptor 9, dec 9, oid -1\nCA descriptor SysId: 258, PID: 259 \n"));
  EXPECT_EQ(filter.pid_tid_in_list(1, 1), 1);
}

}  // namespace
