// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Channel numbers of every flavour, and tables that are watched.
#include "si/channel_numbers.h"

#include "si/si_support.h"
#include "si/siparse_parts.h"

using namespace si_support;

namespace {

constexpr int NETWORK = 0x20;

Bytes specifier(unsigned who) {
  return descriptor(tag::PRIVATE_DATA_SPECIFIER, {0, 0, static_cast<uint8_t>(who >> 8), static_cast<uint8_t>(who)});
}
Bytes numbers(int tag, const std::vector<std::pair<int, unsigned>>& entries) {
  Bytes all = lcn(entries);
  all[0] = static_cast<uint8_t>(tag);
  return all;
}
Bytes list(int id, const std::string& name, const std::string& country,
           const std::vector<std::pair<int, unsigned>>& entries) {
  Bytes services = lcn(entries);
  services.erase(services.begin(), services.begin() + 2);
  return join({u8(id), sized(name), bytes(country), u8(services.size()), services});
}
const Bytes EACEM = specifier(0x28), NORDIG = specifier(0x29), UK = specifier(0x233A);
constexpr unsigned SHOWN = 0xFC00;
constexpr unsigned HIDDEN = 0x7C00;

// "service number/hd h(idden) list"
Texts found(const std::vector<Bytes>& sections, const std::string& country = "",
            const std::vector<Bytes>& others = {}) {
  Channel_numbers all;
  all.begin(country);
  for (const Bytes& section : others)
    all.nit(section, true);
  for (const Bytes& section : sections)
    all.nit(section, false);
  for (const Bytes& section : others)
    all.nit(section, true);
  Texts shown;
  for (const Channel_number& n : all.all())
    shown.push_back(formatted("%d %d%s%s%s", n.service_id, n.number,
                              n.hd_number == Channel_number::NONE ? "" : formatted("/%d", n.hd_number).c_str(),
                              n.visible ? "" : " h", n.list.empty() ? "" : (" " + n.list).c_str()));
  return shown;
}

Bytes nit_with(const Bytes& loop) {
  return nit(0x3001, {}, {{TS_ID, NETWORK, loop}});
}

}  // namespace

TEST(Channel_numbers, of_every_flavour) {
  const struct {
    const char* legend;
    Bytes loop;
    const char* country;
    Texts numbers;
  } CASES[] = {
      {"EACEM", join({EACEM, lcn({{1, SHOWN | 5}, {2, HIDDEN | 1023}})}), "", {"1 5", "2 1023 h"}},
      {"Italy", lcn({{1, SHOWN | 5}, {2, HIDDEN | 6}}), "", {"1 5", "2 6 h"}},
      {"reserved numbers", join({EACEM, lcn({{1, SHOWN}})}), "", {"1 65535"}},
      {"NorDig", join({NORDIG, lcn({{1, 0x8000 | 5000}, {2, 6}, {3, 0xBFFF}})}), "", {"1 5000", "2 6 h", "3 65535"}},
      {"United Kingdom", join({UK, lcn({{1, 0x0005}, {2, SHOWN | 6}})}), "", {"1 5", "2 6"}},
      {"United Kingdom, not visible",
       join({UK, lcn({{1, 5}, {2, 6}}), descriptor(tag::SERVICE_ATTRIBUTE, {0, 1, 0xFE, 0, 2, 0xFF})}),
       "",
       {"1 5 h", "2 6"}},
      {"HD",
       join({EACEM, lcn({{1, SHOWN | 501}}), numbers(tag::HD_LOGICAL_CHANNEL, {{1, SHOWN | 1}})}),
       "",
       {"1 501/1"}},
      {"HD before the others",
       join({EACEM, numbers(tag::HD_LOGICAL_CHANNEL, {{1, SHOWN | 1}}), lcn({{1, SHOWN | 501}})}),
       "",
       {"1 501/1"}},
      {"several descriptors in one loop",
       join({EACEM, lcn({{1, SHOWN | 5}}), lcn({{2, SHOWN | 6}})}),
       "",
       {"1 5", "2 6"}},
      {"several specifiers in one loop",
       join({EACEM, lcn({{1, SHOWN | 5}}), NORDIG, lcn({{2, 0x8000 | 5000}})}),
       "",
       {"1 5", "2 5000"}},
      {"NorDig's second version wins",
       join({NORDIG, lcn({{1, 0x8000 | 5}, {2, 0x8000 | 6}}),
             descriptor(tag::LOGICAL_CHANNEL_LISTS, list(1, "North", "nor", {{1, SHOWN | 15}}))}),
       "",
       {"1 15 North", "2 6"}},
      {"and before the first",
       join({NORDIG, descriptor(tag::LOGICAL_CHANNEL_LISTS, list(1, "North", "nor", {{1, SHOWN | 15}})),
             lcn({{1, 0x8000 | 5}})}),
       "",
       {"1 15 North"}},
      {"the list of the country",
       join({NORDIG, descriptor(tag::LOGICAL_CHANNEL_LISTS, join({list(1, "North", "nor", {{1, SHOWN | 15}}),
                                                                  list(2, "South", "swe", {{1, HIDDEN | 25}})}))}),
       "SWE",
       {"1 25 h South"}},
      {"else the lowest list",
       join({NORDIG, descriptor(tag::LOGICAL_CHANNEL_LISTS, join({list(2, "South", "swe", {{1, SHOWN | 25}}),
                                                                  list(1, "North", "nor", {{1, SHOWN | 15}})}))}),
       "DNK",
       {"1 15 North"}},
      {"a list that is no list under another specifier",
       join({EACEM, descriptor(tag::LOGICAL_CHANNEL_LISTS, list(1, "North", "nor", {{1, SHOWN | 15}}))}),
       "",
       {}},
      {"cut off",
       join({NORDIG, descriptor(tag::LOGICAL_CHANNEL_LISTS, {1, 200, 'N'}), lcn({{1, 0x8000 | 5}})}),
       "",
       {"1 5"}},
  };
  for (const auto& c : CASES)
    EXPECT_EQ(found({nit_with(c.loop)}, c.country), c.numbers) << c.legend;
}

TEST(Channel_numbers, a_specifier_ends_with_its_loop) {
  EXPECT_EQ(found({nit(0x3001, {},
                       {{TS_ID, NETWORK, join({NORDIG, lcn({{1, 0x8000 | 5000}})})},
                        {TS_ID + 1, NETWORK, lcn({{1, SHOWN | 5}})}})}),
            (Texts{"1 5000", "1 5"}));
}

TEST(Channel_numbers, the_own_network_counts_before_others) {
  const Bytes other = nit_with(lcn({{1, SHOWN | 71}, {2, SHOWN | 72}}));
  EXPECT_EQ(found({nit_with(lcn({{1, SHOWN | 5}}))}, "", {other}), (Texts{"1 5", "2 72"}));
}

TEST(Channel_numbers, know_the_network_of_a_stream_and_end_with_the_section) {
  Channel_numbers all;
  all.begin("");
  const Bytes whole = nit_with(lcn({{1, SHOWN | 5}}));
  for (size_t size = 0; size <= whole.size(); ++size)
    all.nit({whole.data(), size}, false);
  EXPECT_EQ(all.original_network_of(TS_ID), NETWORK);
  EXPECT_EQ(all.original_network_of(TS_ID + 1), -1);
}

// --- In the parser, on the same sections -----------------------------------------------------------------------------

class Numbers_parser : public Parser_test {
 protected:
  void read_as(const Receiver_profile& profile) {
    parser.parts().read_as(profile);
    parser.parts().begin_network();
    open(PAT);
    scan(pat({{1, 0x100}, {2, 0x200}}));
    scan(nit(0x3001, {},
             {{TS_ID, NETWORK, join({NORDIG, lcn({{1, 0x8000 | 5000}, {2, 6}})})},
              {TS_ID + 1, 0x99, lcn({{1, SHOWN | 9}})}}));
  }
  Texts stored() { return rows("SELECT lcn FROM kanalid_scan_0 ORDER BY channel"); }
};

TEST_F(Numbers_parser, all_flavours_reach_the_scan_tables_and_the_details) {
  Receiver_profile profile;
  profile.channel_numbers = Receiver_profile::Channel_numbers::ALL;
  read_as(profile);
  EXPECT_EQ(stored(), (Texts{"5000", "6"}));
  const sdbl::Scan_details details = parser.parts().details();
  EXPECT_TRUE(details.nit_came && details.has_numbers);
  EXPECT_EQ(details.original_network_id, NETWORK) << "no SDT has come";
  ASSERT_EQ(details.numbers.size(), 3U);
  EXPECT_EQ(details.numbers[1].visible, false);
}

TEST_F(Numbers_parser, without_that_ten_bits_are_read_whoever_defined_them) {
  read_as(Receiver_profile{});
  EXPECT_EQ(stored(), (Texts{"904", "6"}));
  EXPECT_TRUE(parser.parts().details().numbers.empty());
}

// --- Watched tables --------------------------------------------------------------------------------------------------

class Watched : public Parser_test {
 protected:
  Watched() {
    Receiver_profile profile;
    profile.whole_tables = profile.watch_tables = true;
    parser.parts().read_as(profile);
    open(PAT);
    for (const Bytes& section : {PAT_ONE, SDT_ONE, NIT_ONE})
      scan(section);
  }
  bool changes(const Bytes& section) {
    scan(section, pid_of(section), SCAN_EIT);
    const bool changed = parser.parts().watch()->changed();
    parser.parts().watch()->looked();
    return changed;
  }
  const Bytes PAT_ONE = pat({{1, 0x100}});
  const Bytes SDT_ONE = sdt({{1, service_descriptor(1, "P", "One")}});
  const Bytes NIT_ONE = nit(0x3001, {}, {{TS_ID, NETWORK, {}}});
};

TEST_F(Watched, tables_that_say_the_same_have_not_changed_and_are_not_read) {
  const Texts before = rows("SELECT * FROM kanalid_scan_0");
  for (const Bytes& section : {PAT_ONE, SDT_ONE, NIT_ONE})
    EXPECT_FALSE(changes(section));
  EXPECT_TRUE(changes(sdt({{1, service_descriptor(1, "P", "Uno")}}))) << "another CRC";
  EXPECT_TRUE(changes(with_byte(PAT_ONE, 5, 0xC3))) << "another version";
  EXPECT_TRUE(changes(with_byte(PAT_ONE, 4, 0x02))) << "another stream";
  EXPECT_TRUE(changes(with_byte(with_byte(SDT_ONE, 6, 1), 7, 1))) << "a section that there was not";
  EXPECT_FALSE(changes(nit(0x3002, {}, {{TS_ID, NETWORK, {}}}))) << "another network";
  EXPECT_FALSE(changes(next_of(sdt({{1, {}}})))) << "not current yet";
  EXPECT_EQ(rows("SELECT * FROM kanalid_scan_0"), before);
}

TEST_F(Watched, a_table_that_nobody_has_read_has_changed) {
  parser.parts().begin_multiplex();
  EXPECT_TRUE(changes(SDT_ONE));
}
