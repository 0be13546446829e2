// What the library's own code reaches behind the shell: waking, tags, activity, filters given up.
#include <sys/select.h>

#include <atomic>
#include <thread>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/ids.h"
#include "filter/fake_demux.h"
#include "filter/filter_support.h"
#include "filter/section_filter_parts.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr int FREQ = 506000000;
constexpr int LONG_MS = 900000;  // an end by time-out would be one of the test's

class Filter_parts_test : public testing::Test {
 protected:
  using Told = std::vector<std::pair<int, int>>;

  Filter_parts_test() { filter.parts().set_activity(&listener); }
  ~Filter_parts_test() override { filter.parts().set_activity(nullptr); }

  void run(int pid, int tid = 2) {
    filter.addfilter(pid, tid, FREQ);
    filter.recalculate_filters();
  }
  unsigned read(const support::Bytes& bytes) {
    demux.put(bytes);
    EXPECT_EQ(filter.wait_for_data(LONG_MS), 1);
    return filter.get_section_data(slot(filter, 0), buffer);
  }
  Told take_told() { return std::exchange(told, {}); }

  Told told;
  const Activity_listener listener{
      [](void* data, int kind, int value) { static_cast<Told*>(data)->emplace_back(kind, value); }, &told};
  char buffer[SECTION_BUF_SIZE];
  Fake_demux demux;
  Section_filter filter{demux.path()};
};

TEST_F(Filter_parts_test, a_wake_up_ends_the_next_wait_once_and_is_no_data) {
  run(0x100);
  filter.parts().wake();
  filter.parts().wake();
  EXPECT_EQ(filter.wait_for_data(LONG_MS), 0);
  EXPECT_EQ(filter.get_section_data(slot(filter, 0), buffer), 0u);
  EXPECT_EQ(demux.reads(), 0);
  EXPECT_EQ(filter.wait_for_data(1), 0);
  EXPECT_THAT(take_told(), ElementsAre(std::pair{+ACTIVITY_FILTER_STARTED, 0x100}));
}

TEST_F(Filter_parts_test, a_wake_up_beside_data_leaves_the_number_of_filters_with_data) {
  run(0x100);
  demux.put(support::long_section(2, 1, 0, {}));
  filter.parts().wake();
  EXPECT_EQ(filter.wait_for_data(LONG_MS), 1);
  EXPECT_EQ(filter.get_section_data(slot(filter, 0), buffer), 12u);
}

TEST_F(Filter_parts_test, another_thread_ends_the_wait_under_way) {
  run(0x100);
  std::thread waker([&] { filter.parts().wake(); });
  EXPECT_EQ(filter.wait_for_data(LONG_MS), 0);
  waker.join();
}

TEST_F(Filter_parts_test, tags_are_those_of_the_filter_and_none_of_a_free_slot) {
  run(0x100);
  int pid = 0;
  int freq = 0;
  filter.parts().get_tags(slot(filter, 0), &pid, &freq);
  EXPECT_EQ(std::pair(pid, freq), std::pair(0x100, FREQ));
  filter.remove_all();
  filter.parts().get_tags(slot(filter, 0), &pid, &freq);
  EXPECT_EQ(std::pair(pid, freq), std::pair(-1, 0));
}

TEST_F(Filter_parts_test, a_filter_starts_when_it_is_programmed_and_ends_when_it_is_freed) {
  filter.addfilter(0x100, 2, FREQ);
  EXPECT_THAT(take_told(), IsEmpty());
  filter.recalculate_filters();
  filter.recalculate_filters();
  EXPECT_THAT(take_told(), ElementsAre(std::pair{+ACTIVITY_FILTER_STARTED, 0x100}));
  filter.removefilter(0x100, 2);
  filter.removefilter(0x100, 2);
  EXPECT_THAT(take_told(), ElementsAre(std::pair{+ACTIVITY_FILTER_ENDED, 0x100}));
}

TEST_F(Filter_parts_test, a_filter_that_is_stopped_and_started_again_neither_ends_nor_starts) {
  run(0x100);
  filter.stop_filters();
  filter.start_filters();
  filter.recalculate_filters();
  EXPECT_THAT(take_told(), ElementsAre(std::pair{+ACTIVITY_FILTER_STARTED, 0x100}));
  filter.stop_filters();
  filter.remove_all();
  EXPECT_THAT(take_told(), ElementsAre(std::pair{+ACTIVITY_FILTER_ENDED, 0x100}));
}

TEST_F(Filter_parts_test, a_filter_that_never_ran_does_not_end) {
  filter.addfilter(0x100, 2, FREQ);
  filter.remove_all();
  EXPECT_THAT(take_told(), IsEmpty());
}

TEST_F(Filter_parts_test, a_reading_is_told_with_its_pid_and_its_length) {
  run(0x100);
  take_told();
  EXPECT_EQ(read(support::long_section(2, 1, 0, {})), 12u);
  EXPECT_THAT(take_told(), ElementsAre(std::pair{+ACTIVITY_READ_BEGIN, 0x100}, std::pair{+ACTIVITY_READ_END, 12}));
  EXPECT_EQ(filter.get_section_data(slot(filter, 0), buffer), 0u);
  EXPECT_THAT(take_told(), IsEmpty());
}

TEST_F(Filter_parts_test, a_section_thrown_away_is_told_with_length_0) {
  run(0x100);
  take_told();
  EXPECT_EQ(read({2, 0xB0, 0}), 0u);
  EXPECT_THAT(take_told(), ElementsAre(std::pair{+ACTIVITY_READ_BEGIN, 0x100}, std::pair{+ACTIVITY_READ_END, 0}));
}

TEST_F(Filter_parts_test, a_new_listener_is_told_no_end_of_what_began_before_it) {
  run(0x100);
  filter.parts().set_activity(&listener);
  run(0x101);
  take_told();
  filter.remove_all();
  EXPECT_THAT(take_told(), ElementsAre(std::pair{+ACTIVITY_FILTER_ENDED, 0x101}));
}

TEST(Filter_activity_test, the_destructor_ends_what_still_runs) {
  std::vector<int> ended;
  const Activity_listener listener{[](void* data, int kind, int value) {
                                     if (kind == ACTIVITY_FILTER_ENDED)
                                       static_cast<std::vector<int>*>(data)->push_back(value);
                                   },
                                   &ended};
  const Fake_demux demux;
  {
    Section_filter filter{demux.path()};
    filter.parts().set_activity(&listener);
    filter.addfilter(0x100, 2, FREQ);
    filter.addfilter(0x101, 2, FREQ);
    filter.recalculate_filters();
  }
  EXPECT_THAT(ended, ElementsAre(0x100, 0x101));
}

TEST(Filter_dropped_test, counts_the_filters_given_up_until_all_are_removed) {
  const support::Verbosity mute(-1);
  Section_filter filter{"/nonexistent/demux0"};
  filter.addfilter(pid::PAT, table::PAT, FREQ);
  filter.addfilter(pid::TIME, table::TOT, FREQ);
  const std::string reasons = support::stderr_of([&] {
    for (int attempt = 1; attempt <= MAX_OPEN_RETRIES; ++attempt)
      filter.recalculate_filters();
    EXPECT_EQ(filter.parts().dropped(), 0);
    filter.recalculate_filters();
    EXPECT_EQ(filter.parts().dropped(), 2);
    filter.recalculate_filters();
  });
  EXPECT_EQ(filter.parts().dropped(), 2);
  filter.remove_all();
  EXPECT_EQ(filter.parts().dropped(), 0);
}

}  // namespace
