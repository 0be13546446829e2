// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Which stored events become what the broadcast says, and which go.
#include "db/guide_plan.h"

#include "support/test.h"

using sdbl::Guide_row;
using sdbl::Guide_wish;

namespace {

constexpr int NOW = 1000;

// Rows in the order of their starts; the entry is the place in the list, from 1. Digests are 7 where nothing differs.
Guide_row row(int id, int start, int duration, bool confirmed = true) {
  return {0, id, start, duration, 7, confirmed};
}
Guide_wish wish(int id, int start, int duration, int64_t digest = 7) {
  return {id, start, duration, digest};
}

// "0 - 2w removed 1": the row of each wish, "-" for a new one, with "w" when it is written; then what goes.
std::string planned(const std::vector<Guide_row>& rows, const std::vector<Guide_wish>& wishes, bool complete = false) {
  const sdbl::Guide_plan plan = plan_guide(rows, wishes, NOW, complete);
  std::string text;
  for (size_t i = 0; i < wishes.size(); ++i)
    text += (text.empty() ? "" : " ") + (plan.row_of[i] < 0 ? "-" : std::to_string(plan.row_of[i])) +
            (plan.to_write[i] ? "w" : "");
  for (const size_t gone : plan.removed)
    text += " removed " + std::to_string(gone);
  return text;
}

TEST(Guide_plan, rows_are_matched_by_id_and_start_then_by_id_then_by_start) {
  const struct {
    const char* legend;
    std::vector<Guide_row> rows;
    std::vector<Guide_wish> wishes;
    const char* expected;
  } cases[] = {
      {"nothing has changed", {row(1, 2000, 100)}, {wish(1, 2000, 100)}, "0"},
      {"a new one", {}, {wish(1, 2000, 100)}, "-w"},
      {"a text alone is new", {row(1, 2000, 100)}, {wish(1, 2000, 100, 8)}, "0w"},
      {"shortened", {row(1, 2000, 100)}, {wish(1, 2000, 50)}, "0w"},
      {"moved", {row(1, 2000, 100)}, {wish(1, 2500, 100)}, "0w"},
      {"another id at its time", {row(1, 2000, 100)}, {wish(2, 2000, 100)}, "0w"},
      {"moved, and another one in its place", {row(1, 2000, 100)}, {wish(2, 2000, 100), wish(1, 2100, 100)}, "-w 0w"},
      {"two change places", {row(1, 2000, 100), row(2, 2100, 100)}, {wish(2, 2000, 100), wish(1, 2100, 100)}, "1w 0w"},
      {"of two rows with the id none is meant",
       {row(1, 2000, 100), row(1, 2100, 100)},
       {wish(1, 2500, 100)},
       "-w removed 0 removed 1"},
      {"of two wishes with the id none is meant",
       {row(1, 2000, 100)},
       {wish(1, 2500, 100), wish(1, 2600, 100)},
       "-w -w removed 0"},
      {"what is over keeps its row: ids are used again", {row(1, 500, 100)}, {wish(1, 2500, 100)}, "-w"},
      {"what is over is matched by its start", {row(1, 500, 100)}, {wish(2, 500, 100)}, "0w"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(planned(c.rows, c.wishes), c.expected) << c.legend;
}

TEST(Guide_plan, rows_go_that_a_wish_overlaps_or_that_are_said_no_more) {
  const struct {
    const char* legend;
    std::vector<Guide_row> rows;
    std::vector<Guide_wish> wishes;
    bool complete;
    const char* expected;
  } cases[] = {
      {"this broadcast said it", {row(1, 2000, 100)}, {}, false, " removed 0"},
      {"an earlier one said it", {row(1, 2000, 100, false)}, {}, false, ""},
      {"and the guide is complete", {row(1, 2000, 100, false)}, {}, true, " removed 0"},
      {"what is over stays", {row(1, 500, 100)}, {}, true, ""},
      {"what ends now is over", {row(1, 900, 100)}, {}, true, ""},
      {"what runs is not", {row(1, 900, 101)}, {}, true, " removed 0"},
      {"overlapped by the one before", {row(1, 2050, 100, false)}, {wish(2, 2000, 100)}, false, "-w removed 0"},
      {"side by side", {row(1, 2100, 100, false)}, {wish(2, 2000, 100)}, false, "-w"},
      {"overlapped by the one behind", {row(1, 1950, 100, false)}, {wish(2, 2000, 100)}, false, "-w removed 0"},
      {"up to the one behind", {row(1, 1900, 100, false)}, {wish(2, 2000, 100)}, false, "-w"},
      {"under a long one that began before the last one",
       {row(1, 2600, 50, false)},
       {wish(2, 2000, 1000), wish(3, 2100, 100)},
       false,
       "-w -w removed 0"},
      {"what is over and overlapped goes", {row(1, 500, 100)}, {wish(2, 550, 100)}, false, "-w removed 0"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(planned(c.rows, c.wishes, c.complete), c.expected) << c.legend;
}

}  // namespace
