// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <nlohmann/json.hpp>

#include "support/command.h"
#include "support/support.h"
#include "support/test.h"

// `kelvo trace convert`, run as people run it.

namespace {

using nlohmann::json;
using support::Command_result;
using support::run_command;

using Words = std::vector<unsigned>;

const std::string HEADER = "PNX893x trace\nSPEED 320000000\nMEMSPEED 200000000\nTIME 68570000\n";
constexpr double TICKS_IN_A_MICROSECOND = 320;

unsigned word(const std::string& name) {
  unsigned out = 0;
  for (size_t i = 0; i < 4; ++i) {
    out = out << 8 | (i < name.size() ? static_cast<unsigned char>(name[i]) : 0U);
  }
  return out;
}

constexpr unsigned control(unsigned cmd, unsigned type, unsigned id) {
  return cmd << 24 | type << 16 | id;
}

// The same numbers on every machine.
class Random {
 public:
  explicit Random(unsigned seed) : engine_(seed) {}
  unsigned operator()(size_t below) { return static_cast<unsigned>(engine_() % below); }

 private:
  std::mt19937 engine_;
};

std::string raw(const Words& words, bool big) {
  std::string out;
  for (const unsigned w : words) {
    for (const unsigned byte : {0U, 1U, 2U, 3U}) {
      out += static_cast<char>(w >> (big ? 24 - 8 * byte : 8 * byte) & 0xFF);
    }
  }
  return out;
}

std::string log_lines(const Words& words) {
  constexpr const char* DIGITS = "0123456789abcdef";
  std::string out;
  out.reserve(words.size() * 9);
  for (size_t i = 0; i < words.size(); ++i) {
    for (unsigned shift = 32; shift > 0; shift -= 4) {
      out += DIGITS[words[i] >> (shift - 4) & 15];
    }
    out += i % 4 == 3 ? '\n' : ' ';
  }
  return out;
}

class Trace_convert : public testing::Test {
 protected:
  Command_result convert(const std::string& in, const std::string& out, std::vector<std::string> more = {}) {
    more.insert(more.begin(), {KELVO_COMMAND, "trace", "convert", in, out});
    return run_command(more);
  }
  // Writes IN, converts it to OUT and returns what OUT holds.
  std::string converted(const std::string& contents, const std::string& out_name, const std::string& said = "",
                        const std::vector<std::string>& more = {}) {
    support::write_file(in_, contents);
    const Command_result result = convert(in_, dir_.file(out_name), more);
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, said);
    return support::read_file(dir_.file(out_name));
  }
  std::vector<json> events(const Words& words, const std::string& said = "") {
    const json document = json::parse(converted(raw(words, false), "out.json", said));
    EXPECT_EQ(document["displayTimeUnit"], "ns");
    return document["traceEvents"];
  }
  std::vector<std::string> names() const {
    std::vector<std::string> out;
    for (const auto& entry : std::filesystem::directory_iterator(dir_.path())) {
      out.push_back(entry.path().filename());
    }
    std::sort(out.begin(), out.end());
    return out;
  }

  support::Temp_dir dir_;
  std::string in_ = dir_.file("in.trace");
};

// One of everything, with a wrap of the counter before the last record.
const Words EVERYTHING = {
    1000,       control(1, 0, 7),  word("work"),
    word("er"),  //
    1320,       control(1, 1, 14), 0,
    0,  //
    1480,       control(1, 1, 7),  0,
    0,  //
    1640,       control(0, 1, 7),  0,
    0,  //
    1800,       control(0, 1, 14), 0,
    0,  //
    2000,       control(1, 8, 35), 0,
    1,  //
    2640,       control(0, 8, 35), 0,
    0,  //
    3000,       control(2, 0, 0),  word("zap"),
    0xFFFFFFFB,  //
    3200,       control(1, 2, 3),  word("pool"),
    0,  //
    3360,       control(0, 2, 3),  word("pool"),
    0,  //
    4000,       control(1, 4, 0),  word("redr"),
    word("aw"),  //
    4000,       control(0, 4, 0),  word("redr"),
    word("aw"),  //
    0xFFFFFFF0, control(2, 0, 0),  word("zap"),
    1,  //
    321,        control(0, 0, 7),  word("work"),
    word("er"),  //
};
const std::string EVERYTHING_TDI = HEADER +
                                   "NAM 0 0 worker\nSTA 0 0 0\n"
                                   "NAM 1 0 TS_IN0_DMA\nSTA 1 0 320\n"
                                   "NAM 1 1 TIMER\nDSC 3 0 0\nSTA 1 1 480\nSTO 1 1 640\nSTO 1 0 800\n"
                                   "NAM 8 0 VMSP1\nNAM 7 2 IntEnabled\nOCC 8 0 1000\nSTA 8 0 1000\nSTO 8 0 1640\n"
                                   "NAM 7 0 zap\nOCC 7 0 2000\nDSC 1 0 -5\n"
                                   "NAM 2 0 SBM_pool\nSTA 2 0 2200\nSTO 2 0 2360\n"
                                   "NAM 4 1 redraw\nSTA 4 1 3000\nSTO 4 1 3000\n"
                                   "OCC 7 0 4294966280\nDSC 1 0 1\n"
                                   "NAM 7 1 TimeWrap\nOCC 7 1 4294966280\nSTO 0 0 4294966616\n"
                                   "END\n";

TEST_F(Trace_convert, every_source_makes_the_same_tdi) {
  for (const std::string& source : {raw(EVERYTHING, false), raw(EVERYTHING, true), log_lines(EVERYTHING)}) {
    EXPECT_EQ(converted(source, "out.tdi"), EVERYTHING_TDI);
    EXPECT_EQ(converted(source, "out.log"), log_lines(EVERYTHING));
  }
}

TEST_F(Trace_convert, log_lines_are_read_as_people_and_windows_leave_them) {
  std::string text = log_lines(EVERYTHING);
  std::transform(text.begin(), text.end(), text.begin(), [](char c) { return static_cast<char>(toupper(c)); });
  for (size_t at = 0; (at = text.find('\n', at)) != std::string::npos; at += 2) {
    text.insert(at, "\r");
  }
  EXPECT_EQ(converted(text + "\r\n\n", "out.tdi"), EVERYTHING_TDI);
  text = log_lines(EVERYTHING);
  text.pop_back();  // the last line break
  EXPECT_EQ(converted(text, "out.tdi"), EVERYTHING_TDI);
}

TEST_F(Trace_convert, the_byte_order_can_be_forced) {
  // All of it makes sense in either order: control words are alike from both ends, times go up in one of them only.
  const Words both = {0x00000001, 0, 0, 0, 0x00000102, 0, 0, 0, 0x00000200, 0, 0, 0};
  EXPECT_EQ(converted(raw(both, false), "out.log"), log_lines(both));
  EXPECT_EQ(converted(raw(both, true), "out.log"), log_lines(both));
  const Words turned = {0x01000000, 0, 0, 0, 0x02010000, 0, 0, 0, 0x00020000, 0, 0, 0};
  EXPECT_EQ(converted(raw(both, false), "out.log", "", {"--from", "big"}), log_lines(turned));
  EXPECT_EQ(converted(raw(both, true), "out.log", "", {"--from", "little"}), log_lines(turned));
  EXPECT_EQ(converted(raw(both, true), "out.log", "", {"--from", "auto"}), log_lines(both));
}

TEST_F(Trace_convert, standard_input_and_output_do) {
  support::write_file(in_, raw(EVERYTHING, true));
  const Command_result result =
      run_command({"sh", "-c", "cat \"$1\" | \"$0\" trace convert - - --format tdi", KELVO_COMMAND, in_});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out, EVERYTHING_TDI);
}

TEST_F(Trace_convert, nothing_recorded_is_no_error) {
  EXPECT_EQ(converted("", "out.tdi"), HEADER + "END\n");
  EXPECT_EQ(converted("", "out.log"), "");
  EXPECT_EQ(json::parse(converted("", "out.json"))["traceEvents"], json::array());
  EXPECT_NE(converted("", "out.svg").find(">nothing recorded</text>"), std::string::npos);
}

TEST_F(Trace_convert, a_record_that_is_cut_off_is_left_out) {
  const std::string said = "kelvo: " + in_ + ": the last record is cut off and left out\n";
  const Words one = {5, control(2, 0, 0), word("note"), 7};
  const std::string tdi = HEADER + "NAM 7 0 note\nOCC 7 0 0\nDSC 1 0 7\nEND\n";
  for (const size_t left : {1U, 4U, 15U}) {
    EXPECT_EQ(converted(raw(one, false) + raw(one, false).substr(0, left), "out.tdi", said), tdi) << left;
    EXPECT_EQ(converted(raw(one, true) + raw(one, true).substr(0, left), "out.tdi", said), tdi) << left;
  }
  for (const size_t left : {1U, 8U, 9U, 34U}) {
    EXPECT_EQ(converted(log_lines(one) + log_lines(one).substr(0, left), "out.tdi", said), tdi) << left;
  }
  EXPECT_EQ(converted(log_lines(one).substr(0, 20), "out.tdi", said), HEADER + "END\n");
}

TEST_F(Trace_convert, records_that_make_no_sense_are_left_out_and_counted) {
  Words words = {5, control(2, 0, 0), word("note"), 7, 6, control(1, 6, 0), 1, 2};
  EXPECT_EQ(
      converted(raw(words, false), "out.tdi", "kelvo: " + in_ + ": 1 of 2 records make no sense and is left out\n"),
      HEADER + "NAM 7 0 note\nOCC 7 0 0\nDSC 1 0 7\nEND\n");
  words.insert(words.end(), {7, control(0, 0, 1), 0, 0, 8, control(1, 1, 82), 0, 0});
  const std::string two = "kelvo: " + in_ + ": 2 of 4 records make no sense and are left out\n";
  const std::string svg = converted(raw(words, false), "out.svg", two);
  EXPECT_NE(svg.find(">4 records, 9.38 ns, 2 that make no sense left out</text>"), std::string::npos) << svg;
  // The library writes what follows from the last id, and with -v says what it thinks of it.
  EXPECT_EQ(converted(raw(words, false), "out.tdi",
                      "ERROR: Parse error at entry 1. Time 6, cmd 1 type 6 id 0, data1 1 data2 2\n"
                      "ERROR: ISR index out of range 0..82" +
                          two,
                      {"-v"}),
            HEADER + "NAM 7 0 note\nOCC 7 0 0\nDSC 1 0 7\nNAM 0 0 \nSTO 0 0 2\nSTA 1 0 3\nEND\n");
  EXPECT_EQ(converted(raw(words, false), "out.log"), log_lines(words));
}

// --- JSON

TEST_F(Trace_convert, json_has_a_process_a_kind_a_thread_a_lane_and_an_event_a_span) {
  const json expected = json::parse(R"([
    {"name":"process_name","ph":"M","pid":1,"args":{"name":"Tasks"}},
    {"name":"process_sort_index","ph":"M","pid":1,"args":{"sort_index":1}},
    {"name":"thread_name","ph":"M","pid":1,"tid":1,"args":{"name":"worker"}},
    {"name":"thread_sort_index","ph":"M","pid":1,"tid":1,"args":{"sort_index":1}},
    {"name":"worker","cat":"task","ph":"X","ts":0.0,"dur":13421770.675,"pid":1,"tid":1},
    {"name":"process_name","ph":"M","pid":2,"args":{"name":"Interrupts"}},
    {"name":"process_sort_index","ph":"M","pid":2,"args":{"sort_index":2}},
    {"name":"thread_name","ph":"M","pid":2,"tid":1,"args":{"name":"TS_IN0_DMA"}},
    {"name":"thread_sort_index","ph":"M","pid":2,"tid":1,"args":{"sort_index":1}},
    {"name":"TS_IN0_DMA","cat":"interrupt","ph":"X","ts":1.0,"dur":1.5,"pid":2,"tid":1},
    {"name":"thread_name","ph":"M","pid":2,"tid":2,"args":{"name":"TIMER"}},
    {"name":"thread_sort_index","ph":"M","pid":2,"tid":2,"args":{"sort_index":2}},
    {"name":"TIMER","cat":"interrupt","ph":"X","ts":1.5,"dur":0.5,"pid":2,"tid":2,"args":{"nested":true}},
    {"name":"process_name","ph":"M","pid":3,"args":{"name":"Agents"}},
    {"name":"process_sort_index","ph":"M","pid":3,"args":{"sort_index":3}},
    {"name":"thread_name","ph":"M","pid":3,"tid":1,"args":{"name":"VMSP1"}},
    {"name":"thread_sort_index","ph":"M","pid":3,"tid":1,"args":{"sort_index":1}},
    {"name":"VMSP1","cat":"agent","ph":"X","ts":3.125,"dur":2.0,"pid":3,"tid":1},
    {"name":"enabled","cat":"agent","ph":"i","ts":3.125,"pid":3,"tid":1,"s":"t"},
    {"name":"process_name","ph":"M","pid":4,"args":{"name":"Objects"}},
    {"name":"process_sort_index","ph":"M","pid":4,"args":{"sort_index":4}},
    {"name":"thread_name","ph":"M","pid":4,"tid":1,"args":{"name":"SBM_pool"}},
    {"name":"thread_sort_index","ph":"M","pid":4,"tid":1,"args":{"sort_index":1}},
    {"name":"SBM_pool","cat":"object","ph":"X","ts":6.875,"dur":0.5,"pid":4,"tid":1},
    {"name":"process_name","ph":"M","pid":5,"args":{"name":"Events"}},
    {"name":"process_sort_index","ph":"M","pid":5,"args":{"sort_index":5}},
    {"name":"thread_name","ph":"M","pid":5,"tid":1,"args":{"name":"redraw"}},
    {"name":"thread_sort_index","ph":"M","pid":5,"tid":1,"args":{"sort_index":1}},
    {"name":"redraw","cat":"event","ph":"X","ts":9.375,"dur":0.0,"pid":5,"tid":1},
    {"name":"process_name","ph":"M","pid":6,"args":{"name":"Notes"}},
    {"name":"process_sort_index","ph":"M","pid":6,"args":{"sort_index":6}},
    {"name":"thread_name","ph":"M","pid":6,"tid":1,"args":{"name":"zap"}},
    {"name":"thread_sort_index","ph":"M","pid":6,"tid":1,"args":{"sort_index":1}},
    {"name":"zap","cat":"note","ph":"i","ts":6.25,"pid":6,"tid":1,"s":"t","args":{"value":-5}},
    {"name":"zap","cat":"note","ph":"i","ts":13421769.625,"pid":6,"tid":1,"s":"t","args":{"value":1}},
    {"name":"TimeWrap","cat":"clock","ph":"i","ts":13421769.625,"pid":1,"tid":1,"s":"g"}
  ])");
  const std::vector<json> found = events(EVERYTHING);
  ASSERT_EQ(found.size(), expected.size());
  for (size_t i = 0; i < found.size(); ++i) {
    EXPECT_EQ(found[i], expected[i]) << i;
  }
}

std::vector<std::string> lane_names(const std::vector<json>& events) {
  std::vector<std::string> out;
  for (const json& event : events) {
    if (event["name"] == "thread_name") {
      out.push_back(event["args"]["name"]);
    }
  }
  return out;
}

std::vector<json> spans_of(const std::vector<json>& events) {
  std::vector<json> out;
  std::copy_if(events.begin(), events.end(), std::back_inserter(out), [](const json& e) { return e["ph"] == "X"; });
  return out;
}

TEST_F(Trace_convert, names_are_clean_and_lanes_that_look_alike_have_their_number) {
  const std::vector<json> found = events({
      0,
      control(4, 0, 1),
      word("\xC3\xB5ma"),
      0,  //
      0,
      control(4, 0, 2),
      word("cut\xC3"),
      0,  // half a character
      0,
      control(4, 0, 3),
      word("\x1B[2J"),
      0x110A0000U,  // what would talk to a terminal
      0,
      control(4, 0, 4),
      0,
      word("lost"),  // no name before the zero byte
      0,
      control(4, 0, 5),
      word("same"),
      0,  //
      0,
      control(4, 0, 6),
      word("same"),
      0,  //
      0,
      control(1, 1, 0),
      0,
      0,  //
      0,
      control(1, 1, 1),
      0,
      0,  //
      0,
      control(2, 0, 0),
      word("a<&\""),
      0,  //
      0,
      control(2, 0, 0),
      word("b"),
      0,  //
  });
  EXPECT_EQ(lane_names(found), (std::vector<std::string>{"\xC3\xB5ma", "cut\xEF\xBF\xBD", "[2J", "task 4", "same (5)",
                                                         "same (6)", "NO_NAME (0)", "NO_NAME (1)", "a<&\"", "b"}));
}

TEST_F(Trace_convert, starts_and_stops_pair_and_what_was_not_recorded_is_said) {
  const std::vector<json> found = spans_of(events({
      320,  control(0, 0, 1), word("a"), 0,  // under way at the beginning
      640,  control(1, 0, 1), word("a"), 0,  //
      960,  control(1, 0, 1), word("a"), 0,  // again, inside
      1280, control(0, 0, 1), word("a"), 0,  //
      1600, control(0, 0, 1), word("a"), 0,  //
      1920, control(0, 0, 1), word("a"), 0,  // a stop whose start is missing
      2240, control(1, 0, 2), word("b"), 0,  // under way at the end
      2560, control(4, 0, 1), word("a"), 0,  //
  }));
  ASSERT_EQ(found.size(), 5U);
  const auto span = [&](size_t i) { return std::tuple(found[i]["name"], found[i]["ts"], found[i]["dur"]); };
  EXPECT_EQ(span(0), std::tuple("a", 0.0, 0.0));
  EXPECT_EQ(found[0]["args"], json::parse(R"({"begin":"not recorded"})"));
  EXPECT_EQ(span(1), std::tuple("a", 2.0, 1.0));
  EXPECT_EQ(span(2), std::tuple("a", 1.0, 3.0));
  EXPECT_FALSE(found[2].contains("args"));
  EXPECT_EQ(span(3), std::tuple("a", 5.0, 0.0));
  EXPECT_EQ(found[3]["args"], json::parse(R"({"begin":"not recorded"})"));
  EXPECT_EQ(span(4), std::tuple("b", 6.0, 1.0));
  EXPECT_EQ(found[4]["args"], json::parse(R"({"end":"not recorded"})"));
}

TEST_F(Trace_convert, time_goes_on_over_many_wraps) {
  Words words;
  for (unsigned i = 0; i < 6; ++i) {
    words.insert(words.end(), {100 - i, control(2, 0, 0), word("tick"), i});
  }
  double expected = 0;
  int wraps = 0;
  for (const json& event : events(words)) {
    if (event["name"] == "tick" && event["ph"] == "i") {
      EXPECT_EQ(event["ts"].get<double>(), expected / TICKS_IN_A_MICROSECOND);
      expected += 4294967294.0;  // 2^32 - 1, and a wrap loses one
    }
    wraps += event["name"] == "TimeWrap" ? 1 : 0;
  }
  EXPECT_EQ(wraps, 5);
}

// Random records, their TDI text read by itself: the pictures' spans and notes must be what its lines say.
TEST_F(Trace_convert, json_says_what_tdi_says) {
  using Span = std::tuple<std::string, double, double>;
  const std::map<int, std::string> categories = {{0, "task"},   {1, "interrupt"}, {2, "object"},
                                                 {3, "object"}, {4, "event"},     {8, "agent"}};
  for (unsigned seed = 1; seed <= 5; ++seed) {
    Random below(seed);
    const auto any = [&below](const Words& from) { return from[below(from.size())]; };
    Words words;
    unsigned time = below(1U << 31);
    for (int i = 0; i < 2000; ++i) {
      time += below(100) == 0 ? 0xF0000000U : below(100'000);
      const unsigned cmd = any({0, 0, 1, 1, 2});
      words.insert(words.end(), {time, control(cmd, any({0, 1, 2, 3, 4, 8}), any({0, 1, 7, 81})),
                                 any({word("aa"), word("bb"), word("cccc")}), any({0, 1, word("dd")})});
    }
    std::istringstream tdi(converted(raw(words, true), "out.tdi"));
    std::multiset<Span> expected;
    std::multiset<std::pair<double, int>> expected_notes;
    std::map<std::pair<int, int>, std::vector<double>> open;
    std::set<std::pair<int, int>> seen;
    double now = 0;
    double note_at = 0;
    uint32_t last = 0;
    const auto advance = [&](uint32_t to) {
      now += to - last;
      last = to;
    };
    for (std::string line; std::getline(tdi, line);) {
      std::istringstream fields(line);
      std::string verb;
      int type = 0;
      int id = 0;
      int64_t third = 0;
      fields >> verb >> type >> id >> third;
      const auto close = [&](double begin) {
        expected.insert({categories.at(type), begin / TICKS_IN_A_MICROSECOND, (now - begin) / TICKS_IN_A_MICROSECOND});
      };
      auto& begun = open[{type, id}];
      if (verb == "STA") {
        advance(static_cast<uint32_t>(third));
        begun.push_back(now);
        seen.insert({type, id});
      } else if (verb == "STO") {
        advance(static_cast<uint32_t>(third));
        close(!begun.empty() ? begun.back() : seen.count({type, id}) != 0 ? now : 0);
        if (!begun.empty()) {
          begun.pop_back();
        }
        seen.insert({type, id});
      } else if (verb == "OCC" && type == 7) {
        advance(static_cast<uint32_t>(third));
        note_at = now;
      } else if (verb == "DSC" && type == 1) {
        expected_notes.insert({note_at / TICKS_IN_A_MICROSECOND, static_cast<int>(third)});
      }
    }
    for (const auto& [lane, begun] : open) {
      for (const double begin : begun) {
        expected.insert(
            {categories.at(lane.first), begin / TICKS_IN_A_MICROSECOND, (now - begin) / TICKS_IN_A_MICROSECOND});
      }
    }
    std::multiset<Span> found;
    std::multiset<std::pair<double, int>> found_notes;
    const json document = json::parse(converted(raw(words, true), "out.json"));
    for (const json& event : document["traceEvents"]) {
      if (event["ph"] == "X") {
        found.emplace(event["cat"].get<std::string>(), event["ts"].get<double>(), event["dur"].get<double>());
      } else if (event["ph"] == "i" && event["cat"] == "note") {
        found_notes.emplace(event["ts"].get<double>(), event["args"]["value"].get<int>());
      }
    }
    EXPECT_EQ(found, expected) << seed;
    EXPECT_EQ(found_notes, expected_notes) << seed;
    EXPECT_GT(found.size(), 700U);
  }
}

// --- SVG

TEST_F(Trace_convert, svg_is_xml_without_script_that_names_every_lane) {
  Words words = EVERYTHING;
  words.insert(words.end(), {400, control(2, 0, 0), word("<&>\""), 9});
  const std::string svg = converted(raw(words, false), "out.svg");
  const Command_result lint = run_command({"xmllint", "--noout", dir_.file("out.svg")});
  EXPECT_EQ(lint.exit_code, 0) << lint.err;
  for (const char* text :
       {">Trace in.trace</text>",
        ">15 records, 13.4 s</text>",
        ">Tasks</text>",
        ">worker<title>",
        ">Interrupts</text>",
        ">TS_IN0_DMA<title>",
        ">TIMER<title>",
        ">Agents</text>",
        ">VMSP1<title>",
        ">Objects</text>",
        ">SBM_pool<title>",
        ">Events</text>",
        ">redraw<title>",
        ">Notes</text>",
        ">zap<title>",
        ">&lt;&amp;&gt;\"<title>",
        ">2 s</text>",
        ">12 s</text>",
        ">the counter wrapped</text>",
        ">note and its value</text>",
        ">interrupt enabled</text>",
        "<title>TIMER, 500 ns, from 0.000001500 s to 0.000002000 s, during another interrupt</title>",
        "<title>zap: 1 at 13.421769625 s</title>"}) {
    EXPECT_NE(svg.find(text), std::string::npos) << text;
  }
  EXPECT_EQ(svg.find("<script"), std::string::npos);
  EXPECT_EQ(svg.find(dir_.path()), std::string::npos) << "no path of this machine belongs into a picture";
}

TEST_F(Trace_convert, the_axis_has_units_that_fit) {
  const std::vector<std::pair<unsigned, std::vector<std::string>>> cases = {
      {3, {">0 ns</text>", ">9 ns</text>"}},
      {3200, {">0 µs</text>", ">10 µs</text>"}},
      {320'000, {">0.0 ms</text>", ">0.5 ms</text>", ">1.0 ms</text>"}},
      {32'000'000, {">0 ms</text>", ">90 ms</text>", ">100 ms</text>"}},
      {1'600'000'000, {">0.0 s</text>", ">4.5 s</text>", ">5.0 s</text>"}},
  };
  for (const auto& [ticks, labels] : cases) {
    const std::string svg =
        converted(raw({0, control(1, 0, 1), word("a"), 0, ticks, control(0, 0, 1), word("a"), 0}, false), "out.svg");
    for (const std::string& label : labels) {
      EXPECT_NE(svg.find(label), std::string::npos) << ticks << " has no " << label << " in\n" << svg;
    }
  }
}

// Many lanes, nested spans, stops without starts, notes: a million records.
struct Million {
  Million() {
    words.reserve(4'000'000);
    Random below(3);
    unsigned time = 0;
    for (unsigned i = 0; i < 1'000'000; ++i) {
      time += 100 + below(1000);
      const unsigned lane = below(300);
      const unsigned cmd = Words{0, 0, 1, 1, 2}[below(5)];
      words.insert(words.end(), {time, control(cmd, Words{0, 1, 2, 4, 8}[below(5)], lane % 82),
                                 word("n" + std::to_string(lane)), 0});
      stops += cmd == 0 ? 1 : 0;
      notes += cmd == 2 ? 1 : 0;
    }
  }
  Words words;
  size_t stops = 0;
  size_t notes = 0;
};

size_t count(const std::string& text, const std::string& what) {
  size_t out = 0;
  for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; ++at) {
    ++out;
  }
  return out;
}

TEST_F(Trace_convert, a_picture_of_a_million_records_is_small) {
  const std::string svg = converted(raw(Million().words, false), "out.svg");
  EXPECT_LT(svg.size(), 6'000'000U);
  EXPECT_LT(count(svg, "<rect"), 21'000U);
  EXPECT_NE(svg.find(">1000000 records, 1.87 s</text>"), std::string::npos);
  EXPECT_NE(svg.find(">and 42 more that are not shown</text>"), std::string::npos);
  EXPECT_EQ(run_command({"xmllint", "--noout", "--huge", dir_.file("out.svg")}).exit_code, 0);
}

TEST_F(Trace_convert, a_million_records_are_all_in_tdi_and_log) {
  const Million million;
  const std::string log = log_lines(million.words);
  EXPECT_TRUE(converted(raw(million.words, true), "out.log") == log);
  const std::string tdi = converted(log, "out.tdi");
  EXPECT_EQ(count(tdi, "\nSTO "), million.stops);
  EXPECT_EQ(count(tdi, "\nDSC 1 "), million.notes);
  EXPECT_EQ(tdi.substr(tdi.size() - 5), "\nEND\n");
}

TEST_F(Trace_convert, a_million_records_are_all_in_json) {
  const Million million;
  const std::string text = converted(raw(million.words, false), "out.json");
  EXPECT_TRUE(json::accept(text));
  EXPECT_EQ(count(text, "\"cat\":\"note\",\"ph\":\"i\""), million.notes);
  EXPECT_EQ(count(text, "\"ph\":\"X\""), million.stops + count(text, "\"end\":\"not recorded\""));
}

// A browser of its own for the pictures. Under load one start in many fails, so it gets three.
class Trace_in_browser : public Trace_convert {
 protected:
  void SetUp() override {
    const Command_result version = run_command({"chromium", "--version"});
    if (version.exit_code != 0) {
      GTEST_SKIP() << "no headless browser: chromium does not run here: " << version.err;
    }
  }
  Command_result browse(const std::vector<std::string>& options, const std::string& file) {
    std::vector<std::string> argv = {"timeout",           "40",
                                     "chromium",          "--headless",
                                     "--disable-gpu",     "--disable-dev-shm-usage",
                                     "--hide-scrollbars", "--user-data-dir=" + dir_.file("profile")};
    if (geteuid() == 0) {
      argv.emplace_back("--no-sandbox");
    }
    argv.insert(argv.end(), options.begin(), options.end());
    argv.push_back("file://" + file);
    return run_command(argv, {{"HOME", dir_.path()}});
  }
  // Colours of the pixels, as "RRGGBB", and how many have them.
  std::map<std::string, size_t> colours(const std::string& png) {
    const Command_result result = run_command({"python3", KELVO_TEST_DATA "/../png_colours.py", png});
    EXPECT_EQ(result.exit_code, 0) << result.err;
    std::map<std::string, size_t> out;
    std::istringstream lines(result.out);
    size_t count = 0;
    for (std::string colour; lines >> colour >> count;) {
      out[colour] = count;
    }
    return out;
  }
};

TEST_F(Trace_in_browser, a_picture_shows_lanes_and_their_names) {
  (void)converted(raw(EVERYTHING, false), "out.svg");
  const std::string picture = dir_.file("out.png");
  for (int i = 0; i < 3 && access(picture.c_str(), F_OK) != 0; ++i) {
    (void)browse({"--window-size=1400,600", "--screenshot=" + picture}, dir_.file("out.svg"));
  }
  ASSERT_EQ(access(picture.c_str(), F_OK), 0);
  const std::map<std::string, size_t> found = colours(picture);
  size_t pixels = 0;
  for (const auto& [colour, count] : found) {
    pixels += count;
  }
  EXPECT_EQ(pixels, 1400U * 600U);
  EXPECT_GT(found.at("ffffff"), pixels / 2);
  EXPECT_GT(found.at("2f6db5"), 10000U) << "the task's bar is 1100 pixels long";
  EXPECT_GT(found.at("f5f6f8"), 20000U) << "bands behind the lanes";
  EXPECT_GT(found.size(), 50U) << "letters have shades";

  Command_result dom;
  for (int i = 0; i < 3 && dom.out.find("<svg") == std::string::npos; ++i) {
    dom = browse({"--dump-dom"}, dir_.file("out.svg"));
  }
  for (const char* name : {"worker", "TS_IN0_DMA", "TIMER", "VMSP1", "SBM_pool", "redraw", "zap"}) {
    EXPECT_NE(dom.out.find(std::string(">") + name + "<title>"), std::string::npos) << name << " in " << dom.out;
  }
}

// --- What goes wrong

struct Failing {
  const char* legend;
  std::string contents;  // of IN
  std::string out;       // in the test's folder, or from the root
  std::vector<std::string> more;
  int exit_code;
  std::string err;  // IN, OUT and DIR stand for their paths
};

void PrintTo(const Failing& c, std::ostream* out) {
  *out << c.legend;
}

std::string replaced(std::string text, const std::string& what, const std::string& by) {
  for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += by.size()) {
    text.replace(at, what.size(), by);
  }
  return text;
}

class Trace_failing : public Trace_convert, public testing::WithParamInterface<Failing> {};

TEST_P(Trace_failing, is_one_line_and_leaves_everything_as_it_was) {
  const Failing& c = GetParam();
  support::write_file(in_, c.contents);
  support::write_file(dir_.file("old.tdi"), "what was there");
  std::filesystem::create_directory(dir_.file("folder.svg"));
  const std::vector<std::string> before = names();
  const std::string out = c.out[0] == '/' ? c.out : dir_.file(c.out);
  const Command_result result = convert(in_, out, c.more);
  EXPECT_EQ(result.exit_code, c.exit_code);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, replaced(replaced(c.err, "$IN", in_), "$OUT", out) + "\n");
  EXPECT_EQ(names(), before);
  EXPECT_EQ(support::read_file(dir_.file("old.tdi")), "what was there");
  EXPECT_EQ(support::read_file(in_), c.contents);
}

const std::string GOOD = log_lines(EVERYTHING);

const Failing FAILINGS[] = {
    {"a text",
     "Dear reader,\nthis is no trace at all.\n",
     "old.tdi",
     {},
     1,
     "kelvo: $IN: not a trace (0 of 2 records make sense; --from little or --from big reads it all the same)"},
    {"less than a record", "0123", "old.tdi", {}, 1, "kelvo: $IN: not a trace (shorter than one record)"},
    {"a bad line",
     log_lines({1, 2, 3, 4}) + "00000001 00000002 0000000g 00000004\n",
     "old.tdi",
     {},
     1,
     "kelvo: $IN: line 2 is no record (four numbers of eight hexadecimal digits)"},
    {"a short line",
     "00000001 00000002 00000003\n" + GOOD,
     "old.tdi",
     {},
     1,
     "kelvo: $IN: line 1 is no record (four numbers of eight hexadecimal digits)"},
    {"a long line",
     "00000001 00000002 00000003 00000004 00000005\n" + GOOD,
     "old.tdi",
     {},
     1,
     "kelvo: $IN: line 1 is no record (four numbers of eight hexadecimal digits)"},
    {"raw words said to be lines",
     raw(EVERYTHING, false),
     "old.tdi",
     {"--from", "log"},
     1,
     "kelvo: $IN: line 1 is no record (four numbers of eight hexadecimal digits)"},
    {"no format",
     GOOD,
     "out.txt",
     {},
     2,
     "kelvo: --format is required where OUT does not end in .tdi, .log, .json or .svg (see 'kelvo trace convert "
     "--help')"},
    {"a wrong format",
     GOOD,
     "old.tdi",
     {"--format", "png"},
     2,
     "kelvo: --format: png not in {tdi,log,json,svg} (see 'kelvo trace convert --help')"},
    {"a wrong source",
     GOOD,
     "old.tdi",
     {"--from", "middle"},
     2,
     "kelvo: --from: middle not in {auto,little,big,log} (see 'kelvo trace convert --help')"},
    {"IN once more",
     GOOD,
     "in.trace",
     {"--format", "tdi"},
     2,
     "kelvo: IN and OUT are the same file (see 'kelvo trace convert --help')"},
    {"a folder that is missing",
     GOOD,
     "missing/out.svg",
     {},
     1,
     "kelvo: $OUT: cannot be written: No such file or directory"},
    {"a folder", GOOD, "folder.svg", {}, 1, "kelvo: $OUT: cannot be written: Is a directory"},
    {"a full disk, tdi", GOOD, "/dev/full", {"--format", "tdi"}, 1, "kelvo: /dev/full: cannot be written: disk full"},
    {"a full disk, svg", GOOD, "/dev/full", {"--format", "svg"}, 1, "kelvo: /dev/full: cannot be written: disk full"},
};

INSTANTIATE_TEST_SUITE_P(files, Trace_failing, testing::ValuesIn(FAILINGS));

TEST_F(Trace_convert, an_input_that_cannot_be_read_is_an_error) {
  Command_result result = convert(dir_.file("missing"), dir_.file("out.svg"));
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.err, "kelvo: " + dir_.file("missing") + ": cannot be read: No such file or directory\n");
  result = convert(dir_.path(), dir_.file("out.svg"));
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.err, "kelvo: " + dir_.path() + ": cannot be read: Is a directory\n");
  EXPECT_EQ(names(), std::vector<std::string>{});
}

// The disk gets full in the middle: files may not grow beyond 16 KiB or so.
TEST_F(Trace_convert, nothing_half_written_is_left) {
  Words words;
  for (unsigned i = 0; i < 5000; ++i) {
    words.insert(words.end(), {i * 1000, control(i % 2, 0, 1), word("task"), 0});
  }
  support::write_file(in_, raw(words, false));
  for (const std::string format : {"tdi", "log", "json", "svg"}) {
    const std::string out = dir_.file("out." + format);
    const std::string limit = format == "svg" ? "4" : "32";
    support::write_file(out, "what was there");
    const Command_result result = run_command(
        {"sh", "-c", "ulimit -f " + limit + "; exec \"$0\" trace convert \"$1\" \"$2\"", KELVO_COMMAND, in_, out});
    EXPECT_EQ(result.exit_code, 1) << format;
    EXPECT_EQ(result.err, "kelvo: " + out + ": cannot be written: disk full\n");
    EXPECT_EQ(support::read_file(out), "what was there");
    std::filesystem::remove(out);
    EXPECT_EQ(names(), std::vector<std::string>{"in.trace"});
  }
}

TEST_F(Trace_convert, a_file_that_exists_is_replaced_and_keeps_its_mode_and_its_links) {
  const std::string out = dir_.file("old.tdi");
  support::write_file(out, std::string(100'000, 'x'));
  ASSERT_EQ(chmod(out.c_str(), 0640), 0);
  ASSERT_EQ(symlink("old.tdi", dir_.file("link.tdi").c_str()), 0);
  (void)converted(GOOD, "link.tdi");
  EXPECT_EQ(support::read_file(out), EVERYTHING_TDI);
  EXPECT_TRUE(std::filesystem::is_symlink(dir_.file("link.tdi")));
  struct stat status {};
  ASSERT_EQ(stat(out.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640U);
  (void)converted(GOOD, "new.tdi");
  const mode_t mask = umask(0);
  (void)umask(mask);
  ASSERT_EQ(stat(dir_.file("new.tdi").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0666U & ~mask);
  EXPECT_EQ(names(), (std::vector<std::string>{"in.trace", "link.tdi", "new.tdi", "old.tdi"}));
}

TEST(Trace_usage, wrong_arguments_are_one_line_and_exit_2) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{}, "kelvo: A subcommand is required (see 'kelvo trace --help')\n"},
      {{"convert"}, "kelvo: IN is required (see 'kelvo trace convert --help')\n"},
      {{"convert", "a"}, "kelvo: OUT is required (see 'kelvo trace convert --help')\n"},
      {{"record", "a.svg"}, "kelvo: --freq is required (see 'kelvo trace record --help')\n"},
      {{"record", "a", "--freq", "474000000"},
       "kelvo: --format is required where OUT does not end in .tdi, .log, .json or .svg (see 'kelvo trace record "
       "--help')\n"},
      {{"demo"}, "kelvo: OUT is required (see 'kelvo trace demo --help')\n"},
      {{"demo", "a.png"},
       "kelvo: --format is required where OUT does not end in .tdi, .log, .json or .svg (see 'kelvo trace demo "
       "--help')\n"},
  };
  for (const auto& [arguments, err] : cases) {
    std::vector<std::string> argv{KELVO_COMMAND, "trace"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    const Command_result result = run_command(argv);
    EXPECT_EQ(result.exit_code, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, err);
  }
  for (const char* command : {"convert", "record", "demo"}) {
    const Command_result help = run_command({KELVO_COMMAND, "trace", command, "--help"});
    EXPECT_EQ(help.exit_code, 0);
    EXPECT_NE(help.out.find(std::string("\n  kelvo trace ") + command), std::string::npos) << help.out;
  }
}

}  // namespace
