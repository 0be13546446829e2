// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <nlohmann/json.hpp>

#include "support/browser.h"
#include "support/trace_records.h"
#include "tools/command_fixture.h"

// `kelvo trace convert`, run as people run it.

namespace {

using namespace trace_records;
using nlohmann::json;
using support::count_of;
using support::read_file;
using testing::HasSubstr;

constexpr double TICKS_IN_A_MICROSECOND = 320;

// Numbers from 0 on, below what they are asked for: the same on every machine.
auto random_below(unsigned seed) {
  return [engine = std::mt19937(seed)](size_t below) mutable { return static_cast<unsigned>(engine() % below); };
}

std::string raw(const std::vector<Record>& records, bool big = false) {
  std::string out;
  for (const unsigned word : words_of(records)) {
    for (const unsigned byte : {0U, 1U, 2U, 3U})
      out += static_cast<char>(word >> (big ? 24 - 8 * byte : 8 * byte) & 0xFF);
  }
  return out;
}

std::string log_lines(const std::vector<Record>& records) {
  std::string out;
  char line[40];
  for (const Record& record : records) {
    const auto [time, control, data1, data2] = record.words;
    out.append(line,
               static_cast<size_t>(snprintf(line, sizeof line, "%08x %08x %08x %08x\n", time, control, data1, data2)));
  }
  return out;
}

class Trace_convert : public Command_fixture {
 protected:
  static Command_result convert(const std::string& in, const std::string& out, const Words& more = {}) {
    return run_command(joined({{KELVO_COMMAND, "trace", "convert", in, out}, more}));
  }
  // Writes IN, converts it to OUT and returns what OUT holds.
  std::string converted(const std::string& contents, const std::string& out_name, const std::string& said = "",
                        const Words& more = {}) {
    support::write_file(in_, contents);
    EXPECT_EQ(convert(in_, dir_.file(out_name), more), prints("", said));
    return read_file(dir_.file(out_name));
  }
  std::vector<json> events(const std::vector<Record>& records) {
    const json document = json::parse(converted(raw(records), "out.json"));
    EXPECT_EQ(document["displayTimeUnit"], "ns");
    return document["traceEvents"];
  }
  std::set<std::string> names() const {
    std::set<std::string> out;
    for (const auto& entry : std::filesystem::directory_iterator(dir_.path()))
      out.insert(entry.path().filename());
    return out;
  }

  const std::string in_ = dir_.file("in.trace");
};

// One of everything, with a wrap of the counter before the last record.
const std::vector<Record> EVERYTHING = {{1000, STA, TASK, 7, "worker"},
                                        {1320, STA, ISR, 14},
                                        {1480, STA, ISR, 7},
                                        {1640, STO, ISR, 7},
                                        {1800, STO, ISR, 14},
                                        {2000, STA, AGENT, 35, 0, 1},
                                        {2640, STO, AGENT, 35},
                                        {3000, NOTE, 0, 0, "zap", 0xFFFFFFFB},
                                        {3200, STA, OBJ, 3, "pool"},
                                        {3360, STO, OBJ, 3, "pool"},
                                        {4000, STA, EVENT, 0, "redraw"},
                                        {4000, STO, EVENT, 0, "redraw"},
                                        {0xFFFFFFF0, NOTE, 0, 0, "zap", 1},
                                        {321, STO, TASK, 7, "worker"}};
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
  for (const std::string& source : {raw(EVERYTHING), raw(EVERYTHING, true), log_lines(EVERYTHING)}) {
    EXPECT_EQ(converted(source, "out.tdi"), EVERYTHING_TDI);
    EXPECT_EQ(converted(source, "out.log"), log_lines(EVERYTHING));
  }
}

TEST_F(Trace_convert, log_lines_are_read_as_people_and_windows_leave_them) {
  std::string text = log_lines(EVERYTHING);
  for (char& c : text)
    c = static_cast<char>(toupper(c));
  text = std::regex_replace(text, std::regex("\n"), "\r\n");
  EXPECT_EQ(converted(text + "\r\n\n", "out.tdi"), EVERYTHING_TDI);
  text = log_lines(EVERYTHING);
  text.pop_back();  // the last line break
  EXPECT_EQ(converted(text, "out.tdi"), EVERYTHING_TDI);
}

TEST_F(Trace_convert, the_byte_order_can_be_forced) {
  // All of it makes sense in either order: control words are alike from both ends, times go up in one of them only.
  const std::vector<Record> both = {{0x00000001, 0, 0, 0}, {0x00000102, 0, 0, 0}, {0x00000200, 0, 0, 0}};
  EXPECT_EQ(converted(raw(both, false), "out.log"), log_lines(both));
  EXPECT_EQ(converted(raw(both, true), "out.log"), log_lines(both));
  const std::vector<Record> turned = {{0x01000000, 0, 0, 0}, {0x02010000, 0, 0, 0}, {0x00020000, 0, 0, 0}};
  EXPECT_EQ(converted(raw(both, false), "out.log", "", {"--from", "big"}), log_lines(turned));
  EXPECT_EQ(converted(raw(both, true), "out.log", "", {"--from", "little"}), log_lines(turned));
  EXPECT_EQ(converted(raw(both, true), "out.log", "", {"--from", "auto"}), log_lines(both));
}

TEST_F(Trace_convert, standard_input_and_output_do) {
  support::write_file(in_, raw(EVERYTHING, true));
  EXPECT_EQ(run_command({"sh", "-c", "cat \"$1\" | \"$0\" trace convert - - --format tdi", KELVO_COMMAND, in_}),
            prints(EVERYTHING_TDI));
}

TEST_F(Trace_convert, nothing_recorded_is_no_error) {
  EXPECT_EQ(converted("", "out.tdi"), HEADER + "END\n");
  EXPECT_EQ(converted("", "out.log"), "");
  EXPECT_EQ(json::parse(converted("", "out.json"))["traceEvents"], json::array());
  EXPECT_THAT(converted("", "out.svg"), HasSubstr(">nothing recorded</text>"));
}

TEST_F(Trace_convert, a_record_that_is_cut_off_is_left_out) {
  const std::string said = "kelvo: " + in_ + ": the last record is cut off and left out\n";
  const std::vector<Record> one = {{5, NOTE, 0, 0, "note", 7}};
  const std::string tdi = HEADER + "NAM 7 0 note\nOCC 7 0 0\nDSC 1 0 7\nEND\n";
  for (const auto& [source, lengths] :
       {std::pair(raw(one), std::vector<size_t>{1, 4, 15}), std::pair(raw(one, true), std::vector<size_t>{1, 4, 15}),
        std::pair(log_lines(one), std::vector<size_t>{1, 8, 9, 34})}) {
    for (const size_t left : lengths)
      EXPECT_EQ(converted(source + source.substr(0, left), "out.tdi", said), tdi) << left;
  }
  EXPECT_EQ(converted(log_lines(one).substr(0, 20), "out.tdi", said), HEADER + "END\n");
}

TEST_F(Trace_convert, records_that_make_no_sense_are_left_out_and_counted) {
  std::vector<Record> records = {{5, NOTE, 0, 0, "note", 7}, {6, STA, 6, 0, 1, 2}};
  EXPECT_EQ(converted(raw(records), "out.tdi", "kelvo: " + in_ + ": 1 of 2 records make no sense and is left out\n"),
            HEADER + "NAM 7 0 note\nOCC 7 0 0\nDSC 1 0 7\nEND\n");
  records.insert(records.end(), {{7, STO, TASK, 1}, {8, STA, ISR, 82}});
  const std::string two = "kelvo: " + in_ + ": 2 of 4 records make no sense and are left out\n";
  EXPECT_THAT(converted(raw(records), "out.svg", two),
              HasSubstr(">4 records, 9.38 ns, 2 that make no sense left out</text>"));
  // The library writes what follows from the last id, and with -v says what it thinks of it.
  EXPECT_EQ(converted(raw(records), "out.tdi",
                      "ERROR: Parse error at entry 1. Time 6, cmd 1 type 6 id 0, data1 1 data2 2\n"
                      "ERROR: ISR index out of range 0..82" +
                          two,
                      {"-v"}),
            HEADER + "NAM 7 0 note\nOCC 7 0 0\nDSC 1 0 7\nNAM 0 0 \nSTO 0 0 2\nSTA 1 0 3\nEND\n");
  EXPECT_EQ(converted(raw(records), "out.log"), log_lines(records));
}

// --- JSON

TEST_F(Trace_convert, json_has_a_process_a_kind_a_thread_a_lane_and_an_event_a_span) {
  // A kind, a lane of it, or an event, in the order of the file.
  std::vector<json> expected;
  const auto named = [&](const std::string& what, const json& where, int number, const char* name) {
    for (const auto& [key, value] : {std::pair(what + "_name", json{{"name", name}}),
                                     std::pair(what + "_sort_index", json{{"sort_index", number}})}) {
      expected.push_back({{"name", key}, {"ph", "M"}, {"args", value}});
      expected.back().update(where);
    }
  };
  const auto kind = [&](int pid, const char* name) { named("process", {{"pid", pid}}, pid, name); };
  const auto lane = [&](int pid, int tid, const char* name) {
    named("thread", {{"pid", pid}, {"tid", tid}}, tid, name);
  };
  const auto event = [&](const char* text) { expected.push_back(json::parse(text)); };
  kind(1, "Tasks");
  lane(1, 1, "worker");
  event(R"({"name":"worker","cat":"task","ph":"X","ts":0.0,"dur":13421770.675,"pid":1,"tid":1})");
  kind(2, "Interrupts");
  lane(2, 1, "TS_IN0_DMA");
  event(R"({"name":"TS_IN0_DMA","cat":"interrupt","ph":"X","ts":1.0,"dur":1.5,"pid":2,"tid":1})");
  lane(2, 2, "TIMER");
  event(R"({"name":"TIMER","cat":"interrupt","ph":"X","ts":1.5,"dur":0.5,"pid":2,"tid":2,"args":{"nested":true}})");
  kind(3, "Agents");
  lane(3, 1, "VMSP1");
  event(R"({"name":"VMSP1","cat":"agent","ph":"X","ts":3.125,"dur":2.0,"pid":3,"tid":1})");
  event(R"({"name":"enabled","cat":"agent","ph":"i","ts":3.125,"pid":3,"tid":1,"s":"t"})");
  kind(4, "Objects");
  lane(4, 1, "SBM_pool");
  event(R"({"name":"SBM_pool","cat":"object","ph":"X","ts":6.875,"dur":0.5,"pid":4,"tid":1})");
  kind(5, "Events");
  lane(5, 1, "redraw");
  event(R"({"name":"redraw","cat":"event","ph":"X","ts":9.375,"dur":0.0,"pid":5,"tid":1})");
  kind(6, "Notes");
  lane(6, 1, "zap");
  event(R"({"name":"zap","cat":"note","ph":"i","ts":6.25,"pid":6,"tid":1,"s":"t","args":{"value":-5}})");
  event(R"({"name":"zap","cat":"note","ph":"i","ts":13421769.625,"pid":6,"tid":1,"s":"t","args":{"value":1}})");
  event(R"({"name":"TimeWrap","cat":"clock","ph":"i","ts":13421769.625,"pid":1,"tid":1,"s":"g"})");
  EXPECT_EQ(events(EVERYTHING), expected);
}

TEST_F(Trace_convert, names_are_clean_and_lanes_that_look_alike_have_their_number) {
  const std::vector<Record> records = {
      {0, 4, TASK, 1, "\xC3\xB5ma"},
      {0, 4, TASK, 2, "cut\xC3"},               // half a character
      {0, 4, TASK, 3, "\x1B[2J", 0x110A0000U},  // what would talk to a terminal
      {0, 4, TASK, 4, "\0\0\0\0lost"},          // no name before the zero byte
      {0, 4, TASK, 5, "same"},
      {0, 4, TASK, 6, "same"},
      {0, STA, ISR, 0},
      {0, STA, ISR, 1},
      {0, NOTE, 0, 0, "a<&\""},
      {0, NOTE, 0, 0, "b"},
  };
  Words lanes;
  for (const json& event : events(records)) {
    if (event["name"] == "thread_name")
      lanes.push_back(event["args"]["name"]);
  }
  EXPECT_EQ(lanes, (Words{"\xC3\xB5ma", "cut\xEF\xBF\xBD", "[2J", "task 4", "same (5)", "same (6)", "NO_NAME (0)",
                          "NO_NAME (1)", "a<&\"", "b"}));
}

TEST_F(Trace_convert, starts_and_stops_pair_and_what_was_not_recorded_is_said) {
  const std::vector<Record> records = {
      {320, STO, TASK, 1, "a"},                                                         // under way at the beginning
      {640, STA, TASK, 1, "a"},  {960, STA, TASK, 1, "a"},                              // again, inside
      {1280, STO, TASK, 1, "a"}, {1600, STO, TASK, 1, "a"}, {1920, STO, TASK, 1, "a"},  // a stop whose start is missing
      {2240, STA, TASK, 2, "b"},                                                        // under way at the end
      {2560, 4, TASK, 1, "a"},
  };
  Words spans;
  for (const json& event : events(records)) {
    if (event["ph"] == "X")
      spans.push_back(event["name"].get<std::string>() + " " + event["ts"].dump() + " " + event["dur"].dump() + " " +
                      event.value("args", json()).dump());
  }
  EXPECT_EQ(spans, (Words{R"(a 0.0 0.0 {"begin":"not recorded"})", "a 2.0 1.0 null", "a 1.0 3.0 null",
                          R"(a 5.0 0.0 {"begin":"not recorded"})", R"(b 6.0 1.0 {"end":"not recorded"})"}));
}

TEST_F(Trace_convert, time_goes_on_over_many_wraps) {
  std::vector<Record> records;
  for (unsigned i = 0; i < 6; ++i)
    records.emplace_back(100 - i, NOTE, 0, 0, "tick", i);
  double expected = 0;
  int wraps = 0;
  for (const json& event : events(records)) {
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
    auto below = random_below(seed);
    const auto any = [&below](const std::vector<unsigned>& from) { return from[below(from.size())]; };
    std::vector<Record> records;
    unsigned time = below(1U << 31);
    for (int i = 0; i < 2000; ++i) {
      time += below(100) == 0 ? 0xF0000000U : below(100'000);
      const unsigned cmd = any({0, 0, 1, 1, 2});
      const unsigned type = any({0, 1, 2, 3, 4, 8});
      const unsigned id = any({0, 1, 7, 81});
      const unsigned data1 = any({word("aa"), word("bb"), word("cccc")});
      records.emplace_back(time, cmd, type, id, data1, any({0, 1, word("dd")}));
    }
    std::multiset<Span> expected;
    std::multiset<std::pair<double, int>> expected_notes;
    std::map<std::pair<int, int>, std::vector<double>> open;  // of the lanes seen
    double now = 0;
    double note_at = 0;
    uint32_t last = 0;
    for (const std::string& line : support::lines_of(converted(raw(records, true), "out.tdi"))) {
      std::istringstream fields(line);
      std::string verb;
      int type = 0;
      int id = 0;
      int64_t third = 0;
      fields >> verb >> type >> id >> third;
      const bool seen = open.count({type, id}) != 0;
      if (verb == "STA" || verb == "STO" || (verb == "OCC" && type == 7))
        now += static_cast<uint32_t>(third) - std::exchange(last, static_cast<uint32_t>(third));
      if (verb == "STA") {
        open[{type, id}].push_back(now);
      } else if (verb == "STO") {
        auto& begun = open[{type, id}];
        const double begin = !begun.empty() ? begun.back() : seen ? now : 0;
        expected.insert({categories.at(type), begin / TICKS_IN_A_MICROSECOND, (now - begin) / TICKS_IN_A_MICROSECOND});
        if (!begun.empty())
          begun.pop_back();
      } else if (verb == "OCC" && type == 7) {
        note_at = now;
      } else if (verb == "DSC" && type == 1) {
        expected_notes.insert({note_at / TICKS_IN_A_MICROSECOND, static_cast<int>(third)});
      }
    }
    for (const auto& [lane, begun] : open) {
      for (const double begin : begun)
        expected.insert(
            {categories.at(lane.first), begin / TICKS_IN_A_MICROSECOND, (now - begin) / TICKS_IN_A_MICROSECOND});
    }
    std::multiset<Span> found;
    std::multiset<std::pair<double, int>> found_notes;
    const json document = json::parse(converted(raw(records, true), "out.json"));
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
  std::vector<Record> records = EVERYTHING;
  records.emplace_back(400, NOTE, 0, 0, "<&>\"", 9);
  const std::string svg = converted(raw(records), "out.svg");
  EXPECT_EQ(run_command({"xmllint", "--noout", dir_.file("out.svg")}).exit_code, 0);
  for (const std::string text :
       {"Trace in.trace", "15 records, 13.4 s", "Tasks", "Interrupts", "Agents", "Objects", "Events", "Notes", "2 s",
        "12 s", "the counter wrapped", "note and its value", "interrupt enabled"})
    EXPECT_THAT(svg, HasSubstr(">" + text + "</text>"));
  for (const std::string lane :
       {"worker", "TS_IN0_DMA", "TIMER", "VMSP1", "SBM_pool", "redraw", "zap", "&lt;&amp;&gt;\""})
    EXPECT_THAT(svg, HasSubstr(">" + lane + "<title>"));
  EXPECT_THAT(svg,
              HasSubstr("<title>TIMER, 500 ns, from 0.000001500 s to 0.000002000 s, during another interrupt</title>"));
  EXPECT_THAT(svg, HasSubstr("<title>zap: 1 at 13.421769625 s</title>"));
  EXPECT_THAT(svg, Not(HasSubstr("<script")));
  EXPECT_THAT(svg, Not(HasSubstr(dir_.path()))) << "no path of this machine belongs into a picture";
}

TEST_F(Trace_convert, the_axis_has_units_that_fit) {
  const std::pair<unsigned, Words> cases[] = {
      {3, {"0 ns", "9 ns"}},
      {3200, {"0 µs", "10 µs"}},
      {320'000, {"0.0 ms", "0.5 ms", "1.0 ms"}},
      {32'000'000, {"0 ms", "90 ms", "100 ms"}},
      {1'600'000'000, {"0.0 s", "4.5 s", "5.0 s"}},
  };
  for (const auto& [ticks, labels] : cases) {
    const std::string svg = converted(raw({{0, STA, TASK, 1, "a"}, {ticks, STO, TASK, 1, "a"}}), "out.svg");
    for (const std::string& label : labels)
      EXPECT_THAT(svg, HasSubstr(">" + label + "</text>")) << ticks;
  }
}

// Many lanes, nested spans, stops without starts, notes: a million records.
struct Million {
  Million() {
    records.reserve(1'000'000);
    auto below = random_below(3);
    unsigned time = 0;
    for (unsigned i = 0; i < 1'000'000; ++i) {
      time += 100 + below(1000);
      const unsigned lane = below(300);
      const unsigned cmd = std::array{STO, STO, STA, STA, NOTE}[below(5)];
      const unsigned type = std::array{TASK, ISR, OBJ, EVENT, AGENT}[below(5)];
      records.emplace_back(time, cmd, type, lane % 82, word("n" + std::to_string(lane)));
      stops += cmd == STO ? 1 : 0;
      notes += cmd == NOTE ? 1 : 0;
    }
  }
  std::vector<Record> records;
  size_t stops = 0;
  size_t notes = 0;
};

TEST_F(Trace_convert, a_picture_of_a_million_records_is_small) {
  const std::string svg = converted(raw(Million().records), "out.svg");
  EXPECT_LT(svg.size(), 6'000'000U);
  EXPECT_LT(count_of(svg, "<rect"), 21'000U);
  for (const char* text : {">1000000 records, 1.87 s</text>", ">and 42 more that are not shown</text>"})
    EXPECT_NE(count_of(svg, text), 0U) << text;  // a failing matcher would print all of it
  EXPECT_EQ(run_command({"xmllint", "--noout", "--huge", dir_.file("out.svg")}).exit_code, 0);
}

TEST_F(Trace_convert, a_million_records_are_all_in_tdi_and_log) {
  const Million million;
  const std::string log = log_lines(million.records);
  EXPECT_TRUE(converted(raw(million.records, true), "out.log") == log);
  const std::string tdi = converted(log, "out.tdi");
  EXPECT_EQ(count_of(tdi, "\nSTO "), million.stops);
  EXPECT_EQ(count_of(tdi, "\nDSC 1 "), million.notes);
  EXPECT_EQ(tdi.substr(tdi.size() - 5), "\nEND\n");
}

TEST_F(Trace_convert, a_million_records_are_all_in_json) {
  const Million million;
  const std::string text = converted(raw(million.records), "out.json");
  EXPECT_TRUE(json::accept(text));
  EXPECT_EQ(count_of(text, "\"cat\":\"note\",\"ph\":\"i\""), million.notes);
  EXPECT_EQ(count_of(text, "\"ph\":\"X\""), million.stops + count_of(text, "\"end\":\"not recorded\""));
}

TEST_F(Trace_convert, a_picture_in_a_browser_shows_lanes_and_their_names) {
  support::Browser browser;
  if (!browser.missing().empty())
    GTEST_SKIP() << "no headless browser: " << browser.missing();
  (void)converted(raw(EVERYTHING), "out.svg");
  browser.screen(1400, 600);
  browser.open(dir_.file("out.svg"));
  browser.screenshot(dir_.file("out.png"));
  const std::map<std::string, size_t> found = support::colours_of(dir_.file("out.png"));
  size_t pixels = 0;
  for (const auto& [colour, count] : found)
    pixels += count;
  EXPECT_EQ(pixels, 1400U * 600U);
  EXPECT_GT(found.at("ffffff"), pixels / 2);
  EXPECT_GT(found.at("2f6db5"), 10000U) << "the task's bar is 1100 pixels long";
  EXPECT_GT(found.at("f5f6f8"), 20000U) << "bands behind the lanes";
  EXPECT_GT(found.size(), 50U) << "letters have shades";

  const std::string dom = browser.js("return document.documentElement.outerHTML").get<std::string>();
  for (const std::string name : {"worker", "TS_IN0_DMA", "TIMER", "VMSP1", "SBM_pool", "redraw", "zap"})
    EXPECT_THAT(dom, HasSubstr(">" + name + "<title>"));
}

// --- What goes wrong

const std::string GOOD = log_lines(EVERYTHING);

TEST_F(Trace_convert, a_failure_is_one_line_and_leaves_everything_as_it_was) {
  const std::string no_record = " is no record (four numbers of eight hexadecimal digits)";
  const std::string help = " (see 'kelvo trace convert --help')";
  const std::string cannot = ": cannot be written: ";
  const std::string missing = dir_.file("missing/out.svg");
  const std::string folder = dir_.file("folder.svg");
  const struct {
    const char* legend;
    std::string contents;  // of IN
    Words more;
    std::string err;
    std::string out = "old.tdi";  // in the test's folder, or from the root
    int exit_code = 1;
  } cases[] = {
      {"a text",
       "Dear reader,\nthis is no trace at all.\n",
       {},
       in_ + ": not a trace (0 of 2 records make sense; --from little or --from big reads it all the same)"},
      {"less than a record", "0123", {}, in_ + ": not a trace (shorter than one record)"},
      {"a bad line",
       log_lines({{1, 0, 0, 2, 3, 4}}) + "00000001 00000002 0000000g 00000004\n",
       {},
       in_ + ": line 2" + no_record},
      {"a short line", "00000001 00000002 00000003\n" + GOOD, {}, in_ + ": line 1" + no_record},
      {"a long line", "00000001 00000002 00000003 00000004 00000005\n" + GOOD, {}, in_ + ": line 1" + no_record},
      {"raw words said to be lines", raw(EVERYTHING), {"--from", "log"}, in_ + ": line 1" + no_record},
      {"no format",
       GOOD,
       {},
       "--format is required where OUT does not end in .tdi, .log, .json or .svg" + help,
       "out.txt",
       2},
      {"a wrong format", GOOD, {"--format", "png"}, "--format: png not in {tdi,log,json,svg}" + help, "old.tdi", 2},
      {"a wrong source",
       GOOD,
       {"--from", "middle"},
       "--from: middle not in {auto,little,big,log}" + help,
       "old.tdi",
       2},
      {"IN once more", GOOD, {"--format", "tdi"}, "IN and OUT are the same file" + help, "in.trace", 2},
      {"a folder that is missing", GOOD, {}, missing + cannot + "No such file or directory", missing},
      {"a folder", GOOD, {}, folder + cannot + "Is a directory", folder},
      {"a full disk, tdi", GOOD, {"--format", "tdi"}, "/dev/full" + cannot + "disk full", "/dev/full"},
      {"a full disk, svg", GOOD, {"--format", "svg"}, "/dev/full" + cannot + "disk full", "/dev/full"},
  };
  std::filesystem::create_directory(folder);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.legend);
    support::write_file(in_, c.contents);
    support::write_file(dir_.file("old.tdi"), "what was there");
    EXPECT_EQ(convert(in_, c.out[0] == '/' ? c.out : dir_.file(c.out), c.more), fails(c.err, c.exit_code));
    EXPECT_EQ(names(), (std::set<std::string>{"folder.svg", "in.trace", "old.tdi"}));
    EXPECT_EQ(read_file(dir_.file("old.tdi")), "what was there");
    EXPECT_EQ(read_file(in_), c.contents);
  }
}

TEST_F(Trace_convert, an_input_that_cannot_be_read_is_an_error) {
  const std::string missing = dir_.file("missing");
  EXPECT_EQ(convert(missing, dir_.file("out.svg")), fails(missing + ": cannot be read: No such file or directory"));
  EXPECT_EQ(convert(dir_.path(), dir_.file("out.svg")), fails(dir_.path() + ": cannot be read: Is a directory"));
  EXPECT_TRUE(folder_is_empty());
}

// The disk gets full in the middle: files may not grow beyond 16 KiB or so.
TEST_F(Trace_convert, nothing_half_written_is_left) {
  std::vector<Record> records;
  for (unsigned i = 0; i < 5000; ++i)
    records.emplace_back(i * 1000, i % 2, TASK, 1, "task");
  support::write_file(in_, raw(records));
  for (const std::string format : {"tdi", "log", "json", "svg"}) {
    const std::string out = dir_.file("out." + format);
    const std::string limit = format == "svg" ? "4" : "32";
    support::write_file(out, "what was there");
    EXPECT_EQ(run_command({"sh", "-c", "ulimit -f " + limit + "; exec \"$0\" trace convert \"$1\" \"$2\"",
                           KELVO_COMMAND, in_, out}),
              fails(out + ": cannot be written: disk full"));
    EXPECT_EQ(read_file(out), "what was there");
    std::filesystem::remove(out);
    EXPECT_EQ(names(), std::set<std::string>{"in.trace"});
  }
}

TEST_F(Trace_convert, a_file_that_exists_is_replaced_and_keeps_its_mode_and_its_links) {
  const std::string out = dir_.file("old.tdi");
  support::write_file(out, std::string(100'000, 'x'));
  ASSERT_EQ(chmod(out.c_str(), 0640), 0);
  ASSERT_EQ(symlink("old.tdi", dir_.file("link.tdi").c_str()), 0);
  (void)converted(GOOD, "link.tdi");
  EXPECT_EQ(read_file(out), EVERYTHING_TDI);
  EXPECT_TRUE(std::filesystem::is_symlink(dir_.file("link.tdi")));
  const auto mode_of = [&](const char* name) {
    struct stat status {};
    EXPECT_EQ(stat(dir_.file(name).c_str(), &status), 0);
    return status.st_mode & 07777;
  };
  EXPECT_EQ(mode_of("old.tdi"), 0640U);
  (void)converted(GOOD, "new.tdi");
  const mode_t mask = umask(0);
  (void)umask(mask);
  EXPECT_EQ(mode_of("new.tdi"), 0666U & ~mask);
  EXPECT_EQ(names(), (std::set<std::string>{"in.trace", "link.tdi", "new.tdi", "old.tdi"}));
}

TEST(Trace_usage, wrong_arguments_are_one_line_and_exit_2) {
  const std::string no_format = "--format is required where OUT does not end in .tdi, .log, .json or .svg";
  const std::pair<Words, std::string> cases[] = {
      {{}, "A subcommand is required (see 'kelvo trace --help')"},
      {{"convert"}, "IN is required (see 'kelvo trace convert --help')"},
      {{"convert", "a"}, "OUT is required (see 'kelvo trace convert --help')"},
      {{"record", "a.svg"}, "--freq is required (see 'kelvo trace record --help')"},
      {{"record", "a", "--freq", "474000000"}, no_format + " (see 'kelvo trace record --help')"},
      {{"demo"}, "OUT is required (see 'kelvo trace demo --help')"},
      {{"demo", "a.png"}, no_format + " (see 'kelvo trace demo --help')"},
  };
  for (const auto& [arguments, err] : cases)
    EXPECT_EQ(run_command(joined({{KELVO_COMMAND, "trace"}, arguments})), fails(err, 2));
  for (const std::string command : {"convert", "record", "demo"})
    EXPECT_THAT(run_command({KELVO_COMMAND, "trace", command, "--help"}),
                ends(0, HasSubstr("\n  kelvo trace " + command)));
}

}  // namespace
