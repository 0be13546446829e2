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

TEST_F(Nit, an_empty_one_sets_the_network_id_closes_its_filter_and_is_announced_at_3) {
  EXPECT_EQ(scan_at(2, nit(0x3001, {}, {})), "");
  EXPECT_EQ(rows("SELECT network_id FROM kanalid_scan_0"), (Texts{"12289", "12289"}));
  EXPECT_THAT(filters(), IsEmpty());
  EXPECT_THAT(scan_at(3, nit(0x3001, {}, {})), HasSubstr("NIT scanned.\n"));
}

TEST_F(Nit, the_name_of_the_network_is_stored_as_utf8_and_traced_at_4) {
  const Bytes section = nit(0x3001, network_name("\x05M\xFCnchen"), {});
  EXPECT_THAT(scan_at(4, section), HasSubstr("\tNIT: Network name descriptor for 12289 is M\xC3\xBCnchen\n"));
  EXPECT_EQ(rows("SELECT network_name FROM kanalid_scan_0"), (Texts{"M\xC3\xBCnchen", "M\xC3\xBCnchen"}));
  open(NIT);
  EXPECT_THAT(scan_at(3, section), Not(HasSubstr("Network name")));
}

TEST_F(Nit, names_in_several_languages_go_to_the_language_table) {
  const Bytes names = descriptor(tag::MULTILINGUAL_NETWORK_NAME,
                                 join({bytes("est"), sized("V\xC8org"), bytes("deu"), sized("Netz eins")}));
  EXPECT_THAT(scan_at(4, nit(0x3001, names, {})), HasSubstr("Mling network name: Lang deu, Network Netz eins\n"));
  EXPECT_THAT(rows("SELECT source_oid, lang, network_name FROM kanalid_lang_scan_0 ORDER BY source_oid, lang"),
              ElementsAre("1|deu|Netz eins", "1|est|V\xC3\xB6rg", "2|deu|Netz eins", "2|est|V\xC3\xB6rg"));
}

TEST_F(Nit, names_whose_lengths_do_not_add_up_are_skipped_with_those_before_them) {
  for (const Bytes& names : {join({bytes("est"), {200}, bytes("abc")}),
                             join({bytes("est"), sized("Whole"), bytes("rus"), {9}, bytes("cut")})})
    scan(nit(0x3001, join({descriptor(tag::MULTILINGUAL_NETWORK_NAME, names), network_name("Net")}), {}));
  EXPECT_EQ(table("kanalid_lang_scan_0"), Texts{});
  EXPECT_EQ(text("SELECT network_name FROM kanalid_scan_0"), "Net");
}

TEST_F(Nit, a_channel_number_is_stored_for_the_service_of_its_network_and_stream) {
  EXPECT_THAT(scan_at(4, nit(0x3001, {}, {{TS_ID, 0x20, lcn({{1, 0xFC05}, {2, 0x7C00 | 1023}, {9, 0xFC09}})}})),
              AllOf(HasSubstr("Tstream id  4097, Original network id 32\n"),
                    HasSubstr("NIT: LCN descriptor for freq 506000000, network_id: 12289, lcn_ts_id: 4097, "
                              "lcn_network_id: 32\n\tServiceId 1 VisFlag: 1 LCN: 5\n"),
                    HasSubstr("\tServiceId 2 VisFlag: 0 LCN: 1023\n")));
  EXPECT_EQ(rows("SELECT pat_prnr, orig_network_id, lcn FROM kanalid_scan_0"), (Texts{"1|32|5", "2|32|1023"}));
}

TEST_F(Nit, channel_numbers_of_another_stream_or_of_the_network_loop_match_nothing_and_are_traced) {
  EXPECT_THAT(scan_at(4, nit(0x3001, lcn({{1, 0xFC07}}), {{TS_ID, 0x20, {}}, {TS_ID + 1, 0x21, lcn({{1, 0xFC05}})}})),
              AllOf(HasSubstr("NIT: LCN descriptor for freq 506000000, network_id: 12289, lcn_ts_id: -1, "
                              "lcn_network_id: -1\n\tServiceId 1 VisFlag: 1 LCN: 7\n"),
                    testing::ContainsRegex("oid [0-9]+ Tstream id  4097, Original network id 32\n"),
                    HasSubstr("Tstream id  4098, Original network id 33\n")));
  EXPECT_THAT(rows("SELECT lcn FROM kanalid_scan_0"), Each("65535")) << "as the table begins";
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

Bytes delivery_nit(const Bytes& frequency) {
  const Bytes rest = {0x1F, 0x82, 0x1A, 0xFF, 0xFF, 0xFF, 0xFF};
  return nit(0x3001, {}, {{TS_ID, 0x20, descriptor(tag::TERRESTRIAL_DELIVERY_SYSTEM, join({frequency, rest}))}});
}

TEST_F(Nit, the_terrestrial_delivery_system_reaches_the_tuner_table_unless_far_above_the_bands) {
  scan(delivery_nit({0xFF, 0xFF, 0xFF, 0xFF}));
  EXPECT_EQ(table("tuner_table"), Texts{});
  EXPECT_THAT(scan_at(4, delivery_nit({0x03, 0x04, 0x17, 0x40})),
              AllOf(HasSubstr("Parsing descriptor 5a, dec 90\nParsing descriptor 5a, dec 90, oid 1\n"),
                    HasSubstr("SQL run status is 101\nTerrastrial delivery system descritpor\n"
                              "Cf: 50599744, Bw: 0, Con: 2, Hier: 0, \nHp: 2, Lp: 0, Guard: 3, Tmode 1, OF: 0\n")));
  EXPECT_EQ(rows("SELECT freq FROM tuner_table"), Texts{"505997440"});
}

TEST_F(Nit, service_and_frequency_lists_are_ignored_in_silence) {
  for (const int tag : {tag::SERVICE_LIST, tag::FREQUENCY_LIST}) {
    Descriptor d(descriptor(tag, {0xFF, 0x01, 0x02}).data());
    EXPECT_EQ(messages_at(4, [&] { parser.parse_nit_descriptor_info(&d, FREQ, 1, 2, 3, 4); }),
              formatted("Parsing descriptor %x, dec %d\n", static_cast<unsigned>(tag), tag));
  }
}

TEST_F(Nit, a_service_descriptor_in_a_nit_stores_nothing) {
  const Bytes names = service_names(names_in("est", "Evil", "Evil"));
  scan(nit(0x3001, {}, {{TS_ID, 0x20, join({service_descriptor(2, "Evil", "Evil"), names})}}));
  EXPECT_THAT(rows("SELECT serv_type, serv_name, prov_name FROM kanalid_scan_0"),
              ElementsAre("1|One|Provider", "1|Two|Provider"));
  EXPECT_EQ(table("kanalid_lang_scan_0"), Texts{});
}

TEST_F(Nit, a_descriptor_object_of_another_class_is_ignored) {
  for (const int tag : {tag::NETWORK_NAME, tag::MULTILINGUAL_NETWORK_NAME, tag::LOGICAL_CHANNEL}) {
    Descriptor d(descriptor(tag, bytes("abcdefgh")).data());
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
TEST_F(Sdt, stores_type_name_provider_or_provider_name_in_a_language_in_this_order_and_traces_them_then) {
  const std::pair<Bytes, Texts> cases[] = {
      {service_descriptor(1, "Prov", "Name"),
       {"SET serv_type = 1", "serv_name = 'Name'", "prov_name = 'Prov'",
        "Service type 1, Prov name Prov, Service name Name\n"}},
      {service_names(names_in("est", "Prov", "Name")),
       {"prov_name", "serv_name", "Mling Service Lang est, Prov Prov, Service Name\n"}},
  };
  for (const auto& [raw, parts] : cases) {
    const std::string all = scan_at(4, sdt({{1, raw}}));
    size_t before = 0;
    for (const std::string& part : parts) {
      const size_t at = all.find(part);
      EXPECT_NE(at, std::string::npos) << part;
      EXPECT_GT(at, before) << part;
      before = at;
    }
  }
}

TEST_F(Sdt, a_service_that_the_pat_does_not_name_changes_no_row) {
  scan(sdt({{99, service_descriptor(1, "P", "Alien")}}));
  EXPECT_THAT(rows("SELECT channel FROM kanalid_scan_0 WHERE serv_name = 'Alien'"), IsEmpty());
}

TEST_F(Sdt, names_in_several_languages_go_to_the_language_table) {
  const Bytes names =
      service_names(join({names_in("est", "Pakkuja", "Kanal"), names_in("rus", "\x01\xB0", "\x01\xB1\xB2\xB3")}));
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
  EXPECT_EQ(scan_at(1, section), "WARNING: \tLCN descriptor outside NIT\n");
  EXPECT_EQ(scan_at(0, section), "");
  EXPECT_THAT(scan_at(4, section), HasSubstr("\tServiceId 1 VisFlag: 1 LCN: 5\n"));
  EXPECT_THAT(rows("SELECT lcn FROM kanalid_scan_0"), Each("65535")) << "as the table begins";
}

TEST_F(Sdt, quotes_in_names_stay_text) {
  scan(sdt({{1, service_descriptor(1, "a'); DROP TABLE kanalid;--", "%s%n\"'")}}));
  EXPECT_THAT(rows("SELECT serv_name, prov_name FROM kanalid_scan_0 WHERE channel = 1"),
              ElementsAre("%s%n\"'|a'); DROP TABLE kanalid;--"));
}

}  // namespace
