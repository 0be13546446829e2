// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/number_plan.h"

#include "support/test.h"

namespace {

struct Asking {
  int id;
  int lcn;
  int visible = 1;
  int type = 1;
  int has = 65535;
  int hd = 65535;
  int network = 1;
  int state = 1;
};

std::vector<int> planned(const std::vector<Asking>& all) {
  std::vector<sdbl::Channel_row> rows;
  for (const Asking& a : all) {
    sdbl::Channel_row row;
    row.channel = static_cast<int>(rows.size()) + 1;
    row.orig_network_id = a.network;
    row.pat_prnr = a.id;
    row.lcn = a.has;
    row.serv_type = a.type;
    row.scan_state = a.state;
    row.detail.lcn = a.lcn;
    row.detail.hd_lcn = a.hd;
    row.detail.visible = a.visible;
    rows.push_back(row);
  }
  sdbl::plan_numbers(rows);
  std::vector<int> numbers;
  for (const sdbl::Channel_row& row : rows)
    numbers.push_back(row.lcn);
  return numbers;
}

using Numbers = std::vector<int>;
constexpr int NONE = 65535;

}  // namespace

TEST(Number_plan, gives_each_its_own_and_resolves_clashes_by_one_rule) {
  const struct {
    const char* legend;
    std::vector<Asking> asking;
    Numbers given;
  } CASES[] = {
      {"none clash", {{1, 5}, {2, 6}, {3, NONE}}, {5, 6, NONE}},
      {"the visible one", {{1, 5, 0}, {2, 5, 1}}, {800, 5}},
      {"television before radio before data", {{1, 5, 1, 12}, {2, 5, 1, 2}, {3, 5, 1, 25}}, {801, 800, 5}},
      {"a hidden programme is behind a visible radio", {{1, 5, 0, 1}, {2, 5, 1, 2}}, {800, 5}},
      {"who has it already", {{1, 5}, {2, 5, 1, 1, 5}}, {800, 5}},
      {"the lower id", {{2, 5}, {1, 5}}, {800, 5}},
      {"the lower network", {{1, 5, 1, 1, NONE, NONE, 9}, {2, 5}}, {800, 5}},
      {"not one that is broadcast", {{1, 5}, {2, 5}, {3, 800}, {4, 801}}, {5, 802, 800, 801}},
      {"what a clash gave before stays", {{1, 5, 1, 1, 5}, {2, 5}, {3, 5, 1, 1, 800}}, {5, 801, 800}},
      {"until it is broadcast", {{1, 5, 1, 1, 5}, {2, 5, 1, 1, 800}, {3, 800}}, {5, 801, 800}},
      {"and its own is free again", {{1, 6, 1, 1, 5}, {2, 5, 1, 1, 800}}, {6, 5}},
      {"the same service twice", {{1, 5}, {1, 5}}, {5, 5}},
      {"lost ones are not asked", {{1, 5, 1, 1, 5, NONE, 1, 0}, {2, 5}}, {5, 5}},
      {"HD instead of its own", {{1, 501, 1, 25, NONE, 1}}, {1}},
      {"HD and SD change places", {{1, 1, 1, 1, NONE, 501}, {2, 501, 1, 25, NONE, 1}}, {501, 1}},
      {"HD not where another has it", {{1, 1}, {2, 501, 1, 25, NONE, 1}}, {1, 501}},
  };
  for (const auto& c : CASES)
    EXPECT_EQ(planned(c.asking), c.given) << c.legend;
}
