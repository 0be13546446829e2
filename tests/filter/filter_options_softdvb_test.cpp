// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The options of filters on the software adapter, which overflows and drops sections as Linux's demultiplexer does.
#include "filter/filter_support.h"
#include "filter/section_filter_parts.h"
#include "support/softdvb.h"
#include "support/ts_writer.h"

using support::Bytes;

namespace {

constexpr int PID = 0x100;

Bytes pmt(int program, size_t filler = 0) {
  return support::long_section(table::PMT, static_cast<uint16_t>(program), 0,
                               support::join({support::u16(0xE101), support::loop12(Bytes(filler, 0))}));
}

// A filter with these options, what it read, and what it says of it.
class Options_softdvb {
 public:
  explicit Options_softdvb(const Filter_options& options) {
    filter_.parts().configure(options);
    filter_.addfilter(PID, table::PMT, FREQ);
    filter_.recalculate_filters();
  }
  void on_air(const Bytes& section) {
    support::Ts_writer packets;
    packets.section(PID, section);
    support::softdvb_inject(0, packets.bytes);
  }
  // Reads until there is nothing more; how many sections there were.
  int read_all() {
    int sections = 0;
    for (filter_.recalculate_filters(); filter_.wait_for_data(0) > 0; filter_.recalculate_filters())
      sections += filter_.get_section_data(slot(filter_, 0), buffer_) != 0 ? 1 : 0;
    return sections;
  }
  std::pair<int, int> lost() const {
    std::vector<Lost_sections> all;
    filter_.parts().lost(&all);
    return all.empty() ? std::pair(0, 0) : std::pair(all[0].overflows, all[0].crc_errors);
  }
  bool gone() const { return filter_.parts().device_gone(); }
  // A pass of who waits for sections.
  std::string pass() {
    filter_.recalculate_filters();
    (void)filter_.wait_for_data(150);
    return slots(filter_);
  }
  void device_is_back() {
    filter_.parts().close_all();
    filter_.recalculate_filters();
  }

 private:
  const support::Verbosity quiet_{-1};
  Section_filter filter_{"/dev/dvb/adapter0/demux0"};
  char buffer_[SECTION_BUF_SIZE];
};

TEST(Filter_options_softdvb, a_larger_buffer_holds_what_overflows_the_kernels_own) {
  for (const int bytes : {0, 262144}) {
    Options_softdvb filter({.buffer_bytes = bytes});
    for (int i = 0; i < 100; ++i)
      filter.on_air(pmt(i, 1000));
    EXPECT_EQ(filter.read_all(), bytes == 0 ? 0 : 100);
    EXPECT_EQ(filter.lost(), std::pair(bytes == 0 ? 1 : 0, 0));
  }
}

TEST(Filter_options_softdvb, wrong_crcs_are_counted_when_they_are_checked_here) {
  Bytes wrong = pmt(1);
  wrong.back() ^= 1;
  for (const bool here : {false, true}) {
    Options_softdvb filter({.check_crc = here});
    filter.on_air(wrong);
    filter.on_air(pmt(2));
    filter.on_air(wrong);
    EXPECT_EQ(filter.read_all(), 1);
    EXPECT_EQ(filter.lost(), std::pair(0, here ? 2 : 0));
  }
}

TEST(Filter_options_softdvb, a_device_without_a_node_has_gone_and_is_opened_when_it_is_back) {
  support::softdvb_control("fault open(demux0) = ENODEV*1");
  Options_softdvb filter({.watch_device = true});
  filter.on_air(pmt(1));
  EXPECT_EQ(filter.read_all(), 0);
  EXPECT_TRUE(filter.gone());
  filter.device_is_back();
  filter.on_air(pmt(2));
  EXPECT_EQ(filter.read_all(), 1);
  EXPECT_FALSE(filter.gone());
}

TEST(Filter_options_softdvb, a_filter_that_is_refused_once_is_set_again_where_it_is_wanted) {
  for (const char* call : {"DMX_SET_FILTER", "DMX_START"}) {
    for (const int times : {0, 1}) {
      SCOPED_TRACE(call + std::string(" ") + std::to_string(times));
      support::softdvb_control(std::string("fault ") + call + " = EBUSY*1");
      Options_softdvb filter({.set_again = times});
      const auto begin = std::chrono::steady_clock::now();
      std::string list = filter.pass();
      for (int i = 0; i < times * 50 && list != "running 100:2"; ++i)
        list = filter.pass();
      EXPECT_EQ(list, "running 100:2");
      EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(times * 100));
      filter.on_air(pmt(1));
      EXPECT_EQ(filter.read_all(), times);
    }
  }
}

TEST(Filter_options_softdvb, a_filter_that_is_refused_for_ever_is_set_again_as_often_as_is_said) {
  Options_softdvb good({.set_again = 2});
  support::softdvb_control("fault DMX_START = EBUSY");
  std::string list;
  const std::string messages = messages_at(0, [&] {
    Section_filter filter("/dev/dvb/adapter0/demux0");
    filter.parts().configure({.set_again = 2});
    filter.addfilter(PID, table::PMT, FREQ);
    for (int i = 0; i < 5; ++i) {
      filter.recalculate_filters();
      (void)filter.wait_for_data(150);
      list += slots(filter) + "; ";
    }
  });
  support::softdvb_control("clear faults");
  EXPECT_EQ(support::count_of(messages, "ERROR: ioctl DMX_START FILTER failed"), 3U);
  EXPECT_TRUE(list.ends_with("running 100:2; running 100:2; ")) << list;
  good.on_air(pmt(1));
  EXPECT_EQ(good.read_all(), 1) << "which were set before";
}

}  // namespace
