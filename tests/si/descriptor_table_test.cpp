// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The table of descriptors itself.

#include "si/si_support.h"
#include "si/siparse_parts.h"

using namespace si_support;

namespace {

TEST(Descriptor_table, is_sorted_shares_no_loop_between_rows_of_a_tag_and_has_three_tags_of_a_nit_alone) {
  std::map<int, unsigned> loops;
  int before = 0;
  for (const Descriptor_row& row : descriptor_rows()) {
    SCOPED_TRACE(row.name);
    EXPECT_GE(row.tag, before);
    EXPECT_STRNE(row.name, "");
    EXPECT_NE(row.loops & loop::ANY, 0u);
    EXPECT_EQ(loops[row.tag] & row.loops, 0u);
    loops[row.tag] |= row.loops;
    before = row.tag;
  }
  std::set<int> network_only;
  for (const auto& [tag, all] : loops)
    if (all != loop::ANY)
      network_only.insert(tag);
  EXPECT_EQ(network_only, (std::set<int>{tag::SERVICE_LIST, tag::MULTILINGUAL_NETWORK_NAME, tag::FREQUENCY_LIST}));
}

// A section's own findings end with it, whatever loops its descriptors stood in.
class Findings : public Parser_test {};

TEST_F(Findings, of_sections_are_not_those_of_descriptors_given_by_hand) {
  scan(pat({{1, 0x100}}));
  parser.find_create_subtxt_lang("est");
  parser.find_create_epglang("est")->ev_name = "By hand";
  scan(pmt(1, 0x101, {{2, 0x101, subtitling({{"rus", 1}})}}));
  EXPECT_EQ(rows("SELECT languages FROM estreams_scan_0"), Texts{"rus"});
  EXPECT_EQ(parser.find_create_epglang("est")->ev_name, "By hand");
  EXPECT_EQ(parser.parts().found_by_hand().subtitles.list().size(), 1u);
}

}  // namespace
