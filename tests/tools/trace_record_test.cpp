// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <nlohmann/json.hpp>

#include "tools/command_fixture.h"

// `kelvo trace record` under the software adapter, and `kelvo trace demo`, which brings it along.

namespace {

using nlohmann::json;
using support::read_file;
using testing::HasSubstr;
using testing::StartsWith;

// Lanes by kind, and the spans and notes of each.
struct Lanes {
  std::map<std::string, std::set<std::string>> names;
  std::map<std::string, std::vector<json>> spans;
  std::map<std::string, std::vector<int>> notes;
};

Lanes lanes_of(const std::string& file) {
  Lanes out;
  std::map<int, std::string> processes;
  const json document = json::parse(read_file(file));
  for (const json& event : document["traceEvents"]) {
    const std::string name = event["name"];
    if (name == "process_name") {
      processes[event["pid"]] = event["args"]["name"];
    } else if (name == "thread_name") {
      out.names[processes[event["pid"]]].insert(event["args"]["name"]);
    } else if (event["ph"] == "X") {
      out.spans[processes[event["pid"]] + " " + name].push_back(event);
    } else if (event["ph"] == "i" && event["cat"] == "note") {
      out.notes[name].push_back(event["args"]["value"]);
    }
  }
  return out;
}

bool within(const json& inner, const json& outer) {
  const auto end = [](const json& span) { return span["ts"].get<double>() + span["dur"].get<double>(); };
  return inner["ts"] >= outer["ts"] && end(inner) <= end(outer);
}

using Trace_record = Command_fixture;

TEST_F(Trace_record, has_the_phases_of_a_scan) {
  const std::string out = dir_.file("scan.json");
  const std::string stream = dir_.file("522.ts");
  ASSERT_EQ(run_command({SOFTDVB_MUX_COMMAND, KELVO_SAMPLES "/kuldnokk-522.json", "-o", stream}).exit_code, 0);
  EXPECT_THAT(run_command({SOFTDVB_COMMAND, "--time", "x5", "--mux", "522000000=" + stream, "--", KELVO_COMMAND,
                           "trace", "record", out, "--freq", "522000000", "--freq", "530000000"}),
              ends(0, "", AllOf(StartsWith("kelvo: " + out + ": "), HasSubstr(" records\n"))));

  Lanes lanes = lanes_of(out);
  EXPECT_EQ(lanes.names["Tasks"], (std::set<std::string>{"tune", "scan", "parse", "merge"}));
  EXPECT_EQ(lanes.names["Interrupts"], std::set<std::string>{"TS_IN0_DMA"});
  EXPECT_THAT(lanes.names["Objects"], testing::IsSupersetOf({"PAT", "NIT", "SDT", "TOT", "PMT 256"}));
  EXPECT_THAT(lanes.names["Events"], testing::IsSupersetOf({"PAT", "NIT", "SDT", "PMT"}));
  // The second frequency has no signal.
  EXPECT_EQ(lanes.notes["MHz"], (std::vector<int>{522, 530}));
  EXPECT_EQ(lanes.notes["lock"], (std::vector<int>{1, 0}));
  EXPECT_EQ(lanes.notes["done"], std::vector<int>{0});
  EXPECT_EQ(lanes.notes.count("err"), 0U) << "nothing has failed";
  EXPECT_EQ(lanes.spans["Tasks tune"].size(), 2U);
  ASSERT_EQ(lanes.spans["Tasks scan"].size(), 1U);
  ASSERT_EQ(lanes.spans["Tasks merge"].size(), 1U);
  const json scan = lanes.spans["Tasks scan"][0];
  EXPECT_GT(scan["dur"].get<double>(), 100'000) << "the NIT comes every two seconds";
  // Eight services, a PMT each; every section is read, and parsed while its filter is there.
  EXPECT_EQ(lanes.spans["Events PMT"].size(), 8U);
  EXPECT_EQ(lanes.spans["Events NIT"].size(), 1U);
  EXPECT_GE(lanes.spans["Interrupts TS_IN0_DMA"].size(), 11U);
  EXPECT_TRUE(within(lanes.spans["Events PAT"][0], scan));
  EXPECT_TRUE(within(lanes.spans["Objects NIT"][0], scan));
  EXPECT_LT(lanes.spans["Events NIT"][0]["ts"], lanes.spans["Tasks merge"][0]["ts"]);
  for (const auto& [lane, spans] : lanes.spans) {
    for (const json& span : spans)
      EXPECT_FALSE(span.value("args", json::object()).contains("begin")) << lane << " ends without a beginning";
  }
}

TEST_F(Trace_record, is_kept_when_it_is_interrupted) {
  const std::string out = dir_.file("scan.log");
  const std::string log = dir_.file("adapter.log");
  std::string nothing;  // packets without a section: the scan would wait for six seconds
  for (int i = 0; i < 20000; ++i)
    nothing += "\x47\x1F\xFF\x10" + std::string(184, '\xFF');
  support::write_file(dir_.file("empty.ts"), nothing);
  support::Running_command running({SOFTDVB_COMMAND, "--log", log, "--mux", "522000000=" + dir_.file("empty.ts"), "--",
                                    KELVO_COMMAND, "trace", "record", out, "--freq", "522000000"});
  support::wait_for([&] { return read_file(log).find("DMX_SET_FILTER") != std::string::npos; },
                    std::chrono::seconds(30));
  EXPECT_THAT(ended_by(SIGINT, running),
              ends(130, testing::_, HasSubstr("kelvo: interrupted; what was recorded is kept\n")));
  // A note of the frequency: the trace begins with it.
  EXPECT_EQ(read_file(out).substr(9, 18), "02000000 4d487a00 ");
}

TEST_F(Trace_record, quietly_says_nothing) {
  const std::string out = dir_.file("scan.log");
  const std::string stream = dir_.file("522.ts");
  ASSERT_EQ(run_command({SOFTDVB_MUX_COMMAND, KELVO_SAMPLES "/kuldnokk-522.json", "-q", "-o", stream}).exit_code, 0);
  EXPECT_EQ(run_command({SOFTDVB_COMMAND, "--time", "x20", "--mux", "522000000=" + stream, "--", KELVO_COMMAND, "trace",
                         "record", out, "--freq", "522M", "-q"}),
            prints(""));
}

TEST_F(Trace_record, without_an_adapter_is_an_error) {
  if (std::filesystem::exists("/dev/dvb/adapter3"))
    GTEST_SKIP() << "this machine has four DVB adapters";
  EXPECT_EQ(
      run_command({KELVO_COMMAND, "trace", "record", dir_.file("a.svg"), "--adapter", "3", "--freq", "474000000"}),
      fails("/dev/dvb/adapter3/frontend0" + NO_DEVICE));
  EXPECT_TRUE(folder_is_empty());
}

TEST_F(Trace_record, of_the_sample_network_is_one_command) {
  const std::string out = dir_.file("demo.log");
  const support::Temp_dir temporary;
  EXPECT_THAT(run_command({KELVO_COMMAND, "trace", "demo", out}, {{"TMPDIR", temporary.path()}}),
              ends(0, testing::_,
                   StartsWith("kelvo: scanning the sample network; this takes a few seconds\nkelvo: " + out + ": ")));
  EXPECT_TRUE(std::filesystem::is_empty(temporary.path())) << "something was left behind";
  ASSERT_EQ(run_command({KELVO_COMMAND, "trace", "convert", out, dir_.file("demo.json")}).exit_code, 0);
  Lanes lanes = lanes_of(dir_.file("demo.json"));
  EXPECT_EQ(lanes.notes["MHz"], (std::vector<int>{474, 498, 522}));
  EXPECT_EQ(lanes.notes["done"], (std::vector<int>{0, 0, 0}));
  EXPECT_EQ(lanes.spans["Tasks merge"].size(), 3U);
  EXPECT_EQ(lanes.spans["Events PMT"].size(), 24U);
}

TEST_F(Trace_record, the_demonstration_says_what_is_missing) {
  const std::string out = dir_.file("demo.svg");
  EXPECT_EQ(run_command({KELVO_COMMAND, "trace", "demo", out, "--samples", "/nowhere"}),
            fails("/nowhere: no sample network (no network.conf in it)"));

  // A copy of the command alone.
  std::filesystem::create_directories(dir_.file("a/b/c"));
  const std::string alone = dir_.file("a/b/c/kelvo");
  std::filesystem::copy_file(KELVO_COMMAND, alone);
  const auto demo = [&] { return run_command({alone, "trace", "demo", out}, {{"PATH", dir_.path()}}); };
  EXPECT_EQ(demo(), fails("softdvb: not found beside kelvo nor in the PATH; the demonstration needs it"));
  std::filesystem::create_symlink(SOFTDVB_COMMAND, dir_.file("softdvb"));
  EXPECT_EQ(demo(), fails("softdvb-mux: not found beside kelvo nor in the PATH; the demonstration needs it"));
  std::filesystem::create_symlink(SOFTDVB_MUX_COMMAND, dir_.file("softdvb-mux"));
  EXPECT_EQ(demo(), fails("the sample network is not here; name its folder (with network.conf) with --samples"));
  EXPECT_FALSE(std::filesystem::exists(out));
}

}  // namespace
