// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "trace/timedoc.h"

#include "support/messages.h"
#include "trace/tdi_reading.h"

namespace {

using support::messages_at;
using support::prints_at;

constexpr unsigned word(const char (&name)[5]) {
  return static_cast<unsigned>(static_cast<unsigned char>(name[0])) << 24 |
         static_cast<unsigned>(static_cast<unsigned char>(name[1])) << 16 |
         static_cast<unsigned>(static_cast<unsigned char>(name[2])) << 8 | static_cast<unsigned char>(name[3]);
}

constexpr unsigned control(unsigned cmd, unsigned type, unsigned id) {
  return cmd << 24 | type << 16 | id;
}

using Record = std::array<unsigned, 4>;

const std::string HEADER = "PNX893x trace\nSPEED 320000000\nMEMSPEED 200000000\nTIME 68570000\n";

class TimedocTest : public testing::Test {
 protected:
  // What `action` writes to the output.
  template <typename Action>
  std::string written(Action action) {
    const std::string path = dir_.file("out.tdi");
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    timedoc_.set_output(fd);
    action();
    close(fd);
    return support::read_file(path);
  }

  // What convert_to_tdi writes between header and end.
  std::string converted(std::vector<unsigned> words) {
    const std::string text = written([&] { timedoc_.convert_to_tdi(words.data(), static_cast<int>(words.size())); });
    EXPECT_THAT(text, testing::AllOf(testing::StartsWith(HEADER), testing::EndsWith("END\n")));
    return text.substr(HEADER.size(), text.size() - HEADER.size() - 4);
  }

  // That these records give this text, and these messages at that level.
  void expect(const std::vector<unsigned>& words, const std::string& text, const std::string& messages = "",
              int level = 0) {
    EXPECT_THAT([&] { EXPECT_EQ(converted(words), text); }, prints_at(level, messages));
  }

  support::Temp_dir dir_;
  Timedoc timedoc_;
};

TEST_F(TimedocTest, nothing_recorded_is_header_and_end) {
  expect({}, "");
}

TEST_F(TimedocTest, an_incomplete_last_record_is_ignored) {
  expect({5, control(2, 0, 0), word("note"), 7, 6, control(2, 0, 0), word("lost")},
         "NAM 7 0 note\nOCC 7 0 0\nDSC 1 0 7\n");
}

TEST_F(TimedocTest, two_notes_of_one_name_share_an_id_and_one_name_line) {
  expect({10, control(2, 0, 0), word("tune"), 1, 15, control(2, 0, 0), word("tune"), 0xFFFFFFFF, 15, control(2, 9, 3),
          word("scan"), 2},
         "NAM 7 0 tune\nOCC 7 0 0\nDSC 1 0 1\nOCC 7 0 5\nDSC 1 0 -1\nNAM 7 1 scan\nOCC 7 1 5\nDSC 1 1 2\n");
}

TEST_F(TimedocTest, tasks_are_named_once_and_again_when_renamed) {
  expect({0, control(1, 0, 7), word("work"), word("er\0\0"), 4, control(0, 0, 7), word("work"), word("er\0\0"), 5,
          control(3, 0, 7), word("work"), word("er\0\0"), 6, control(4, 0, 7), word("work"), word("er\0\0")},
         "NAM 0 0 worker\nSTA 0 0 0\nSTO 0 0 4\nNAM 0 0 worker\n");
}

TEST_F(TimedocTest, interrupts_have_names_of_the_chip_and_nest) {
  expect({0, control(1, 1, 81), 0, 0, 1, control(1, 1, 7), 0, 0, 2, control(0, 1, 7), 0, 0, 3, control(1, 1, 81), 0, 0},
         "NAM 1 0 GPIO_15\nSTA 1 0 0\nNAM 1 1 TIMER\nDSC 3 0 0\nSTA 1 1 1\nSTO 1 1 2\nSTA 1 0 3\n");
}

TEST_F(TimedocTest, quirk_an_interrupt_out_of_range_goes_on_with_the_last_id) {
  expect({0, control(1, 1, 82),     0, 0, 1, control(1, 1, 7),  0, 0, 2, control(1, 1, 9), 0, 0,
          3, control(0, 1, 0xFFFF), 0, 0, 4, control(5, 1, 82), 0, 0},
         "STA 1 0 0\nNAM 1 0 TIMER\nSTA 1 0 1\nNAM 1 1 I2C0\nDSC 3 0 0\nSTA 1 1 2\nSTO 1 1 3\n",
         "ERROR: ISR index out of range 0..82ERROR: ISR index out of range 0..82ERROR: ISR index out of range 0..82");
  EXPECT_EQ(messages_at(-1, [&] { converted({0, control(1, 1, 82), 0, 0}); }), "");
}

TEST_F(TimedocTest, objects_of_three_types_share_a_list) {
  expect({0, control(1, 2, 3), word("obj1"), 0, 1, control(1, 3, 0), word("obj2"), 0, 2, control(0, 2, 3), word("obj1"),
          0, 3, control(1, 4, 3), word("even"), word("tful")},
         "NAM 2 0 SBM_obj1\nSTA 2 0 0\nNAM 3 1 obj2\nSTA 3 1 1\nSTO 2 0 2\nNAM 4 2 eventful\nSTA 4 2 3\n");
}

TEST_F(TimedocTest, agent_interrupts_tell_when_they_are_enabled) {
  expect({0, control(1, 8, 13), 0, 1, 9, control(0, 8, 13), 0, 1, 10, control(1, 8, 13), 1, 1},
         "NAM 8 0 TS_IN0_DV\nNAM 7 2 IntEnabled\nOCC 8 0 0\nSTA 8 0 0\nOCC 8 0 9\nSTO 8 0 9\nSTA 8 0 10\n");
  expect({0, control(0, 8, 82), 0, 0}, "STO 8 0 0\n", "ERROR: AGENT ISR index out of range 0..82");
}

TEST_F(TimedocTest, quirk_a_wrapped_counter_loses_one_tick) {
  // From 0xFFFFFFF0 to 4 are 20 ticks; 19 are counted.
  expect({100, control(2, 0, 0), word("aaaa"), 0, 0xFFFFFFF0, control(2, 0, 0), word("aaaa"), 0, 4, control(2, 0, 0),
          word("aaaa"), 0, 2, control(2, 0, 0), word("aaaa"), 0},
         "NAM 7 0 aaaa\nOCC 7 0 0\nDSC 1 0 0\nOCC 7 0 4294967180\nDSC 1 0 0\nNAM 7 1 TimeWrap\nOCC 7 1 "
         "4294967180\nOCC 7 0 4294967199\nDSC 1 0 0\nOCC 7 1 4294967199\nOCC 7 0 4294967196\nDSC 1 0 0\n",
         "WARNING: Time wrap at record 2\nWARNING: Time wrap at record 3\n", 1);
  EXPECT_EQ(messages_at(0, [&] { converted({9, control(4, 0, 0), 0, 0, 8, control(4, 0, 0), 0, 0}); }), "");
}

TEST_F(TimedocTest, types_and_commands_without_meaning_are_reported_and_skipped) {
  expect({0x10, control(1, 6, 2), 0xA, 0xB, 0x11, control(5, 2, 0), word("odd "), 0, 0x12, control(3, 1, 7), 0, 0},
         "NAM 2 0 odd \nNAM 1 0 TIMER\n",
         "ERROR: Parse error at entry 0. Time 10, cmd 1 type 6 id 2, data1 a data2 b\n"
         "ERROR: Parse error at entry 1. Time 11, cmd 5 type 2 id 0, data1 6f646420 data2 0\n"
         "ERROR: Parse error at entry 2. Time 12, cmd 3 type 1 id 7, data1 0 data2 0\n");
  EXPECT_EQ(messages_at(-1, [&] { converted({0, control(1, 6, 2), 0, 0}); }), "");
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
  EXPECT_EQ(messages_at(3, [] { Timedoc another; }), "TimeDoctor TRACE disabled\n");
  EXPECT_EQ(messages_at(2, [] { Timedoc another; }), "");
  EXPECT_EQ(messages_at(2,
                        [&] {
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
  EXPECT_EQ(messages_at(1,
                        [&] {
                          timedoc_.tdoc_record();
                          timedoc_.tdoc_pause();
                          timedoc_.tdoc_reset();
                        }),
            "");
}

TEST_F(TimedocTest, a_buffer_that_cannot_be_mapped_writes_no_file) {
  const std::string path = dir_.file("trace.tdi");
  char expected[64];
  (void)snprintf(expected, sizeof expected, "ERROR: mmap() failed, %p\n", reinterpret_cast<void*>(-1));
  EXPECT_EQ(messages_at(0, [&] { timedoc_.write_file(path.c_str(), "tdi"); }), expected);
  EXPECT_NE(access(path.c_str(), F_OK), 0);
  EXPECT_EQ(messages_at(-1, [&] { timedoc_.write_file(path.c_str(), "log"); }), "");
}

TEST_F(TimedocTest, a_third_record_earlier_than_the_second_is_one_wrap) {
  expect({100, control(4, 0, 1), word("task"), 0, 350, control(4, 0, 1), word("task"), 0, 349, control(4, 0, 1),
          word("task"), 0},
         "NAM 0 0 task\nNAM 7 1 TimeWrap\nOCC 7 1 250\n");
}

TEST_F(TimedocTest, each_wrap_occurs_and_the_first_is_named) {
  // 2^32 - 1 ticks each: the running time goes back by one, and round by way of the tick that each wrap loses.
  expect(
      {7, control(0, 2, 0), word("obj "), 0, 6, control(0, 2, 0), word("obj "), 0, 5, control(0, 2, 0), word("obj "), 0,
       5, control(0, 2, 0), word("obj "), 0, 0, control(0, 2, 0), word("obj "), 0},
      "NAM 2 0 obj \nSTO 2 0 0\n"
      "NAM 7 1 TimeWrap\nOCC 7 1 0\nSTO 2 0 4294967294\n"
      "OCC 7 1 4294967294\nSTO 2 0 4294967292\n"
      "STO 2 0 4294967292\n"
      "OCC 7 1 4294967292\nSTO 2 0 4294967286\n",
      "WARNING: Time wrap at record 1\nWARNING: Time wrap at record 2\nWARNING: Time wrap at record 4\n", 1);
}

TEST_F(TimedocTest, a_record_of_type_6_is_an_error_and_nothing_else) {
  expect({0, control(4, 0, 1), 0x41000000, 0, 1, control(0, 6, 1), 2, 3}, "NAM 0 0 A\n",
         "ERROR: Parse error at entry 1. Time 1, cmd 0 type 6 id 1, data1 2 data2 3\n");
}

TEST_F(TimedocTest, the_last_interrupt_with_a_name_is_81) {
  expect({0, control(5, 1, 82), 0, 0}, "", "ERROR: ISR index out of range 0..82");
  expect({0, control(0, 1, 81), 0, 0, 0, control(0, 8, 81), 0, 0},
         "NAM 1 0 GPIO_15\nSTO 1 0 0\nNAM 8 0 GPIO_15\nSTO 8 0 0\n", "");
}

TEST_F(TimedocTest, quirk_the_last_id_of_any_kind_is_gone_on_with) {
  const Record records[] = {{0, control(4, 0, 1), word("one "), 0}, {0, control(4, 0, 2), word("two "), 0},
                            {1, control(1, 8, 82), 0, 1},           {2, control(1, 1, 7), 0, 0},
                            {3, control(2, 0, 0), word("note"), 0}, {4, control(2, 0, 0), word("mark"), 0},
                            {5, control(1, 1, 100), 0, 0},          {6, control(3, 8, 100), 0, 0}};
  std::vector<unsigned> words;
  for (const Record& record : records)
    words.insert(words.end(), record.begin(), record.end());
  expect(words,
         "NAM 0 0 one \nNAM 0 1 two \nSTA 8 1 1\nNAM 1 0 TIMER\nSTA 1 0 2\nNAM 7 0 note\nOCC 7 0 3\n"
         "DSC 1 0 0\nNAM 7 1 mark\nOCC 7 1 4\nDSC 1 1 0\nSTA 1 1 5\n",
         "ERROR: AGENT ISR index out of range 0..82ERROR: ISR index out of range 0..82"
         "ERROR: AGENT ISR index out of range 0..82");
}

TEST_F(TimedocTest, names_end_at_a_zero_byte_and_may_hold_any_other) {
  // The bytes behind a zero are no part of the name, but the key of a note or an object has them.
  expect({0, control(2, 0, 0), word("a\0b\0"), 0, 0, control(2, 0, 0), word("a\0c\0"), 0, 0, control(2, 0, 0), 0, 0},
         "NAM 7 0 a\nOCC 7 0 0\nDSC 1 0 0\nNAM 7 1 a\nOCC 7 1 0\nDSC 1 1 0\nNAM 7 2 \nOCC 7 2 0\nDSC 1 2 0\n");
  expect({0, control(4, 0, 1), word("ab\0\0"), word("lost"), 0, control(4, 0, 1), word("ab\0\0"), 0}, "NAM 0 0 ab\n");
  expect({0, control(1, 4, 0), 0xC3B57574u, 0xFF25730Au}, "NAM 4 0 \xC3\xB5ut\xFF%s\n\nSTA 4 0 0\n");
}

TEST_F(TimedocTest, a_negative_number_of_words_is_nothing) {
  EXPECT_EQ(written([&] {
              for (const int words : {-1, INT_MIN})
                timedoc_.convert_to_tdi(nullptr, words);
            }),
            HEADER + "END\n" + HEADER + "END\n");
}

TEST_F(TimedocTest, lines_are_cut_at_255_bytes_and_go_nowhere_at_first) {
  timedoc_.printf_tdi("%s", "nowhere");
  EXPECT_EQ(written([&] { timedoc_.printf_tdi("%s", std::string(300, 'x').c_str()); }), std::string(255, 'x'));
}

// Records of every kind, right and wrong, from few times, ids and names, so that they meet again.
std::vector<unsigned> random_records(unsigned seed, int count) {
  std::mt19937 engine(seed);
  const auto below = [&engine](size_t n) { return static_cast<size_t>(engine() % n); };
  const auto any = [&](std::initializer_list<unsigned> from) { return *(from.begin() + below(from.size())); };
  const auto data = [&] {
    return below(10) == 0 ? static_cast<unsigned>(engine())
                          : any({0, 1, word("scan"), word("ning"), word("a\0b\0"), 0xC3B57574u, 0xFFFFFFFFu});
  };
  std::vector<unsigned> words;
  unsigned time = static_cast<unsigned>(engine());
  for (int i = 0; i < count; ++i) {
    time = below(8) == 0 ? static_cast<unsigned>(engine()) : time + static_cast<unsigned>(below(1000));
    const unsigned cmd = any({0, 0, 0, 1, 1, 1, 2, 3, 4, 5, 255});
    const unsigned type = any({0, 0, 1, 1, 2, 3, 4, 8, 8, 5, 6, 7, 9, 255});
    const unsigned id = any({0, 1, 2, 7, 13, 80, 81, 82, 83, 0xFFFF, static_cast<unsigned>(below(0x10000))});
    words.insert(words.end(), {time, control(cmd, type, id), data(), data()});
  }
  return words;
}

TEST_F(TimedocTest, random_records_are_read_like_by_the_table) {
  for (unsigned seed = 1; seed <= 20; ++seed) {
    const std::vector<unsigned> words = random_records(seed, 3000);
    const Tdi_reading expected = read_by_table(words);
    std::string text;
    ASSERT_EQ(messages_at(1, [&] { text = converted(words); }), expected.messages) << "seed " << seed;
    ASSERT_EQ(text, expected.text) << "seed " << seed;
    for (const char* line :
         {"\nNAM 0 ", "\nNAM 1 ", "\nNAM 2 ", "\nNAM 3 ", "\nNAM 4 ", "\nNAM 7 ", "\nNAM 8 ", "\nSTA ", "\nSTO ",
          "\nOCC 8 ", "\nDSC 3 0 0\n", " SBM_", " TimeWrap\n", " IntEnabled\n"}) {
      EXPECT_NE(text.find(line), std::string::npos) << "seed " << seed << " has no " << line;
    }
  }
}

// Four characters, different for each number.
unsigned name_word(unsigned number) {
  return 0x40404040 + ((number >> 18 & 63) << 24 | (number >> 12 & 63) << 16 | (number >> 6 & 63) << 8 | (number & 63));
}

// With a search through all names this would take an hour.
TEST_F(TimedocTest, a_million_records_each_with_a_new_name) {
  constexpr unsigned COUNT = 1'000'000;
  std::vector<unsigned> words;
  words.reserve(size_t{4} * COUNT);
  for (unsigned i = 0; i < COUNT; ++i)
    words.insert(words.end(), {i, i % 2 == 0 ? control(1, 0, 1) : control(2, 0, 0), name_word(i), 0});
  const std::string text = converted(words);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 5 * static_cast<long>(COUNT / 2));
  const std::string task = timedoc_.get_tr_name(name_word(COUNT - 2));
  const std::string note = timedoc_.get_tr_name(name_word(COUNT - 1));
  const std::string end = "NAM 0 499999 " + task + "\nSTA 0 499999 999998\nNAM 7 499999 " + note +
                          "\nOCC 7 499999 999999\nDSC 1 499999 0\n";
  EXPECT_EQ(text.substr(text.size() - end.size()), end);
}

}  // namespace
