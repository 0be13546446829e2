// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// What an activity listener is told while an adapter is scanned.
#include "base/ids.h"
#include "kelvo/kelvo_run.h"

namespace {

struct Activity {
  int kind;
  int value;
  bool operator==(const Activity&) const = default;
};

class Activities : public Kelvo_run {
 protected:
  static void note(void* data, int kind, int value) {
    auto* self = static_cast<Activities*>(data);
    const std::lock_guard<std::mutex> lock(self->lock_);
    self->seen_.push_back({kind, value});
  }
  void scan_once() {
    make();
    kelvo_->set_activity_listener({note, this});
    ask("a");
    kelvo_.reset();
  }
  size_t count(int kind, int value) const {
    return static_cast<size_t>(std::count(seen_.begin(), seen_.end(), Activity{kind, value}));
  }

  std::mutex lock_;
  std::vector<Activity> seen_;
};

}  // namespace

TEST_F(Activities, every_section_is_parsed_between_beginning_and_end_with_its_table) {
  scan_once();
  EXPECT_GE(count(ACTIVITY_PARSE_BEGIN, table::PAT), 1U);
  EXPECT_EQ(count(ACTIVITY_PARSE_BEGIN, table::PMT), 3U);
  EXPECT_GE(count(ACTIVITY_PARSE_BEGIN, table::NIT_ACTUAL), 1U);
  EXPECT_GE(count(ACTIVITY_PARSE_BEGIN, table::SDT_ACTUAL), 1U);
  bool within = false;
  int table_id = -1;
  for (const Activity& activity : seen_) {
    switch (activity.kind) {
      case ACTIVITY_SECTIONS_BEGIN:
      case ACTIVITY_SECTIONS_END:
        EXPECT_EQ(activity.value, 0);
        EXPECT_EQ(within, activity.kind == ACTIVITY_SECTIONS_END);
        within = !within;
        break;
      case ACTIVITY_PARSE_BEGIN:
        EXPECT_TRUE(within);
        EXPECT_EQ(table_id, -1);
        table_id = activity.value;
        break;
      case ACTIVITY_PARSE_END:
        EXPECT_EQ(activity.value, table_id);
        table_id = -1;
        break;
      default:
        break;
    }
  }
  EXPECT_FALSE(within);
  EXPECT_EQ(table_id, -1);
}

TEST_F(Activities, merge_is_told_with_frequency_and_result) {
  scan_once();
  std::erase_if(seen_,
                [](const Activity& a) { return a.kind != ACTIVITY_MERGE_BEGIN && a.kind != ACTIVITY_MERGE_END; });
  EXPECT_EQ(seen_, (std::vector<Activity>{{ACTIVITY_MERGE_BEGIN, FREQ}, {ACTIVITY_MERGE_END, 2 + 32}}));
}

TEST_F(Activities, filters_are_told_when_they_start_and_end_and_readings_with_their_length) {
  scan_once();
  EXPECT_EQ(count(ACTIVITY_FILTER_STARTED, pid::PAT), 1U);
  EXPECT_EQ(count(ACTIVITY_FILTER_ENDED, pid::PAT), 1U);
  EXPECT_GE(count(ACTIVITY_READ_BEGIN, pid::PAT), 1U);
  EXPECT_GE(count(ACTIVITY_READ_END, 28), 1U) << "of the PAT with three services and the network";
}
