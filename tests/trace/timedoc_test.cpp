// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "trace/timedoc.h"

#include "support/messages.h"
#include "trace/tdi_reading.h"

namespace {

using support::messages_at;
using support::prints_at;
using support::prints_only_from;

using namespace trace_records;

class Timedoc_test : public testing::Test {
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
  std::string converted(const std::vector<Record>& records) {
    std::vector<unsigned> words = words_of(records);
    const std::string text = written([&] { timedoc_.convert_to_tdi(words.data(), static_cast<int>(words.size())); });
    EXPECT_THAT(text, testing::AllOf(testing::StartsWith(HEADER), testing::EndsWith("END\n")));
    return text.substr(HEADER.size(), text.size() - HEADER.size() - 4);
  }

  // That these records give this text, and these messages at that level.
  void expect(const std::vector<Record>& records, const std::string& text, const std::string& messages = "",
              int level = 0) {
    EXPECT_THAT([&] { EXPECT_EQ(converted(records), text); }, prints_at(level, messages));
  }

  support::Temp_dir dir_;
  Timedoc timedoc_;
};

// One recorder for all of them: a conversion leaves nothing to the next.
TEST_F(Timedoc_test, records_become_lines_and_messages) {
  const struct {
    const char* legend;
    std::vector<Record> records;
    std::string text;
    std::string messages = "";
    int level = 0;
  } cases[] = {
      {"nothing recorded is header and end", {}, ""},
      {"two notes of one name share an id and one name line",
       {{10, NOTE, 0, 0, "tune", 1}, {15, NOTE, 0, 0, "tune", 0xFFFFFFFF}, {15, NOTE, 9, 3, "scan", 2}},
       "NAM 7 0 tune\nOCC 7 0 0\nDSC 1 0 1\nOCC 7 0 5\nDSC 1 0 -1\nNAM 7 1 scan\nOCC 7 1 5\nDSC 1 1 2\n"},
      {"tasks are named once, and again when renamed",
       {{0, STA, TASK, 7, "worker"}, {4, STO, TASK, 7, "worker"}, {5, 3, TASK, 7, "worker"}, {6, 4, TASK, 7, "worker"}},
       "NAM 0 0 worker\nSTA 0 0 0\nSTO 0 0 4\nNAM 0 0 worker\n"},
      {"interrupts have names of the chip and nest",
       {{0, STA, ISR, 81}, {1, STA, ISR, 7}, {2, STO, ISR, 7}, {3, STA, ISR, 81}},
       "NAM 1 0 GPIO_15\nSTA 1 0 0\nNAM 1 1 TIMER\nDSC 3 0 0\nSTA 1 1 1\nSTO 1 1 2\nSTA 1 0 3\n"},
      {"the last interrupt with a name is 81",
       {{0, STO, ISR, 81}, {0, STO, AGENT, 81}},
       "NAM 1 0 GPIO_15\nSTO 1 0 0\nNAM 8 0 GPIO_15\nSTO 8 0 0\n"},
      {"an interrupt without a name", {{0, 5, ISR, 82}}, "", "ERROR: ISR index out of range 0..82"},
      {"objects of three types share a list",
       {{0, STA, OBJ, 3, "obj1"}, {1, STA, 3, 0, "obj2"}, {2, STO, OBJ, 3, "obj1"}, {3, STA, EVENT, 3, "eventful"}},
       "NAM 2 0 SBM_obj1\nSTA 2 0 0\nNAM 3 1 obj2\nSTA 3 1 1\nSTO 2 0 2\nNAM 4 2 eventful\nSTA 4 2 3\n"},
      {"agent interrupts tell when they are enabled",
       {{0, STA, AGENT, 13, 0, 1}, {9, STO, AGENT, 13, 0, 1}, {10, STA, AGENT, 13, 1, 1}},
       "NAM 8 0 TS_IN0_DV\nNAM 7 2 IntEnabled\nOCC 8 0 0\nSTA 8 0 0\nOCC 8 0 9\nSTO 8 0 9\nSTA 8 0 10\n"},
      {"an agent interrupt without a name",
       {{0, STO, AGENT, 82}},
       "STO 8 0 0\n",
       "ERROR: AGENT ISR index out of range 0..82"},
      {"types and commands without meaning are reported and skipped",
       {{0x10, STA, 6, 2, 0xA, 0xB}, {0x11, 5, OBJ, 0, "odd "}, {0x12, 3, ISR, 7}},
       "NAM 2 0 odd \nNAM 1 0 TIMER\n",
       "ERROR: Parse error at entry 0. Time 10, cmd 1 type 6 id 2, data1 a data2 b\n"
       "ERROR: Parse error at entry 1. Time 11, cmd 5 type 2 id 0, data1 6f646420 data2 0\n"
       "ERROR: Parse error at entry 2. Time 12, cmd 3 type 1 id 7, data1 0 data2 0\n"},
      {"of type 6 even a stop is an error and nothing else",
       {{0, 4, TASK, 1, "A"}, {1, STO, 6, 1, 2, 3}},
       "NAM 0 0 A\n",
       "ERROR: Parse error at entry 1. Time 1, cmd 0 type 6 id 1, data1 2 data2 3\n"},
      {"a third record earlier than the second is one wrap",
       {{100, 4, TASK, 1, "task"}, {350, 4, TASK, 1, "task"}, {349, 4, TASK, 1, "task"}},
       "NAM 0 0 task\nNAM 7 1 TimeWrap\nOCC 7 1 250\n"},
      // 2^32 - 1 ticks each: the running time goes back by one, and round by way of the tick that each wrap loses.
      {"each wrap occurs and the first is named",
       {{7, STO, OBJ, 0, "o"},
        {6, STO, OBJ, 0, "o"},
        {5, STO, OBJ, 0, "o"},
        {5, STO, OBJ, 0, "o"},
        {0, STO, OBJ, 0, "o"}},
       "NAM 2 0 o\nSTO 2 0 0\n"
       "NAM 7 1 TimeWrap\nOCC 7 1 0\nSTO 2 0 4294967294\n"
       "OCC 7 1 4294967294\nSTO 2 0 4294967292\n"
       "STO 2 0 4294967292\n"
       "OCC 7 1 4294967292\nSTO 2 0 4294967286\n",
       "WARNING: Time wrap at record 1\nWARNING: Time wrap at record 2\nWARNING: Time wrap at record 4\n",
       1},
      {"bytes behind a zero are no part of a name, but the key of a note or an object has them",
       {{0, NOTE, 0, 0, "a\0b\0"}, {0, NOTE, 0, 0, "a\0c\0"}, {0, NOTE, 0, 0}},
       "NAM 7 0 a\nOCC 7 0 0\nDSC 1 0 0\nNAM 7 1 a\nOCC 7 1 0\nDSC 1 1 0\nNAM 7 2 \nOCC 7 2 0\nDSC 1 2 0\n"},
      {"nor of the name of a task", {{0, 4, TASK, 1, "ab\0\0lost"}, {0, 4, TASK, 1, "ab"}}, "NAM 0 0 ab\n"},
      {"names may hold any other byte",
       {{0, STA, EVENT, 0, 0xC3B57574u, 0xFF25730Au}},
       "NAM 4 0 \xC3\xB5ut\xFF%s\n\nSTA 4 0 0\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.legend);
    expect(c.records, c.text, c.messages, c.level);
  }
  EXPECT_EQ(messages_at(-1, [&] { converted({{0, STA, 6, 2}}); }), "");
}

TEST_F(Timedoc_test, an_incomplete_last_record_is_ignored) {
  std::vector<unsigned> words = words_of({{5, NOTE, 0, 0, "note", 7}, {6, NOTE, 0, 0, "lost"}});
  EXPECT_THAT(
      [&] {
        EXPECT_EQ(written([&] { timedoc_.convert_to_tdi(words.data(), 7); }),
                  HEADER + "NAM 7 0 note\nOCC 7 0 0\nDSC 1 0 7\nEND\n");
      },
      prints_at(0, ""));
}

TEST_F(Timedoc_test, quirk_an_interrupt_out_of_range_goes_on_with_the_last_id) {
  expect({{0, STA, ISR, 82}, {1, STA, ISR, 7}, {2, STA, ISR, 9}, {3, STO, ISR, 0xFFFF}, {4, 5, ISR, 82}},
         "STA 1 0 0\nNAM 1 0 TIMER\nSTA 1 0 1\nNAM 1 1 I2C0\nDSC 3 0 0\nSTA 1 1 2\nSTO 1 1 3\n",
         "ERROR: ISR index out of range 0..82ERROR: ISR index out of range 0..82ERROR: ISR index out of range 0..82");
  EXPECT_EQ(messages_at(-1, [&] { converted({{0, STA, ISR, 82}}); }), "");
}

TEST_F(Timedoc_test, quirk_a_wrapped_counter_loses_one_tick) {
  // From 0xFFFFFFF0 to 4 are 20 ticks; 19 are counted.
  expect(
      {{100, NOTE, 0, 0, "aaaa"}, {0xFFFFFFF0, NOTE, 0, 0, "aaaa"}, {4, NOTE, 0, 0, "aaaa"}, {2, NOTE, 0, 0, "aaaa"}},
      "NAM 7 0 aaaa\nOCC 7 0 0\nDSC 1 0 0\nOCC 7 0 4294967180\nDSC 1 0 0\nNAM 7 1 TimeWrap\nOCC 7 1 "
      "4294967180\nOCC 7 0 4294967199\nDSC 1 0 0\nOCC 7 1 4294967199\nOCC 7 0 4294967196\nDSC 1 0 0\n",
      "WARNING: Time wrap at record 2\nWARNING: Time wrap at record 3\n", 1);
  EXPECT_EQ(messages_at(0, [&] { converted({{9, 4, TASK, 0}, {8, 4, TASK, 0}}); }), "");
}

TEST_F(Timedoc_test, names_are_packed_four_characters_a_word) {
  const auto packed = [&](const char* name) {
    unsigned first = 1;
    unsigned second = 1;
    timedoc_.tdoc_name(&second, &first, name);
    return std::pair(first, second);
  };
  EXPECT_EQ(packed("scanning on"), std::pair(word("scan"), word("ning")));
  EXPECT_EQ(packed("ab"), std::pair(word("ab"), 0U));
  EXPECT_EQ(packed("\xC3\xB5"), std::pair(0xC3B50000U, 0U));
  EXPECT_STREQ(timedoc_.get_tr_name(word("ning"), word("scan")), "scanning");
  EXPECT_STREQ(timedoc_.get_tr_name(word("lost"), word("ab")), "ab");
  EXPECT_STREQ(timedoc_.get_tr_name(word("scan")), "scan");
}

TEST_F(Timedoc_test, entries_are_found_by_name_and_key) {
  std::vector<TDI_lookup> list;
  const auto entered = [&](const char* name, int key) {
    bool inserted = false;
    const auto id = timedoc_.lookup_insert_id(&list, name, key, &inserted);
    return std::to_string(id) + (inserted ? " new" : " known");
  };
  EXPECT_EQ(entered("a", 1), "0 new");
  EXPECT_EQ(entered("a", 2), "1 new");
  EXPECT_EQ(entered("a", 1), "0 known");
  EXPECT_EQ(entered("b", 1), "2 new");
}

TEST_F(Timedoc_test, the_recorder_is_built_without_a_device) {
  EXPECT_THAT([] { Timedoc another; }, prints_only_from(3, "TimeDoctor TRACE disabled\n"));
  const auto recording = [&] {
    timedoc_.tdoc_pause();  // not recording: nothing
    timedoc_.tdoc_record();
    timedoc_.tdoc_record();  // once is enough
    timedoc_.tdoc_note("note", 1);
    timedoc_.start_tdoc_ev("event");
    timedoc_.end_tdoc_ev("event");
    timedoc_.tdoc_pause();
    timedoc_.tdoc_reset();
  };
  EXPECT_THAT(recording, prints_only_from(2,
                                          "Start timedoc recordingPause Timedoc Recording. Current buffer -1 of -1, "
                                          "100 %\nClear TimeDoc Buffer\n"));
}

TEST_F(Timedoc_test, a_buffer_that_cannot_be_mapped_writes_no_file) {
  const std::string path = dir_.file("trace.tdi");
  EXPECT_EQ(messages_at(0, [&] { timedoc_.write_file(path.c_str(), "tdi"); }),
            "ERROR: mmap() failed, 0x" + std::string(2 * sizeof(void*), 'f') + "\n");
  EXPECT_NE(access(path.c_str(), F_OK), 0);
  EXPECT_EQ(messages_at(-1, [&] { timedoc_.write_file(path.c_str(), "log"); }), "");
}

TEST_F(Timedoc_test, quirk_the_last_id_of_any_kind_is_gone_on_with) {
  expect({{0, 4, TASK, 1, "one "},
          {0, 4, TASK, 2, "two "},
          {1, STA, AGENT, 82, 0, 1},
          {2, STA, ISR, 7},
          {3, NOTE, 0, 0, "note"},
          {4, NOTE, 0, 0, "mark"},
          {5, STA, ISR, 100},
          {6, 3, AGENT, 100}},
         "NAM 0 0 one \nNAM 0 1 two \nSTA 8 1 1\nNAM 1 0 TIMER\nSTA 1 0 2\nNAM 7 0 note\nOCC 7 0 3\n"
         "DSC 1 0 0\nNAM 7 1 mark\nOCC 7 1 4\nDSC 1 1 0\nSTA 1 1 5\n",
         "ERROR: AGENT ISR index out of range 0..82ERROR: ISR index out of range 0..82"
         "ERROR: AGENT ISR index out of range 0..82");
}

TEST_F(Timedoc_test, a_negative_number_of_words_is_nothing) {
  EXPECT_EQ(written([&] {
              for (const int words : {-1, INT_MIN})
                timedoc_.convert_to_tdi(nullptr, words);
            }),
            HEADER + "END\n" + HEADER + "END\n");
}

TEST_F(Timedoc_test, lines_are_cut_at_255_bytes_and_go_nowhere_at_first) {
  timedoc_.printf_tdi("%s", "nowhere");
  EXPECT_EQ(written([&] { timedoc_.printf_tdi("%s", std::string(300, 'x').c_str()); }), std::string(255, 'x'));
}

// Records of every kind, right and wrong, from few times, ids and names, so that they meet again.
std::vector<Record> random_records(unsigned seed, int count) {
  std::mt19937 engine(seed);
  const auto below = [&engine](size_t n) { return static_cast<size_t>(engine() % n); };
  const auto any = [&](std::initializer_list<unsigned> from) { return *(from.begin() + below(from.size())); };
  const auto data = [&] {
    return below(10) == 0 ? static_cast<unsigned>(engine())
                          : any({0, 1, word("scan"), word("ning"), word({"a\0b", 3}), 0xC3B57574u, 0xFFFFFFFFu});
  };
  std::vector<Record> records;
  unsigned time = static_cast<unsigned>(engine());
  for (int i = 0; i < count; ++i) {
    time = below(8) == 0 ? static_cast<unsigned>(engine()) : time + static_cast<unsigned>(below(1000));
    const unsigned cmd = any({0, 0, 0, 1, 1, 1, 2, 3, 4, 5, 255});
    const unsigned type = any({0, 0, 1, 1, 2, 3, 4, 8, 8, 5, 6, 7, 9, 255});
    const unsigned id = any({0, 1, 2, 7, 13, 80, 81, 82, 83, 0xFFFF, static_cast<unsigned>(below(0x10000))});
    const unsigned data1 = data();
    records.emplace_back(time, cmd, type, id, data1, data());
  }
  return records;
}

TEST_F(Timedoc_test, random_records_are_read_like_by_the_table) {
  for (unsigned seed = 1; seed <= 20; ++seed) {
    const std::vector<Record> records = random_records(seed, 3000);
    const auto expected = tdi_reading::read_by_table(records);
    std::string text;
    ASSERT_EQ(messages_at(1, [&] { text = converted(records); }), expected.messages) << "seed " << seed;
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
TEST_F(Timedoc_test, a_million_records_each_with_a_new_name) {
  constexpr unsigned COUNT = 1'000'000;
  std::vector<Record> records;
  records.reserve(COUNT);
  for (unsigned i = 0; i < COUNT; ++i)
    records.emplace_back(i, i % 2 == 0 ? STA : NOTE, TASK, i % 2 == 0 ? 1 : 0, name_word(i));
  const std::string text = converted(records);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 5 * static_cast<long>(COUNT / 2));
  const std::string task = timedoc_.get_tr_name(name_word(COUNT - 2));
  const std::string note = timedoc_.get_tr_name(name_word(COUNT - 1));
  const std::string end = "NAM 0 499999 " + task + "\nSTA 0 499999 999998\nNAM 7 499999 " + note +
                          "\nOCC 7 499999 999999\nDSC 1 499999 0\n";
  EXPECT_EQ(text.substr(text.size() - end.size()), end);
}

}  // namespace
