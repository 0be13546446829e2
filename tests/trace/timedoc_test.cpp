#include "trace/timedoc.h"

#include <fcntl.h>
#include <unistd.h>

#include <random>

#include <gtest/gtest.h>

#include "base/log.h"
#include "support/support.h"

namespace {

using support::stderr_of;

constexpr unsigned word(const char (&name)[5]) {
  return static_cast<unsigned>(static_cast<unsigned char>(name[0])) << 24 |
         static_cast<unsigned>(static_cast<unsigned char>(name[1])) << 16 |
         static_cast<unsigned>(static_cast<unsigned char>(name[2])) << 8 | static_cast<unsigned char>(name[3]);
}

constexpr unsigned control(unsigned cmd, unsigned type, unsigned id) {
  return cmd << 24 | type << 16 | id;
}

const std::string HEADER = "PNX893x trace\nSPEED 320000000\nMEMSPEED 200000000\nTIME 68570000\n";

class TimedocTest : public testing::Test {
 protected:
  void TearDown() override { verbosity_kelvo = 0; }

  // What convert_to_tdi writes between header and end.
  std::string converted(std::vector<unsigned> words) {
    support::Temp_dir dir;
    const std::string path = dir.file("out.tdi");
    const int fd = open(path.c_str(), O_RDWR | O_CREAT, 0600);
    timedoc_.set_output(fd);
    timedoc_.convert_to_tdi(words.data(), static_cast<int>(words.size()));
    close(fd);
    const std::string text = support::read_file(path);
    EXPECT_EQ(text.substr(0, HEADER.size()), HEADER);
    EXPECT_EQ(text.substr(text.size() - 4), "END\n");
    return text.substr(HEADER.size(), text.size() - HEADER.size() - 4);
  }

  Timedoc timedoc_;
};

TEST_F(TimedocTest, nothing_recorded_is_header_and_end) {
  EXPECT_EQ(converted({}), "");
}

TEST_F(TimedocTest, an_incomplete_last_record_is_ignored) {
  EXPECT_EQ(converted({5, control(2, 0, 0), word("note"), 7, 6, control(2, 0, 0), word("lost")}),
            "NAM 7 0 note\nOCC 7 0 0\nDSC 1 0 7\n");
}

TEST_F(TimedocTest, two_notes_of_one_name_share_an_id_and_one_name_line) {
  EXPECT_EQ(converted({10, control(2, 0, 0), word("tune"), 1, 15, control(2, 0, 0), word("tune"), 0xFFFFFFFF, 15,
                       control(2, 9, 3), word("scan"), 2}),
            "NAM 7 0 tune\nOCC 7 0 0\nDSC 1 0 1\nOCC 7 0 5\nDSC 1 0 -1\nNAM 7 1 scan\nOCC 7 1 5\nDSC 1 1 2\n");
}

TEST_F(TimedocTest, tasks_are_named_once_and_again_when_renamed) {
  EXPECT_EQ(
      converted({0, control(1, 0, 7), word("work"), word("er\0\0"), 4, control(0, 0, 7), word("work"), word("er\0\0"),
                 5, control(3, 0, 7), word("work"), word("er\0\0"), 6, control(4, 0, 7), word("work"), word("er\0\0")}),
      "NAM 0 0 worker\nSTA 0 0 0\nSTO 0 0 4\nNAM 0 0 worker\n");
}

TEST_F(TimedocTest, interrupts_have_names_of_the_chip_and_nest) {
  EXPECT_EQ(converted({0, control(1, 1, 81), 0, 0, 1, control(1, 1, 7), 0, 0, 2, control(0, 1, 7), 0, 0, 3,
                       control(1, 1, 81), 0, 0}),
            "NAM 1 0 GPIO_15\nSTA 1 0 0\nNAM 1 1 TIMER\nDSC 3 0 0\nSTA 1 1 1\nSTO 1 1 2\nSTA 1 0 3\n");
}

TEST_F(TimedocTest, quirk_an_interrupt_out_of_range_goes_on_with_the_last_id) {
  std::string text;
  const std::string said = stderr_of([&] {
    text = converted({0, control(1, 1, 82),     0, 0, 1, control(1, 1, 7),  0, 0, 2, control(1, 1, 9), 0, 0,
                      3, control(0, 1, 0xFFFF), 0, 0, 4, control(5, 1, 82), 0, 0});
  });
  EXPECT_EQ(text, "STA 1 0 0\nNAM 1 0 TIMER\nSTA 1 0 1\nNAM 1 1 I2C0\nDSC 3 0 0\nSTA 1 1 2\nSTO 1 1 3\n");
  EXPECT_EQ(
      said,
      "ERROR: ISR index out of range 0..82ERROR: ISR index out of range 0..82ERROR: ISR index out of range 0..82");
  verbosity_kelvo = -1;
  EXPECT_EQ(stderr_of([&] { converted({0, control(1, 1, 82), 0, 0}); }), "");
}

TEST_F(TimedocTest, objects_of_three_types_share_a_list) {
  EXPECT_EQ(converted({0, control(1, 2, 3), word("obj1"), 0, 1, control(1, 3, 0), word("obj2"), 0, 2, control(0, 2, 3),
                       word("obj1"), 0, 3, control(1, 4, 3), word("even"), word("tful")}),
            "NAM 2 0 SBM_obj1\nSTA 2 0 0\nNAM 3 1 obj2\nSTA 3 1 1\nSTO 2 0 2\nNAM 4 2 eventful\nSTA 4 2 3\n");
}

TEST_F(TimedocTest, agent_interrupts_tell_when_they_are_enabled) {
  EXPECT_EQ(converted({0, control(1, 8, 13), 0, 1, 9, control(0, 8, 13), 0, 1, 10, control(1, 8, 13), 1, 1}),
            "NAM 8 0 TS_IN0_DV\nNAM 7 2 IntEnabled\nOCC 8 0 0\nSTA 8 0 0\nOCC 8 0 9\nSTO 8 0 9\nSTA 8 0 10\n");
  EXPECT_EQ(stderr_of([&] {
              EXPECT_EQ(converted({0, control(0, 8, 82), 0, 0}), "STO 8 0 0\n");
            }),
            "ERROR: AGENT ISR index out of range 0..82");
}

TEST_F(TimedocTest, quirk_a_wrapped_counter_loses_one_tick) {
  verbosity_kelvo = 1;
  std::string text;
  const std::string said = stderr_of([&] {
    text = converted({100, control(2, 0, 0), word("aaaa"), 0, 0xFFFFFFF0, control(2, 0, 0), word("aaaa"), 0, 4,
                      control(2, 0, 0), word("aaaa"), 0, 2, control(2, 0, 0), word("aaaa"), 0});
  });
  // From 0xFFFFFFF0 to 4 are 20 ticks; 19 are counted.
  EXPECT_EQ(text,
            "NAM 7 0 aaaa\nOCC 7 0 0\nDSC 1 0 0\nOCC 7 0 4294967180\nDSC 1 0 0\nNAM 7 1 TimeWrap\nOCC 7 1 "
            "4294967180\nOCC 7 0 4294967199\nDSC 1 0 0\nOCC 7 1 4294967199\nOCC 7 0 4294967196\nDSC 1 0 0\n");
  EXPECT_EQ(said, "WARNING: Time wrap at record 2\nWARNING: Time wrap at record 3\n");
  verbosity_kelvo = 0;
  EXPECT_EQ(stderr_of([&] { converted({9, control(4, 0, 0), 0, 0, 8, control(4, 0, 0), 0, 0}); }), "");
}

TEST_F(TimedocTest, types_and_commands_without_meaning_are_reported_and_skipped) {
  std::string text;
  const std::string said = stderr_of([&] {
    text = converted(
        {0x10, control(1, 6, 2), 0xA, 0xB, 0x11, control(5, 2, 0), word("odd "), 0, 0x12, control(3, 1, 7), 0, 0});
  });
  EXPECT_EQ(text, "NAM 2 0 odd \nNAM 1 0 TIMER\n");
  EXPECT_EQ(said,
            "ERROR: Parse error at entry 0. Time 10, cmd 1 type 6 id 2, data1 a data2 b\n"
            "ERROR: Parse error at entry 1. Time 11, cmd 5 type 2 id 0, data1 6f646420 data2 0\n"
            "ERROR: Parse error at entry 2. Time 12, cmd 3 type 1 id 7, data1 0 data2 0\n");
  verbosity_kelvo = -1;
  EXPECT_EQ(stderr_of([&] { converted({0, control(1, 6, 2), 0, 0}); }), "");
}

TEST_F(TimedocTest, names_are_packed_four_characters_a_word) {
  unsigned first = 1;
  unsigned second = 1;
  timedoc_.tdoc_name(&second, &first, "scanning on");
  EXPECT_EQ(first, word("scan"));
  EXPECT_EQ(second, word("ning"));
  timedoc_.tdoc_name(&second, &first, "ab");
  EXPECT_EQ(first, word("ab\0\0"));
  EXPECT_EQ(second, 0u);
  timedoc_.tdoc_name(&second, &first, "\xC3\xB5");
  EXPECT_EQ(first, 0xC3B50000u);
  EXPECT_STREQ(timedoc_.get_tr_name(word("ning"), word("scan")), "scanning");
  EXPECT_STREQ(timedoc_.get_tr_name(word("lost"), word("ab\0\0")), "ab");
  EXPECT_STREQ(timedoc_.get_tr_name(word("scan")), "scan");
}

TEST_F(TimedocTest, entries_are_found_by_name_and_key) {
  std::vector<TDI_lookup> list;
  bool inserted = false;
  EXPECT_EQ(timedoc_.lookup_insert_id(&list, "a", 1, &inserted), 0);
  EXPECT_TRUE(inserted);
  EXPECT_EQ(timedoc_.lookup_insert_id(&list, "a", 2, &inserted), 1);
  EXPECT_TRUE(inserted);
  EXPECT_EQ(timedoc_.lookup_insert_id(&list, "a", 1, &inserted), 0);
  EXPECT_FALSE(inserted);
  EXPECT_EQ(timedoc_.lookup_insert_id(&list, "b", 1, &inserted), 2);
  EXPECT_TRUE(inserted);
}

TEST_F(TimedocTest, the_recorder_is_built_without_a_device) {
  verbosity_kelvo = 3;
  EXPECT_EQ(stderr_of([] { Timedoc another; }), "TimeDoctor TRACE disabled\n");
  verbosity_kelvo = 2;
  EXPECT_EQ(stderr_of([] { Timedoc another; }), "");
  EXPECT_EQ(stderr_of([&] {
              timedoc_.tdoc_pause();  // not recording: nothing
              timedoc_.tdoc_record();
              timedoc_.tdoc_record();  // once is enough
              timedoc_.tdoc_note("note", 1);
              timedoc_.start_tdoc_ev("event");
              timedoc_.end_tdoc_ev("event");
              timedoc_.tdoc_pause();
              timedoc_.tdoc_reset();
            }),
            "Start timedoc recordingPause Timedoc Recording. Current buffer -1 of -1, 100 %\nClear TimeDoc Buffer\n");
  verbosity_kelvo = 1;
  EXPECT_EQ(stderr_of([&] {
              timedoc_.tdoc_record();
              timedoc_.tdoc_pause();
              timedoc_.tdoc_reset();
            }),
            "");
}

TEST_F(TimedocTest, a_buffer_that_cannot_be_mapped_writes_no_file) {
  support::Temp_dir dir;
  const std::string path = dir.file("trace.tdi");
  const std::string said = stderr_of([&] { timedoc_.write_file(path.c_str(), "tdi"); });
  char expected[64];
  (void)snprintf(expected, sizeof expected, "ERROR: mmap() failed, %p\n", reinterpret_cast<void*>(-1));
  EXPECT_EQ(said, expected);
  EXPECT_NE(access(path.c_str(), F_OK), 0);
  verbosity_kelvo = -1;
  EXPECT_EQ(stderr_of([&] { timedoc_.write_file(path.c_str(), "log"); }), "");
}

TEST_F(TimedocTest, random_records_end_and_count_every_bad_one) {
  std::mt19937 engine(20);
  const auto random = [&engine] { return static_cast<unsigned>(engine()); };
  std::vector<unsigned> words;
  unsigned bad = 0;
  for (int i = 0; i < 5000; ++i) {
    const unsigned type = 5 + random() % 2;  // neither has a meaning
    const unsigned cmd = random() % 2;
    bad += 1;
    words.insert(words.end(), {random(), control(cmd, type, random() % 100), random(), random()});
  }
  std::string text;
  const std::string said = stderr_of([&] { text = converted(words); });
  unsigned reported = 0;
  for (size_t at = 0; (at = said.find("ERROR: Parse error", at)) != std::string::npos; ++at)
    ++reported;
  EXPECT_EQ(reported, bad);
  EXPECT_EQ(text.find("STA"), std::string::npos);
}

}  // namespace
