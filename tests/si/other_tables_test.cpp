// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// What is sent about other networks and multiplexes, with and without being asked for.
#include "si/other_tables.h"

#include "si/si_support.h"
#include "si/siparse_parts.h"

using namespace si_support;

namespace {

const Filter NIT_OTHER{pid::NIT, table::NIT_OTHER}, SDT_OTHER{pid::SDT, table::SDT_OTHER};

Bytes of_other(const Bytes& section, int table_id, int ts_id) {
  return with_byte(
      with_byte(with_byte(section, 0, static_cast<uint8_t>(table_id)), 3, static_cast<uint8_t>(ts_id >> 8)), 4,
      static_cast<uint8_t>(ts_id));
}
Bytes other_sdt(int ts_id, int service, const std::string& name, uint8_t version = 0) {
  return with_byte(of_other(sdt({{service, service_descriptor(1, "Naaber", name)}}), table::SDT_OTHER, ts_id), 5,
                   static_cast<uint8_t>(0xC1 | version << 1));
}
Bytes other_nit(int network_id, int ts_id, int service, unsigned number) {
  return with_byte(nit(network_id, {}, {{ts_id, 0x20, lcn({{service, 0xFC00 | number}})}}), 0, table::NIT_OTHER);
}

class Other_tables_test : public Parser_test {
 protected:
  explicit Other_tables_test(bool others = true) {
    Receiver_profile profile = Receiver_profile::any_linux();
    profile.other_networks = others;
    parser.parts().read_as(profile);
    open(PAT);
  }
  Texts names() {
    Texts all;
    for (const auto& name : parser.parts().details().names)
      all.push_back(formatted("%d/%d/%d %d %s of %s", name.original_network_id, name.transport_stream_id,
                              name.service_id, name.type, name.name.c_str(), name.provider.c_str()));
    return all;
  }
  Texts numbers() {
    Texts all;
    for (const auto& number : parser.parts().details().numbers)
      all.push_back(formatted("%d/%d %d%s", number.transport_stream_id, number.service_id, number.lcn,
                              number.other ? " other" : ""));
    return all;
  }
};
class Own_tables_test : public Other_tables_test {
 protected:
  Own_tables_test() : Other_tables_test(false) {}
};

}  // namespace

TEST_F(Other_tables_test, they_are_read_with_a_scan_and_number_and_name_services) {
  scan(pat({{1, 0x100}}));
  EXPECT_THAT(filters(), UnorderedElementsAre(NIT, SDT, pmt_on(0x100), NIT_OTHER, SDT_OTHER));
  scan(other_sdt(7, 70, "Seitse"));
  scan(other_sdt(8, 80, "Kaheksa"));
  scan(other_nit(0x3002, 7, 70, 17));
  EXPECT_EQ(names(), (Texts{"32/7/70 1 Seitse of Naaber", "32/8/80 1 Kaheksa of Naaber"}));
  EXPECT_EQ(numbers(), (Texts{"7/70 17 other"}));
}

TEST_F(Other_tables_test, the_actual_network_s_numbers_count_more_whichever_came_first) {
  scan(pat({{1, 0x100}}));
  scan(other_nit(0x3002, TS_ID, 1, 17));
  scan(nit(0x3001, {}, {{TS_ID, 0x20, lcn({{1, 0xFC05}})}}));
  scan(other_nit(0x3003, TS_ID, 1, 18));
  EXPECT_EQ(numbers(), (Texts{formatted("%d/1 5", TS_ID)}));
}

TEST_F(Other_tables_test, the_filters_go_when_everything_has_come_twice) {
  scan(pat({{1, 0x100}}));
  scan(other_sdt(7, 70, "Seitse"));
  scan(other_sdt(8, 80, "Kaheksa"));
  scan(other_sdt(7, 70, "Seitse"));
  parser.parts().end_other_tables();
  EXPECT_TRUE(is_open(SDT_OTHER)) << "of 8 it is not known whether more come before it again";
  scan(other_sdt(8, 80, "Kaheksa"));
  parser.parts().end_other_tables();
  EXPECT_FALSE(is_open(SDT_OTHER));
  EXPECT_TRUE(is_open(NIT_OTHER)) << "waits for its time, as nothing came";
  EXPECT_TRUE(is_open(SDT)) << "the filter on the same PID stays";
  EXPECT_EQ(names().size(), 2U) << "nothing twice";
}

TEST_F(Other_tables_test, a_new_scan_begins_without_them) {
  scan(pat({{1, 0x100}}));
  scan(other_sdt(7, 70, "Seitse"));
  parser.parts().begin_network();
  EXPECT_THAT(names(), IsEmpty());
}

TEST_F(Own_tables_test, unasked_for_they_are_neither_wanted_nor_read) {
  scan(pat({{1, 0x100}}));
  EXPECT_THAT(filters(), UnorderedElementsAre(NIT, SDT, pmt_on(0x100)));
  EXPECT_EQ(scan_at(1, other_sdt(7, 70, "Seitse")), "WARNING: *********   Unreckognized section 46 *********  \n");
  EXPECT_EQ(scan_at(1, other_nit(0x3002, 7, 70, 17)), "WARNING: *********   Unreckognized section 41 *********  \n");
  EXPECT_THAT(names(), IsEmpty());
  EXPECT_THAT(numbers(), IsEmpty());
}

TEST(Other_tables, are_over_after_their_time_or_two_rounds) {
  Other_tables tables;
  EXPECT_FALSE(tables.is_open());
  tables.open(1000);
  EXPECT_TRUE(tables.is_open());
  EXPECT_FALSE(tables.is_over(1000 + Other_tables::WAIT_MS - 1));
  EXPECT_TRUE(tables.is_over(1000 + Other_tables::WAIT_MS));
  EXPECT_TRUE(tables.arrived(other_sdt(7, 70, "Seitse")));
  EXPECT_FALSE(tables.is_over(1000));
  EXPECT_FALSE(tables.arrived(other_sdt(7, 70, "Seitse")));
  EXPECT_TRUE(tables.is_over(1000));
  EXPECT_TRUE(tables.arrived(other_sdt(7, 70, "Seitse", 1))) << "another version is waited for anew";
  EXPECT_FALSE(tables.is_over(1000));
  EXPECT_FALSE(tables.arrived(Bytes{table::SDT_OTHER, 0xF0, 4, 0, 7, 0xC1, 0})) << "too short to say whose it is";
}
