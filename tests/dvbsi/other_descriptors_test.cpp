// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "dvbsi/parsed.h"
#include "support/test.h"

namespace {

using dvbsi_test::Bytes;
using dvbsi_test::kept;
using support::descriptor;

// Which lengths of a body of zeroes are kept: of tags that have a class, and of those of which nothing but the tag
// is used.
struct Rule {
  uint8_t tag;
  size_t least;
  size_t step;
};

const std::vector<Rule> RULES = {
    {0x02, 3, 1}, {0x03, 1, 1}, {0x09, 4, 1}, {0x0A, 0, 4}, {0x40, 0, 1},  {0x46, 0, 5},  {0x48, 3, 1},  {0x4D, 5, 1},
    {0x4E, 6, 1}, {0x50, 6, 1}, {0x52, 1, 1}, {0x54, 0, 2}, {0x55, 0, 4},  {0x56, 0, 5},  {0x58, 0, 13}, {0x59, 0, 8},
    {0x5A, 7, 1}, {0x5B, 0, 1}, {0x5D, 0, 1}, {0x6A, 0, 1}, {0x83, 0, 1},  {0x65, 1, 1},  {0x6B, 1, 1},  {0x70, 1, 1},
    {0x7E, 1, 1}, {0x4C, 2, 1}, {0x66, 2, 1}, {0x69, 3, 1}, {0x77, 3, 1},  {0x05, 4, 1},  {0x08, 4, 1},  {0x5F, 4, 1},
    {0x78, 4, 1}, {0x7B, 5, 1}, {0x7D, 5, 1}, {0x60, 6, 1}, {0x43, 11, 1}, {0x44, 11, 1}, {0x41, 0, 3},  {0x6F, 0, 3},
    {0x75, 0, 3}, {0x4B, 0, 6}, {0x72, 1, 2}, {0x49, 1, 3}, {0x62, 1, 4},  {0x13, 5, 1},  {0x4A, 7, 1},  {0x57, 3, 1},
    {0x64, 8, 1}, {0x6E, 2, 1}, {0x79, 1, 1}, {0x7C, 2, 1}, {0x7A, 0, 1},
};

TEST(Other_descriptors, lengths_at_which_they_are_kept) {
  for (const Rule& rule : RULES) {
    for (size_t n = 0; n <= 30; ++n) {
      const bool expected = n >= rule.least && (n - rule.least) % rule.step == 0;
      EXPECT_EQ(kept(descriptor(rule.tag, Bytes(n, 0))) == 1, expected) << "tag " << int{rule.tag} << " length " << n;
    }
  }
}

// The length of a cell's subcells is taken two bytes too late, so that the last one is in the descriptor behind.
TEST(Other_descriptors, quirk_cell_frequency_link_looks_behind_its_body) {
  const auto kept_before = [](size_t n, uint8_t behind) {
    return kept(support::join({descriptor(0x6D, Bytes(n, 0)), descriptor(0x06, {behind})})) == 2;
  };
  for (const size_t cells : {1u, 2u, 3u}) {
    EXPECT_TRUE(kept_before(6 * cells, 0));
    EXPECT_FALSE(kept_before(6 * cells, 1));
  }
  EXPECT_TRUE(kept_before(0, 0));
  EXPECT_TRUE(kept_before(0, 1));
  EXPECT_FALSE(kept_before(5, 0));
  EXPECT_TRUE(kept_before(7, 0));  // the length of the descriptor behind, 1, is taken for one byte of subcells
}

TEST(Other_descriptors, all_other_tags_are_kept_at_any_length) {
  std::set<int> ruled = {0x51, 0x5E, 0x6D, 0x7F};
  for (const Rule& rule : RULES)
    ruled.insert(rule.tag);
  if (!dvbsi_test::OWN)
    ruled.insert(0x76);
  for (int tag = 0; tag <= 0xFF; ++tag) {
    if (ruled.count(tag) != 0)
      continue;
    for (size_t n = 0; n <= 14; ++n)
      EXPECT_EQ(kept(descriptor(static_cast<uint8_t>(tag), Bytes(n, 0))), 1u) << tag;
  }
}

struct Body {
  const char* legend;
  uint8_t tag;
  Bytes body;
  bool kept;
};

const std::vector<Body> BODIES = {
    {"carousel id: format 1 needs its object key", 0x13, Bytes{0, 0, 0, 0, 1, 0}, false},
    {"carousel id: format 1 with an object key of 2", 0x13,
     Bytes{0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 9, 9}, true},
    {"carousel id: object key cut", 0x13, Bytes{0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 9},
     false},
    {"linkage: mobile hand-over without its flags", 0x4A, Bytes{0, 0, 0, 0, 0, 0, 8}, false},
    {"linkage: hand-over 0, origin 1: nothing follows", 0x4A, Bytes{0, 0, 0, 0, 0, 0, 8, 0x01}, true},
    {"linkage: hand-over 1 needs a network id", 0x4A, Bytes{0, 0, 0, 0, 0, 0, 8, 0x11, 0}, false},
    {"linkage: hand-over 2 needs a network id", 0x4A, Bytes{0, 0, 0, 0, 0, 0, 8, 0x21, 0}, false},
    {"linkage: hand-over 3 needs a network id", 0x4A, Bytes{0, 0, 0, 0, 0, 0, 8, 0x31, 0}, false},
    {"linkage: hand-over 4 has none", 0x4A, Bytes{0, 0, 0, 0, 0, 0, 8, 0x41}, true},
    {"linkage: hand-over 3 with a network id", 0x4A, Bytes{0, 0, 0, 0, 0, 0, 8, 0x31, 0, 0}, true},
    {"linkage: origin 0 needs a service id", 0x4A, Bytes{0, 0, 0, 0, 0, 0, 8, 0x40, 0}, false},
    {"linkage: network id and service id", 0x4A, Bytes{0, 0, 0, 0, 0, 0, 8, 0x20, 0, 0, 0, 0}, true},
    {"telephone: all digits there", 0x57, Bytes{0, 0b0100101, 0b0010010, 1, 2, 3, 4, 5, 6}, true},
    {"telephone: a digit is missing", 0x57, Bytes{0, 0b0100101, 0b0010010, 1, 2, 3, 4, 5}, false},
    {"data broadcast: selector and text", 0x64, Bytes{0, 0, 0, 1, 9, 'e', 's', 't', 2, 'a', 'b'}, true},
    {"data broadcast: selector too long", 0x64, Bytes{0, 0, 0, 9, 9, 'e', 's', 't', 2, 'a', 'b'}, false},
    {"data broadcast: text too long", 0x64, Bytes{0, 0, 0, 1, 9, 'e', 's', 't', 3, 'a', 'b'}, false},
    {"cell frequency link: one cell with 7 bytes of subcells", 0x6D, Bytes{0, 0, 0, 0, 0, 0, 7, 0, 7, 0, 0, 0, 0},
     true},
    {"cell frequency link: subcells too long", 0x6D, Bytes{0, 0, 0, 0, 0, 0, 7, 0, 8, 0, 0, 0, 0}, false},
    {"announcement: reference 1 needs seven more bytes", 0x6E, Bytes{0, 0, 0x01, 1, 2, 3, 4, 5, 6}, false},
    {"announcement: reference 3 whole, then 4", 0x6E, Bytes{0, 0, 0x03, 1, 2, 3, 4, 5, 6, 7, 0x04}, true},
    {"S2 delivery: scrambling index and stream id", 0x79, Bytes{0xC0, 1, 2, 3, 4}, true},
    {"S2 delivery: scrambling index cut", 0x79, Bytes{0x80, 1, 2}, false},
    {"enhanced AC-3: seven flags, seven bytes", 0x7A, Bytes{0xFF, 1, 2, 3, 4, 5, 6, 7}, true},
    {"enhanced AC-3: seven flags, six bytes", 0x7A, Bytes{0xFF, 1, 2, 3, 4, 5, 6}, false},
    {"enhanced AC-3: bit 3 announces nothing", 0x7A, Bytes{0x08}, true},
    {"AAC: type flag without a type", 0x7C, Bytes{0, 0x80}, false},
    {"AAC: type flag and type", 0x7C, Bytes{0, 0x80, 1}, true},
    {"extension 1: too short", 0x7F, Bytes{1}, false},
    {"extension 1", 0x7F, Bytes{1, 0}, true},
    {"extension 2: too short", 0x7F, Bytes{2, 0, 0, 0}, false},
    {"extension 2", 0x7F, Bytes{2, 0, 0, 0, 0}, true},
    {"extension 4: T2 without its flags", 0x7F, Bytes{4, 0, 0, 0}, true},
    {"extension 4: T2 with half its flags", 0x7F, Bytes{4, 0, 0, 0, 0}, false},
    {"extension 4: T2", 0x7F, Bytes{4, 0, 0, 0, 0, 0}, true},
    {"extension 6: any length", 0x7F, Bytes{6}, true},
};

TEST(Other_descriptors, bodies_at_which_they_are_kept) {
  for (const Body& row : BODIES)
    EXPECT_EQ(kept(descriptor(row.tag, row.body)) == 1, row.kept) << row.legend;
}

TEST(Other_descriptors, empty_kinds_that_hang_other_parsers_end) {
  if (!dvbsi_test::OWN)
    GTEST_SKIP() << "never given to the system's library";
  for (const Bytes& raw : {descriptor(0x51, {}), descriptor(0x5E, {}), descriptor(0x76, {2})})
    EXPECT_EQ(kept(raw), 1u) << int{raw[0]};
  EXPECT_EQ(kept(descriptor(0x7F, {})), 0u);
}

}  // namespace
