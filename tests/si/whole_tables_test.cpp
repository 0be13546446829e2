// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// PAT, SDT and PMTs that are read whole, and the same sections without that.
#include "si/si_support.h"
#include "si/siparse_parts.h"

using namespace si_support;

namespace {

class Whole_tables_test : public Parser_test {
 protected:
  Whole_tables_test() {
    Receiver_profile profile;
    profile.whole_tables = true;
    parser.parts().read_as(profile);
    open(PAT);
  }
  Texts programmes() { return rows("SELECT pat_prnr, pmt_pid, tstream_id FROM kanalid_scan_0 ORDER BY channel"); }
  Texts streams() {
    return rows(
        "SELECT pat_prnr, es_pid FROM estreams_scan_0 s, kanalid_scan_0 k WHERE s.channel = k.channel "
        "ORDER BY s.oid");
  }
};
class First_sections_test : public Parser_test {};

Bytes of_service(int program, int version = 0) {
  return pmt(program, 1000 + program, {{27, 2000 + program}}, {}, static_cast<uint8_t>(version));
}

Bytes in_section(const Bytes& whole, uint8_t number, uint8_t last, uint8_t version = 0) {
  return with_byte(with_byte(with_byte(whole, 5, static_cast<uint8_t>(0xC1 | version << 1)), 6, number), 7, last);
}

}  // namespace

TEST_F(Whole_tables_test, a_pat_in_two_sections_has_the_programmes_of_both_and_opens_the_rest_at_its_end) {
  EXPECT_EQ(scan_at(1, pat({{3, 0x300}}, 1, 1)), "");
  EXPECT_THAT(filters(), ElementsAre(PAT));
  EXPECT_EQ(scan_at(1, pat({{1, 0x100}, {2, 0x200}}, 0, 1)), "");
  EXPECT_EQ(programmes(), (Texts{"1|256|4097", "2|512|4097", "3|768|4097"}));
  EXPECT_THAT(filters(), UnorderedElementsAre(NIT, pmt_on(0x100), pmt_on(0x200), pmt_on(0x300), SDT));
}

TEST_F(First_sections_test, the_first_of_two_sections_of_a_pat_is_all_and_an_error_is_printed) {
  open(PAT);
  EXPECT_EQ(scan_at(1, pat({{3, 0x300}}, 1, 1)), "ERROR: Fragmented PAT secnr: 1, lastsec 1\n");
  EXPECT_EQ(rows("SELECT pat_prnr FROM kanalid_scan_0"), (Texts{"3"}));
  EXPECT_FALSE(is_open(PAT));
}

TEST_F(Whole_tables_test, a_new_version_or_stream_amid_the_sections_of_a_pat_begins_it_anew) {
  scan(pat({{1, 0x100}}, 0, 1));
  scan(in_section(pat({{2, 0x200}}), 1, 1, 7));
  EXPECT_TRUE(is_open(PAT)) << "the first section of version 7 is missing";
  scan(in_section(pat({{4, 0x400}}), 0, 1, 7));
  EXPECT_EQ(programmes(), (Texts{"4|1024|4097", "2|512|4097"}));
}

TEST_F(Whole_tables_test, a_pat_whose_other_sections_are_never_sent_is_done_when_it_has_come_three_times) {
  for (int times = 0; times < 2; ++times)
    scan(pat({{1, 0x100}}, 0, 1));
  EXPECT_TRUE(is_open(PAT));
  scan(pat({{1, 0x100}}, 0, 1));
  EXPECT_EQ(programmes(), (Texts{"1|256|4097"}));
  EXPECT_FALSE(is_open(PAT));
}

TEST_F(Whole_tables_test, programmes_that_nobody_can_receive_or_that_come_twice_are_left_out) {
  EXPECT_EQ(scan_at(1, pat({{1, 0x100}, {2, 0x1FFF}, {3, 0x12}, {4, 0}, {1, 0x110}, {5, 0x100}})),
            "WARNING: The PAT has program 2 on PID 8191, which is left out\n"
            "WARNING: The PAT has program 3 on PID 18, which is left out\n"
            "WARNING: The PAT has program 4 on PID 0, which is left out\n");
  EXPECT_EQ(programmes(), (Texts{"1|256|4097", "5|256|4097"}));
  EXPECT_THAT(filters(), UnorderedElementsAre(NIT, pmt_on(0x100), SDT)) << "one filter for both";
}

TEST_F(Whole_tables_test, more_programmes_than_a_multiplex_can_have_are_cut_off) {
  const int last = 8;
  for (int number = 0; number <= last; ++number) {
    std::vector<Program> programs;
    for (int i = 0; i < 200; ++i)
      programs.push_back({1 + number * 200 + i, 0x100});
    scan(pat(programs, static_cast<uint8_t>(number), static_cast<uint8_t>(last)));
  }
  EXPECT_EQ(number("SELECT count(*) FROM kanalid_scan_0"), static_cast<int>(Whole_tables::MOST_PROGRAMMES));
}

TEST_F(Whole_tables_test, a_nit_is_read_where_the_pat_says_it_is) {
  for (const auto& [named, read] : {std::pair{0x30, 0x30}, {0x10, 0x10}, {0x12, 0x10}, {0x1FFF, 0x10}}) {
    filter.remove_all();
    db.clear_temp_tables(0);
    parser.parts().begin_network();
    open(PAT);
    scan(pat({{0, named}, {1, 0x100}}));
    ASSERT_TRUE(is_open({read, table::NIT_ACTUAL})) << named;
    scan(nit(0x3001, {}, {}), read);
    EXPECT_FALSE(is_open({read, table::NIT_ACTUAL})) << named;
    EXPECT_EQ(text("SELECT network_id FROM kanalid_scan_0"), "12289") << named;
  }
}

TEST_F(Whole_tables_test, a_filter_of_pmts_stays_until_each_programme_on_its_pid_has_come_once) {
  scan(pat({{1, 0x100}, {2, 0x100}, {3, 0x300}}));
  EXPECT_EQ(scan_at(1, of_service(2), 0x100), "");
  EXPECT_TRUE(is_open(pmt_on(0x100)));
  scan(of_service(2), 0x100);
  scan(of_service(9), 0x100);
  EXPECT_EQ(scan_at(1, of_service(1), 0x100), "");
  EXPECT_FALSE(is_open(pmt_on(0x100)));
  EXPECT_TRUE(is_open(pmt_on(0x300)));
  EXPECT_EQ(streams(), (Texts{"2|2002", "1|2001"})) << "none twice, none of a programme that the PAT does not have";
}

TEST_F(First_sections_test, the_first_of_two_programmes_on_a_pid_takes_both_filters_away) {
  open(PAT);
  scan(pat({{1, 0x100}, {2, 0x100}}));
  EXPECT_EQ(scan_at(1, of_service(2), 0x100), "ERROR: Removed 2 instances of pid 100, Tid 2\n");
  EXPECT_FALSE(is_open(pmt_on(0x100)));
}

TEST_F(Whole_tables_test, pmts_of_known_services_on_one_pid_are_read_again_by_one_filter) {
  filter.remove_all();
  insert(1, 0x100, 1001);
  insert(2, 0x100, 1002);
  parser.init_cache_list(FREQ, SCAN_EIT);
  parser.init_pmt_table_scan_from_database(FREQ);
  EXPECT_THAT(filters(), ElementsAre(pmt_on(0x100)));
  scan(of_service(1, 4), 0x100, SCAN_PMT);
  EXPECT_TRUE(is_open(pmt_on(0x100)));
  scan(of_service(2, 5), 0x100, SCAN_PMT);
  EXPECT_THAT(filters(), IsEmpty());
  EXPECT_EQ(rows("SELECT channel, es_pid FROM estreams_scan_0 ORDER BY oid"), (Texts{"1|2001", "2|2002"}));
}

// --- SDT -------------------------------------------------------------------------------------------------------------

TEST_F(Whole_tables_test, services_without_provider_name_entry_or_descriptor_do_not_hold_up_an_sdt) {
  scan(pat({{1, 0x100}, {2, 0x200}, {3, 0x300}}));
  scan(sdt({{1, service_descriptor(1, "", "One")}, {2, {}}}));
  EXPECT_FALSE(is_open(SDT));
  EXPECT_EQ(rows("SELECT pat_prnr, serv_name, prov_name FROM kanalid_scan_0 ORDER BY channel"),
            (Texts{"1|One|", "2||", "3||"}));
}

TEST_F(First_sections_test, a_service_without_provider_name_holds_up_an_sdt) {
  open(PAT);
  scan(pat({{1, 0x100}}));
  scan(sdt({{1, service_descriptor(1, "", "One")}}));
  EXPECT_TRUE(is_open(SDT));
}

TEST_F(Whole_tables_test, an_sdt_is_read_in_all_its_sections_and_those_of_another_stream_are_left_alone) {
  scan(pat({{1, 0x100}, {2, 0x200}}));
  Bytes other = in_section(sdt({{2, service_descriptor(1, "Else", "Else")}}), 1, 1);
  other = with_byte(other, 4, static_cast<uint8_t>(TS_ID + 1));
  scan(in_section(sdt({{2, service_descriptor(1, "P", "Two")}}), 1, 1));
  scan(other);
  EXPECT_TRUE(is_open(SDT));
  scan(in_section(sdt({{1, service_descriptor(1, "P", "One")}}), 0, 1));
  EXPECT_FALSE(is_open(SDT));
  EXPECT_EQ(rows("SELECT serv_name FROM kanalid_scan_0 ORDER BY channel"), (Texts{"One", "Two"}));
}

// --- What the SDT says of the guide ----------------------------------------------------------------------------------

TEST_F(Whole_tables_test, flags_of_the_guide_are_known_by_service_until_another_sdt_or_multiplex) {
  scan(pat({{1, 0x100}, {2, 0x200}}));
  Bytes flags = sdt({{1, {}}, {2, {}}, {7, {}}});
  flags = with_byte(flags, 13, 0xFE);
  flags = with_byte(flags, 18, 0xFD);
  flags = with_byte(flags, 23, 0xFC);
  scan(flags);
  const auto shown = [&] {
    Texts all;
    for (const Service_found& s : parser.parts().services().all())
      all.push_back(formatted("%d %d %d", s.service_id, s.eit_schedule, s.eit_present_following));
    return all;
  };
  EXPECT_EQ(shown(), (Texts{"1 1 0", "2 0 1", "7 0 0"}));
  EXPECT_EQ(parser.parts().services().find(2)->eit_present_following, true);
  EXPECT_EQ(parser.parts().services().find(3), nullptr);
  parser.parts().begin_network();
  EXPECT_EQ(shown().size(), 3U) << "a rescan keeps them";
  scan(in_section(sdt({{2, {}}}), 0, 0, 1));
  EXPECT_EQ(shown(), (Texts{"2 1 1"}));
  parser.parts().begin_multiplex();
  EXPECT_EQ(shown(), Texts{});
}
