// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// What the library's own code reaches behind the shell: waking, tags, activity, filters given up.
#include <sys/select.h>

#include "filter/filter_support.h"
#include "filter/section_filter_parts.h"

namespace {

constexpr int LONG_MS = 900000;  // an end by time-out would be one of the test's

// "started 100 ended 100 reading 100 read 12": what a listener was told.
class Filter_parts_test : public Demux_test {
 protected:
  Filter_parts_test() { filter.parts().set_activity(&listener); }
  ~Filter_parts_test() override { filter.parts().set_activity(nullptr); }

  static void note(void* data, int kind, int value) {
    char text[32];
    std::snprintf(text, sizeof text,
                  kind == ACTIVITY_FILTER_STARTED ? "started %x "
                  : kind == ACTIVITY_FILTER_ENDED ? "ended %x "
                  : kind == ACTIVITY_READ_BEGIN   ? "reading %x "
                  : kind == ACTIVITY_READ_END     ? "read %d "
                                                  : "other %d ",
                  value);
    *static_cast<std::string*>(data) += text;
  }
  unsigned read() { return filter.get_section_data(at(0), buffer); }
  unsigned read(const support::Bytes& bytes) {
    demux.put(bytes);
    filter.recalculate_filters();
    EXPECT_EQ(filter.wait_for_data(LONG_MS), 1);
    return read();
  }
  std::pair<int, int> tags() {
    std::pair<int, int> both;
    filter.parts().get_tags(at(0), &both.first, &both.second);
    return both;
  }
  std::string take_told() { return std::exchange(told, {}); }

  std::string told;
  const Activity_listener listener{note, &told};
  char buffer[SECTION_BUF_SIZE];
};

// A host's thread takes the filters away, and wants others, the moment that the section has been read.
TEST_F(Filter_parts_test, a_section_comes_with_the_tags_of_the_filter_that_it_was_read_for) {
  std::atomic<bool> has_read{false};
  filter.parts().set_activity(nullptr);
  std::thread host([&] {
    while (!has_read)
      std::this_thread::yield();
    filter.remove_all();
    want(0x200, 2, 7);
  });
  const Activity_listener when_read{[](void* data, int kind, int) {
                                      if (kind == ACTIVITY_READ_END)
                                        *static_cast<std::atomic<bool>*>(data) = true;
                                    },
                                    &has_read};
  filter.parts().set_activity(&when_read);
  run();
  demux.put(support::long_section(2, 1, 0, {}));
  EXPECT_EQ(filter.wait_for_data(LONG_MS), 1);
  const Section_filter::Parts::Section section = filter.parts().read(at(0), buffer);
  host.join();
  EXPECT_EQ(section.length, 12U);
  EXPECT_EQ(std::pair(section.pid, section.freq), std::pair(0x100, FREQ));
  EXPECT_EQ(tags(), std::pair(0x200, 7)) << "the slot is another filter's by now";
  EXPECT_EQ(filter.parts().read(at(0), buffer).length, 0U) << "which has no data yet";
}

TEST_F(Filter_parts_test, a_wake_up_ends_the_next_wait_once_and_is_no_data) {
  run();
  filter.parts().wake();
  filter.parts().wake();
  EXPECT_EQ(filter.wait_for_data(LONG_MS), 0);
  EXPECT_EQ(read(), 0u);
  EXPECT_EQ(demux.reads(), 0);
  EXPECT_EQ(filter.wait_for_data(1), 0);
  EXPECT_EQ(take_told(), "started 100 ");
}

TEST_F(Filter_parts_test, a_wake_up_beside_data_leaves_the_number_of_filters_with_data) {
  run();
  demux.put(support::long_section(table::PMT, 1, 0, {}));
  filter.parts().wake();
  EXPECT_EQ(filter.wait_for_data(LONG_MS), 1);
  EXPECT_EQ(read(), 12u);
}

TEST_F(Filter_parts_test, another_thread_ends_the_wait_under_way) {
  run();
  std::thread waker([&] { filter.parts().wake(); });
  EXPECT_EQ(filter.wait_for_data(LONG_MS), 0);
  waker.join();
}

TEST_F(Filter_parts_test, tags_are_those_of_the_filter_and_none_of_a_free_slot) {
  run();
  EXPECT_EQ(tags(), std::pair(0x100, FREQ));
  filter.remove_all();
  EXPECT_EQ(tags(), std::pair(-1, 0));
}

TEST_F(Filter_parts_test, a_filter_starts_when_it_is_programmed_and_ends_when_it_is_freed) {
  want(0x100);
  EXPECT_EQ(take_told(), "");
  filter.recalculate_filters();
  filter.recalculate_filters();
  EXPECT_EQ(take_told(), "started 100 ");
  filter.stop_filters();
  filter.start_filters();
  filter.recalculate_filters();
  EXPECT_EQ(take_told(), "") << "neither a stop nor a start";
  filter.removefilter(0x100, 2);
  filter.removefilter(0x100, 2);
  EXPECT_EQ(take_told(), "ended 100 ");
}

TEST_F(Filter_parts_test, a_stopped_filter_ends_and_one_that_never_ran_does_not) {
  run();
  filter.stop_filters();
  want(0x101);
  filter.remove_all();
  EXPECT_EQ(take_told(), "started 100 ended 100 ");
}

TEST_F(Filter_parts_test, a_reading_is_told_with_its_pid_and_its_length_and_0_for_a_section_thrown_away) {
  run();
  take_told();
  EXPECT_EQ(read(support::long_section(table::PMT, 1, 0, {})), 12u);
  EXPECT_EQ(take_told(), "reading 100 read 12 ");
  EXPECT_EQ(read(), 0u);
  EXPECT_EQ(take_told(), "");
  EXPECT_EQ(read({2, 0xB0, 0}), 0u);
  EXPECT_EQ(take_told(), "reading 100 read 0 ");
}

TEST_F(Filter_parts_test, a_new_listener_is_told_no_end_of_what_began_before_it) {
  run();
  filter.parts().set_activity(&listener);
  run(0x101);
  take_told();
  filter.remove_all();
  EXPECT_EQ(take_told(), "ended 101 ");
}

TEST_F(Filter_parts_test, the_destructor_ends_what_still_runs) {
  {
    Section_filter another{demux.path()};
    another.parts().set_activity(&listener);
    another.addfilter(0x100, 2, FREQ);
    another.addfilter(0x101, 2, FREQ);
    another.recalculate_filters();
  }
  EXPECT_EQ(take_told(), "started 100 started 101 ended 100 ended 101 ");
}

TEST(Filter_dropped_test, counts_the_filters_given_up_until_all_are_removed) {
  Section_filter filter{"/nonexistent/demux0"};
  filter.addfilter(pid::PAT, table::PAT, FREQ);
  filter.addfilter(pid::TIME, table::TOT, FREQ);
  (void)messages_at(-1, [&] {
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
