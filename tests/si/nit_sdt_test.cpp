// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// NIT and SDT with their descriptors.
#include <dvbsi++/descriptor.h>

#include "si/si_support.h"

using namespace si_support;

namespace {

// Services 1 and 2 with their names.
Bytes one_and_two(const std::string& provider) {
  return sdt({{1, service_descriptor(1, provider, "One")}, {2, service_descriptor(1, provider, "Two")}});
}

class Nit : public Parser_test {
 protected:
  Nit() {
    scan(pat({{1, 0x100}, {2, 0x200}}));
    scan(one_and_two("Provider"));
    filter.remove_all();
    open(NIT);
  }
};
class Sdt : public Parser_test {
 protected:
  Sdt() {
    scan(pat({{1, 0x100}, {2, 0x200}}));
    filter.remove_all();
    open(SDT);
  }
  const std::string services =
      "SELECT pat_prnr, serv_type, serv_name, prov_name, run_status, free_ca FROM kanalid_scan_0 ORDER BY channel";
};

// --- NIT -------------------------------------------------------------------------------------------------------------

TEST_F(Nit, an_empty_one_sets_the_network_id_and_closes_its_filter) {
  EXPECT_EQ(scan_at(2, nit(0x3001, {}, {})), "");
  EXPECT_THAT(rows("SELECT network_id FROM kanalid_scan_0"), ElementsAre("12289", "12289"));
  EXPECT_THAT(filters(), IsEmpty());
}

TEST_F(Nit, its_end_is_announced_at_3) {
  EXPECT_THAT(scan_at(3, nit(0x3001, {}, {})), HasSubstr("NIT scanned.\n"));
}

TEST_F(Nit, the_name_of_the_network_is_stored_as_utf8) {
  scan(nit(0x3001, network_name("\x05M\xFCnchen"), {}));
  EXPECT_THAT(rows("SELECT network_name FROM kanalid_scan_0"), ElementsAre("M\xC3\xBCnchen", "M\xC3\xBCnchen"));
}

TEST_F(Nit, its_name_is_traced_at_4) {
  const Bytes section = nit(0x3001, network_name("Net One"), {});
  EXPECT_THAT(scan_at(4, section, 16), HasSubstr("\tNIT: Network name descriptor for 12289 is Net One\n"));
  open(NIT);
  EXPECT_THAT(scan_at(3, section, 16), Not(HasSubstr("Network name")));
}

TEST_F(Nit, names_in_several_languages_go_to_the_language_table) {
  const Bytes names = descriptor(tag::MULTILINGUAL_NETWORK_NAME,
                                 join({bytes("est"), sized("V\xC8org"), bytes("deu"), sized("Netz eins")}));
  EXPECT_THAT(scan_at(4, nit(0x3001, names, {})), HasSubstr("Mling network name: Lang deu, Network Netz eins\n"));
  EXPECT_THAT(rows("SELECT source_oid, lang, network_name FROM kanalid_lang_scan_0 ORDER BY source_oid, lang"),
              ElementsAre("1|deu|Netz eins", "1|est|V\xC3\xB6rg", "2|deu|Netz eins", "2|est|V\xC3\xB6rg"));
}

TEST_F(Nit, names_whose_lengths_do_not_add_up_are_skipped) {
  scan(nit(0x3001,
           join({descriptor(tag::MULTILINGUAL_NETWORK_NAME, join({bytes("est"), {200}, bytes("abc")})),
                 network_name("Net")}),
           {}));
  EXPECT_THAT(rows("SELECT * FROM kanalid_lang_scan_0"), IsEmpty());
  EXPECT_EQ(text("SELECT network_name FROM kanalid_scan_0"), "Net");
}

TEST_F(Nit, names_before_one_whose_length_does_not_add_up_are_skipped_with_it) {
  scan(nit(
      0x3001,
      descriptor(tag::MULTILINGUAL_NETWORK_NAME, join({bytes("est"), sized("Whole"), bytes("rus"), {9}, bytes("cut")})),
      {}));
  EXPECT_THAT(rows("SELECT * FROM kanalid_lang_scan_0"), IsEmpty());
}

TEST_F(Nit, a_channel_number_is_stored_for_the_service_of_its_network_and_stream) {
  const std::string all =
      scan_at(4, nit(0x3001, {}, {{TS_ID, 0x20, lcn({{1, 0xFC05}, {2, 0x7C00 | 1023}, {9, 0xFC09}})}}));
  EXPECT_THAT(rows("SELECT pat_prnr, orig_network_id, lcn FROM kanalid_scan_0"), ElementsAre("1|32|5", "2|32|1023"));
  EXPECT_THAT(all, HasSubstr("Tstream id  4097, Original network id 32\n"));
  EXPECT_THAT(all, HasSubstr("NIT: LCN descriptor for freq 506000000, network_id: 12289, lcn_ts_id: 4097, "
                             "lcn_network_id: 32\n\tServiceId 1 VisFlag: 1 LCN: 5\n"));
  EXPECT_THAT(all, HasSubstr("\tServiceId 2 VisFlag: 0 LCN: 1023\n"));
}

TEST_F(Nit, channel_numbers_of_another_stream_or_of_the_network_loop_match_nothing) {
  scan(nit(0x3001, lcn({{1, 0xFC07}}), {{TS_ID + 1, 0x20, lcn({{1, 0xFC05}})}}));
  EXPECT_THAT(rows("SELECT lcn FROM kanalid_scan_0"), Each("65535")) << "as the table begins";
}

TEST_F(Nit, traces_rows_and_streams) {
  const Bytes section = nit(0x3001, lcn({{1, 0xFC07}}), {{TS_ID, 0x20, {}}, {TS_ID + 1, 0x21, {}}});
  const std::string all = scan_at(4, section, 16);
  EXPECT_THAT(all, HasSubstr("NIT: LCN descriptor for freq 506000000, network_id: 12289, lcn_ts_id: -1, "
                             "lcn_network_id: -1\n\tServiceId 1 VisFlag: 1 LCN: 7\n"))
      << "in the loop of the network";
  EXPECT_THAT(all, testing::ContainsRegex("oid [0-9]+ Tstream id  4097, Original network id 32\n"));
  EXPECT_THAT(all, HasSubstr("Tstream id  4098, Original network id 33\n"));
}

TEST_F(Nit, names_and_numbers_are_traced_at_4_only) {
  const Bytes names = descriptor(tag::MULTILINGUAL_NETWORK_NAME, join({bytes("est"), sized("Net")}));
  EXPECT_EQ(scan_at(2, nit(0x3001, names, {{TS_ID, 0x20, lcn({{1, 0xFC05}})}})), "");
  open(NIT);
  const std::string all = scan_at(3, nit(0x3001, names, {{TS_ID, 0x20, lcn({{1, 0xFC05}})}}));
  for (const char* text : {"Mling", "LCN", "ServiceId", "Parsing"})
    EXPECT_THAT(all, Not(HasSubstr(text)));
}

// Rows 1 and 2 are gone, row 3 is another frequency's.
TEST_F(Nit, descriptors_of_both_loops_are_told_the_row_of_the_first_service) {
  db.clear_temp_tables(0);
  db.pat_for_network(0, TYPE, CONN, FREQ + 8000000, 9, TS_ID, 0x100);
  db.pat_for_network(0, TYPE, CONN, FREQ, 1, TS_ID, 0x100);
  const Bytes stuffing = descriptor(tag::STUFFING, {});
  const std::string all = scan_at(4, nit(0x3001, stuffing, {{TS_ID, 0x20, stuffing}}));
  EXPECT_THAT(all, HasSubstr("Parsing descriptor 42, dec 66\nParsing descriptor 42, dec 66, oid 4\noid 4 Tstream"));
  EXPECT_THAT(all, HasSubstr("Parsing descriptor 42, dec 66\nParsing descriptor 42, dec 66, oid 4\nRemoving filter"));
}

TEST_F(Nit, the_last_original_network_id_is_the_one_that_stays) {
  scan(nit(0x3001, {}, {{TS_ID, 0x20, {}}, {TS_ID + 1, 0x21, {}}}));
  EXPECT_THAT(rows("SELECT orig_network_id FROM kanalid_scan_0"), ElementsAre("33", "33"));
}

TEST_F(Nit, the_terrestrial_delivery_system_reaches_the_tuner_table) {
  const Bytes delivery =
      descriptor(tag::TERRESTRIAL_DELIVERY_SYSTEM, {0x03, 0x04, 0x17, 0x40, 0x1F, 0x82, 0x1A, 0xFF, 0xFF, 0xFF, 0xFF});
  const std::string all = scan_at(4, nit(0x3001, {}, {{TS_ID, 0x20, delivery}}));
  EXPECT_THAT(all, HasSubstr("Parsing descriptor 5a, dec 90\nParsing descriptor 5a, dec 90, oid 1\n"));
  EXPECT_THAT(all, HasSubstr("SQL run status is 101\nTerrastrial delivery system descritpor\n"
                             "Cf: 50599744, Bw: 0, Con: 2, Hier: 0, \nHp: 2, Lp: 0, Guard: 3, Tmode 1, OF: 0\n"));
  EXPECT_EQ(text("SELECT freq FROM tuner_table"), "505997440");
}

TEST_F(Nit, a_delivery_system_far_above_the_bands_is_not_stored) {
  const Bytes delivery =
      descriptor(tag::TERRESTRIAL_DELIVERY_SYSTEM, {0xFF, 0xFF, 0xFF, 0xFF, 0x1F, 0x82, 0x1A, 0xFF, 0xFF, 0xFF, 0xFF});
  scan(nit(0x3001, {}, {{TS_ID, 0x20, delivery}}));
  EXPECT_THAT(rows("SELECT * FROM tuner_table"), IsEmpty());
}

TEST_F(Nit, service_and_frequency_lists_are_ignored_in_silence) {
  for (const uint8_t tag : std::initializer_list<uint8_t>{0x41, 0x62}) {
    const Bytes raw = descriptor(tag, {0xFF, 0x01, 0x02});
    Descriptor d(raw.data());
    const std::string heading = formatted("Parsing descriptor %x, dec %d\n", tag, tag);
    EXPECT_EQ(at_level(4, [&] { parser.parse_nit_descriptor_info(&d, FREQ, 1, 2, 3, 4); }), heading);
  }
}

TEST_F(Nit, a_service_descriptor_in_a_nit_stores_nothing) {
  const Bytes names = service_names(names_in("est", "Evil", "Evil"));
  scan(nit(0x3001, {}, {{TS_ID, 0x20, join({service_descriptor(2, "Evil", "Evil"), names})}}));
  EXPECT_THAT(rows("SELECT serv_type, serv_name, prov_name FROM kanalid_scan_0"),
              ElementsAre("1|One|Provider", "1|Two|Provider"));
  EXPECT_THAT(rows("SELECT * FROM kanalid_lang_scan_0"), IsEmpty());
}

TEST_F(Nit, a_descriptor_object_of_another_class_is_ignored) {
  for (const uint8_t tag : std::initializer_list<uint8_t>{0x40, 0x5B, 0x83}) {
    const Bytes raw = descriptor(tag, bytes("abcdefgh"));
    Descriptor d(raw.data());
    parser.parse_nit_descriptor_info(&d, FREQ, 1, 2, TS_ID, 4);
  }
  EXPECT_THAT(rows("SELECT network_name FROM kanalid_scan_0"), Each(testing::AnyOf("NULL", "")));
}

TEST_F(Nit, quirk_one_section_of_it_is_read_whatever_its_number) {
  filter.remove_all();
  open(NIT);
  scan(support::long_section(0x40, 0x3001, 0, join({loop12({}), loop12({})}), 1, 5), 16);
  EXPECT_THAT(filters(), IsEmpty());
  EXPECT_EQ(text("SELECT network_id FROM kanalid_scan_0"), "12289");
}

// --- SDT -------------------------------------------------------------------------------------------------------------

TEST_F(Sdt, stores_type_names_and_status) {
  EXPECT_EQ(scan_at(2, sdt({{1, service_descriptor(1, "Provider", "One"), 4, 0},
                            {2, service_descriptor(2, "Provider", "\x05\xC4"), 1, 1}})),
            "");
  EXPECT_THAT(rows(services), ElementsAre("1|1|One|Provider|4|0", "2|2|\xC3\x84|Provider|1|1"));
}

TEST_F(Sdt, with_every_provider_named_it_closes_its_filter) {
  EXPECT_THAT(scan_at(3, one_and_two("P")), HasSubstr("SDT scanned.\n"));
  EXPECT_THAT(filters(), IsEmpty());
}

TEST_F(Sdt, one_service_without_provider_name_keeps_the_filter_open) {
  const std::string all =
      scan_at(4, sdt({{1, service_descriptor(1, "P", "One")}, {2, service_descriptor(1, "", "Two")}}));
  EXPECT_THAT(filters(), ElementsAre(SDT));
  EXPECT_THAT(all, HasSubstr("SDT entry empty\n"));
  EXPECT_THAT(all, Not(HasSubstr("Moving on to eit scan\n")));
  EXPECT_THAT(all, HasSubstr("SDT scanned.\n"));
}

TEST_F(Sdt, a_service_that_a_later_section_names_completes_it) {
  scan(sdt({{1, service_descriptor(1, "P", "One")}}));
  EXPECT_THAT(filters(), ElementsAre(SDT));
  EXPECT_THAT(scan_at(4, sdt({{2, service_descriptor(1, "P", "Two")}})), HasSubstr("Moving on to eit scan\n"));
  EXPECT_THAT(filters(), IsEmpty());
}

TEST_F(Sdt, services_of_another_frequency_do_not_keep_it_open) {
  db.pat_for_network(0, TYPE, CONN, FREQ + 8000000, 1, TS_ID, 0x100);
  scan(one_and_two("P"));
  EXPECT_THAT(filters(), IsEmpty());
}

TEST_F(Sdt, each_adapter_looks_at_its_own_services) {
  db.create_temp_tables(2);
  Siparse third(&filter, 2, CONN, TYPE, &db);
  scan_with(third, pat({{1, 0x100}}), pid::PAT);
  scan_with(third, sdt({{1, service_descriptor(1, "P", "One")}}), pid::SDT);
  EXPECT_THAT(filters(), Not(Contains(SDT))) << "though the first adapter's have no names";
  EXPECT_THAT(rows("SELECT serv_name FROM kanalid_scan_2"), ElementsAre("One"));
  EXPECT_THAT(rows("SELECT channel FROM kanalid_scan_0 WHERE serv_name = 'One'"), IsEmpty());
}

TEST_F(Sdt, every_service_is_traced_at_4) {
  EXPECT_THAT(scan_at(4, sdt({{258, service_descriptor(0x16, "Prov", "Name"), 4, 1}})),
              HasSubstr("SERV id 258, EIT sch flag 1, EITpresfoll 1, runningstat 4, freecamode 1\n"));
}

// The order matters to who reads along in another connection, and to the messages of a database that fails.
TEST_F(Sdt, stores_the_type_then_the_name_then_the_providers) {
  const std::string all = scan_at(4, sdt({{1, service_descriptor(1, "Prov", "Name")}}));
  EXPECT_TRUE(in_order(all, {"SET serv_type = 1", "serv_name = 'Name'", "prov_name = 'Prov'",
                             "Service type 1, Prov name Prov, Service name Name\n"}))
      << all;
}

TEST_F(Sdt, stores_names_in_a_language_the_providers_first_and_traces_them_then) {
  const Bytes names = service_names(names_in("est", "Prov", "Name"));
  const std::string all = scan_at(4, sdt({{1, names}}));
  EXPECT_TRUE(in_order(all, {"prov_name", "serv_name", "Mling Service Lang est, Prov Prov, Service Name\n"})) << all;
}

TEST_F(Sdt, a_service_that_the_pat_does_not_name_changes_no_row) {
  scan(sdt({{99, service_descriptor(1, "P", "Alien")}}));
  EXPECT_THAT(rows("SELECT channel FROM kanalid_scan_0 WHERE serv_name = 'Alien'"), IsEmpty());
}

TEST_F(Sdt, names_in_several_languages_go_to_the_language_table) {
  const Bytes names =
      descriptor(tag::MULTILINGUAL_SERVICE_NAME, join({bytes("est"), sized("Pakkuja"), sized("Kanal"), bytes("rus"),
                                                       sized("\x01\xB0"), sized("\x01\xB1\xB2\xB3")}));
  EXPECT_THAT(scan_at(4, sdt({{2, names}})), HasSubstr("Mling Service Lang est, Prov Pakkuja, Service Kanal\n"));
  EXPECT_THAT(rows("SELECT source_oid, lang, prov_name, serv_name FROM kanalid_lang_scan_0 ORDER BY lang"),
              ElementsAre("2|est|Pakkuja|Kanal", "2|rus|\xD0\x90|\xD0\x91\xD0\x92\xD0\x93"));
}

// They belong to no row, and go with the scan tables.
TEST_F(Sdt, names_in_several_languages_of_an_unknown_service_are_stored_for_row_0) {
  const Bytes names = service_names(names_in("est", "Pakkuja", "Kanal"));
  scan(sdt({{99, names}}));
  EXPECT_THAT(rows("SELECT source_oid, lang, prov_name, serv_name FROM kanalid_lang_scan_0"),
              ElementsAre("0|est|Pakkuja|Kanal"));
}

TEST_F(Sdt, names_of_service_1_and_10_are_stored_like_any_other) {
  // Row numbers that are also the contexts of events and streams.
  for (int i = 3; i <= 10; ++i)
    db.pat_for_network(0, TYPE, CONN, FREQ, i, TS_ID, 0x300);
  scan(sdt({{1, service_descriptor(1, "P", "First")}, {10, service_descriptor(1, "P", "Tenth")}}));
  EXPECT_THAT(rows("SELECT channel, serv_name FROM kanalid_scan_0 WHERE serv_name != '' ORDER BY channel"),
              ElementsAre("1|First", "10|Tenth"));
}

TEST_F(Sdt, a_channel_number_in_an_sdt_only_warns) {
  const Bytes section = sdt({{1, lcn({{1, 0xFC05}})}});
  EXPECT_EQ(scan_at(1, section, 17), "WARNING: \tLCN descriptor outside NIT\n");
  EXPECT_EQ(scan_at(0, section, 17), "");
  EXPECT_THAT(scan_at(4, section, 17), HasSubstr("\tServiceId 1 VisFlag: 1 LCN: 5\n"));
  EXPECT_THAT(rows("SELECT lcn FROM kanalid_scan_0"), Each("65535")) << "as the table begins";
}

TEST_F(Sdt, quotes_in_names_stay_text) {
  scan(sdt({{1, service_descriptor(1, "a'); DROP TABLE kanalid;--", "%s%n\"'")}}));
  EXPECT_THAT(rows("SELECT serv_name, prov_name FROM kanalid_scan_0 WHERE channel = 1"),
              ElementsAre("%s%n\"'|a'); DROP TABLE kanalid;--"));
}

}  // namespace
