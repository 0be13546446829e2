// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// What is on, from sections of the guide, as both ways of collecting it store them.
#include "kelvo/now_and_next.h"

#include "si/whole_guide_support.h"

using namespace whole_guide_support;

namespace {

// An event whose title says which one it is: all that is shown.
Show show(int id, int minute, int minutes) {
  return {id, minute, minutes, "Event " + std::to_string(id)};
}

std::string shown_at(Sdbl& database, int minute) {
  Now_next shown;
  EXPECT_TRUE(Now_and_next(&database).read(1, {"eng"}, MIDNIGHT + 60 * minute, &shown));
  const auto text = [](const std::optional<Programme>& event) { return event ? event->title : "-"; };
  return text(shown.now) + " / " + text(shown.next);
}

// 20:00 to 21:00 and 21:00 to 22:00; then the first one takes a quarter of an hour more.
constexpr int EVENING = 1200;
const std::vector<Show> PLANNED[] = {{show(1, EVENING, 60)}, {show(2, EVENING + 60, 60)}};
const std::vector<Show> LONGER[] = {{show(1, EVENING, 75)}, {show(2, EVENING + 75, 60)}};

class Whole_now_next : public testing::Test, protected Whole_guide_bench {
 protected:
  Whole_now_next() {
    insert(1, 256, 257, "First");
    begin();
  }
  // Present and following, a section each.
  void arrive_now(const std::vector<Show> (&sections)[2], int version) {
    for (int number = 0; number < 2; ++number)
      arrive({.table = NOW_TABLE, .version = version, .number = number, .last = 1}, sections[number]);
  }
};

class By_table_now_next : public testing::Test, protected Parser_bench {
 protected:
  By_table_now_next() {
    insert(1, 256, 257, "First");
    parser.init_cache_list(FREQ, SCAN_EIT);
    parser.start_eit_scan(FREQ, SCAN_EIT);
  }
  void arrive_now(const std::vector<Show> (&sections)[2], int version) {
    for (int number = 0; number < 2; ++number)
      scan_with(parser,
                guide_section({.table = NOW_TABLE, .version = version, .number = number, .last = 1}, sections[number]),
                pid::EIT, SCAN_EIT);
  }
};

}  // namespace

TEST_F(Whole_now_next, event_that_runs_longer_than_announced_is_on_until_its_new_end) {
  arrive_now(PLANNED, 0);
  EXPECT_EQ(shown_at(db, EVENING + 65), "Event 2 / -");
  arrive_now(LONGER, 1);
  EXPECT_EQ(shown_at(db, EVENING + 65), "Event 1 / Event 2");
  EXPECT_EQ(shown_at(db, EVENING + 75), "Event 2 / -");
}

TEST_F(Whole_now_next, present_event_hides_what_the_schedule_has_for_its_time) {
  arrive({}, {show(1, EVENING, 60), show(2, EVENING + 60, 30), show(3, EVENING + 90, 30)});
  arrive_now({{show(7, EVENING, 70)}, {show(3, EVENING + 90, 30)}}, 0);
  EXPECT_EQ(shown_at(db, EVENING + 65), "Event 7 / Event 3");
}

TEST_F(By_table_now_next, event_that_runs_longer_than_announced_stays_as_it_was_announced_first) {
  arrive_now(PLANNED, 0);
  arrive_now(LONGER, 1);
  EXPECT_EQ(shown_at(db, EVENING + 65), "Event 2 / -");
}

TEST_F(By_table_now_next, events_are_shown_as_they_are_stored) {
  arrive_now(PLANNED, 0);
  EXPECT_EQ(shown_at(db, EVENING), "Event 1 / Event 2");
}
