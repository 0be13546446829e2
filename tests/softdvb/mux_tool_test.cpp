// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "base/ids.h"
#include "softdvb/mux/stream.h"
#include "softdvb/mux_support.h"
#include "support/command.h"
#include "support/test.h"

namespace {

using namespace mux_support;
using support::read_file;
using support::write_file;
using testing::ContainsRegex;
using testing::HasSubstr;
using Files = std::set<std::string>;

const std::string AT_NOW = " --now 2026-03-01T18:00:00Z";

class Mux_tool : public testing::Test {
 protected:
  support::Temp_dir folder;
  std::string description = folder.file("a.json");

  void SetUp() override { write_file(description, one_service()); }

  // Runs a shell's command in the folder, the tool as $MUX; returns its code and what went to standard error.
  std::string shell(const std::string& command) const {
    const std::string script =
        "MUX='" SOFTDVB_MUX "'; cd '" + folder.path() + "' && (" + command + ") >out 2>err </dev/null";
    const support::Command_result result = support::run_command({"bash", "-c", script});
    return std::to_string(result.exit_code) + ": " + text_of("err");
  }
  std::string run(const std::string& arguments) const { return shell("exec $MUX " + arguments); }

  std::string text_of(const std::string& name) const { return read_file(folder.file(name)); }
  Bytes bytes_of(const std::string& name) const { return support::bytes(text_of(name)); }

  Files files() const {
    Files names;
    for (const auto& entry : std::filesystem::directory_iterator(folder.path()))
      names.insert(entry.path().filename());
    return names;
  }

  unsigned mode_of(const std::string& name) const {
    return static_cast<unsigned>(std::filesystem::status(folder.file(name)).permissions());
  }
};

TEST_F(Mux_tool, wrong_use_is_one_line_and_2) {
  const std::pair<const char*, const char*> CASES[] = {
      {"", "no description is named; see softdvb-mux --help"},
      {"a.json", "no output is named, use -o FILE; see softdvb-mux --help"},
      {"a.json -o", "--output: 1 required FILE missing; see softdvb-mux --help"},
      {"--fast", "The following argument was not expected: --fast; see softdvb-mux --help"},
      {"a.json -o a.ts --now noon", "--now noon is no time such as 2026-03-01T18:00:00Z"}};
  for (const auto& [arguments, message] : CASES) {
    EXPECT_EQ(run(arguments), "2: softdvb-mux: " + std::string(message) + "\n") << arguments;
    EXPECT_EQ(text_of("out"), "") << arguments;
  }
}

TEST_F(Mux_tool, a_wrong_description_is_one_line_and_2_and_leaves_the_old_file) {
  write_file(description, "{\n  \"transport_stream_id\": 1,\n  \"original_network_id\": \"x\"\n}\n");
  write_file(folder.file("a.ts"), "old");
  EXPECT_EQ(run("a.json -o a.ts"),
            "2: softdvb-mux: a.json: original_network_id: \"x\" is not allowed, a whole number from 0 to 65535 (or "
            "\"0x0\" to \"0xFFFF\") is\n");
  EXPECT_EQ(text_of("a.ts"), "old");
  EXPECT_EQ(files(), (Files{"a.json", "a.ts", "err", "out"}));
}

TEST_F(Mux_tool, files_that_cannot_be_read_or_written_are_1_and_nothing_is_left) {
  std::filesystem::create_directory(folder.file("sub"));
  EXPECT_EQ(run("none.json -o a.ts"), "1: softdvb-mux: none.json cannot be read: No such file or directory\n");
  EXPECT_EQ(run(". -o a.ts"), "1: softdvb-mux: . cannot be read: Is a directory\n");
  EXPECT_EQ(run("a.json -q -o none/a.ts"), "1: softdvb-mux: none/a.ts cannot be written: No such file or directory\n");
  EXPECT_EQ(run("a.json -q -o sub"), "1: softdvb-mux: sub cannot be written: Is a directory\n");
  EXPECT_EQ(files(), (Files{"a.json", "err", "out", "sub"}));
}

TEST_F(Mux_tool, a_full_disk_is_1_and_the_old_file_stays) {
  write_file(folder.file("a.ts"), "old");
  // No file may become larger than 16 KiB; the signal that comes with it is ignored, as a full disk sends none.
  EXPECT_EQ(shell("trap '' XFSZ; ulimit -f 16; exec $MUX -q a.json -o a.ts"),
            "1: softdvb-mux: a.ts cannot be written: File too large\n");
  EXPECT_EQ(text_of("a.ts"), "old");
  EXPECT_EQ(files(), (Files{"a.json", "a.ts", "err", "out"}));
}

TEST_F(Mux_tool, pipes_and_links_stay_what_they_are) {
  write_file(folder.file("real.ts"), "old");
  ASSERT_EQ(chmod(folder.file("real.ts").c_str(), 0640), 0);
  std::filesystem::create_symlink("real.ts", folder.file("link.ts"));
  EXPECT_EQ(run("-q a.json -o link.ts" + AT_NOW), "0: ");
  EXPECT_TRUE(std::filesystem::is_symlink(folder.file("link.ts")));
  EXPECT_EQ(bytes_of("real.ts"), stream_of(one_service()));
  EXPECT_EQ(mode_of("real.ts"), 0640u) << "a file that was there keeps its mode";

  EXPECT_EQ(shell("mkfifo pipe; cat pipe >read & $MUX -q a.json -o pipe" + AT_NOW + "; wait"), "0: ");
  EXPECT_EQ(text_of("read"), text_of("real.ts"));
  EXPECT_TRUE(std::filesystem::is_fifo(folder.file("pipe")));
}

TEST_F(Mux_tool, writes_the_stream_and_says_what) {
  EXPECT_EQ(run("a.json -o a.ts" + AT_NOW),
            "0: a.ts: transport stream 1, 1 services, 1330 packets, 2.0 s at 1000000 bits a second\n");
  EXPECT_EQ(text_of("out"), "");
  EXPECT_EQ(bytes_of("a.ts"), stream_of(one_service()));
  const mode_t mask = umask(0);
  umask(mask);
  EXPECT_EQ(mode_of("a.ts"), 0666u & ~mask);
}

TEST_F(Mux_tool, quiet_says_nothing_and_a_dash_is_standard_output) {
  EXPECT_EQ(run("-q a.json -o a.ts" + AT_NOW), "0: ");
  EXPECT_EQ(run("a.json -o -" + AT_NOW), "0: ");
  EXPECT_EQ(text_of("out"), text_of("a.ts"));
}

TEST_F(Mux_tool, now_on_the_command_line_wins_over_the_description) {
  write_file(description, one_service("", R"(, "now": "2001-01-01T00:00:00Z")"));
  run("a.json -o a.ts" + AT_NOW);
  EXPECT_EQ(bytes_of("a.ts"), stream_of(one_service()));
}

TEST_F(Mux_tool, help_names_every_option) {
  EXPECT_EQ(run("--help"), "0: ");
  for (const char* word :
       {"DESCRIPTION", "-o,--output", "--now", "--list-defaults", "--example", "-q,--quiet", "--version"})
    EXPECT_THAT(text_of("out"), HasSubstr(word));
  EXPECT_EQ(run("--version"), "0: ");
  EXPECT_THAT(text_of("out"), testing::MatchesRegex("softdvb-mux [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

TEST_F(Mux_tool, the_listed_defaults_can_be_used_as_they_are) {
  EXPECT_EQ(run("--list-defaults"), "0: ");
  const std::string defaults = text_of("out");
  EXPECT_THAT(defaults, HasSubstr("\"pat\": 0.08,"));
  EXPECT_THAT(defaults, HasSubstr("\"eit_schedule_actual_later\": 24,"));
  // The first object's intervals, put into a description, change nothing.
  const size_t start = defaults.find("\"intervals\"");
  const size_t end = defaults.find("  }\n", start);
  ASSERT_NE(end, std::string::npos);
  const std::string intervals = defaults.substr(start, end + 3 - start);
  EXPECT_EQ(stream_of(one_service("", ", " + intervals)), stream_of(one_service()));
}

TEST_F(Mux_tool, the_example_works) {
  EXPECT_EQ(shell("$MUX --example >example.json && exec $MUX -q example.json -o a.ts"), "0: ");
}

constexpr const char* NAMES[] = {"kuldnokk-474.json", "kuldnokk-498.json", "kuldnokk-522.json"};

Bytes sample(const std::string& name) {
  return softdvb_mux::make_stream(read_file(std::string(SAMPLES) + "/" + name), NOW);
}

TEST(Samples, every_programme_is_a_service_with_a_provider) {
  std::set<std::string> ids;
  for (const char* name : NAMES) {
    const auto lines = tables_by_libdvbpsi(sample(name));
    const auto pat = lines_with(lines, "PAT");
    const auto sdt = lines_with(lines, "SDT 0x42");
    ASSERT_EQ(pat.size(), 1u) << name;
    ASSERT_EQ(sdt.size(), 1u) << name;
    const std::regex program(" ([1-9][0-9]*)>");
    for (std::sregex_iterator at(pat[0].begin(), pat[0].end(), program), end; at != end; ++at) {
      const std::string id = at->str(1);
      EXPECT_TRUE(ids.insert(id).second) << id << " is used twice";
      // The service descriptor: type, and a length of the provider's name that is not 0.
      EXPECT_THAT(sdt[0], ContainsRegex(" " + id + " schedule [^{]*\\{[^}]*48\\[..(0[1-9a-f]|[1-9a-f].)"));
    }
  }
  EXPECT_EQ(ids.size(), 24u);
}

TEST(Samples, every_nit_lists_the_three_multiplexes) {
  for (const char* name : NAMES) {
    const auto nit = lines_with(tables_by_libdvbpsi(sample(name)), "NIT");
    ASSERT_EQ(nit.size(), 1u) << name;
    EXPECT_THAT(nit[0], testing::StartsWith("NIT 0x40 net 65345 v0 {40[4b756c646e6f6b6b] 5b[")) << name;
    // 474, 498 and 522 MHz in units of 10 Hz
    EXPECT_THAT(nit[0], HasSubstr(" 1/65281 {5a[02d34440")) << name;
    EXPECT_THAT(nit[0], HasSubstr(" 2/65281 {5a[02f7e340")) << name;
    EXPECT_THAT(nit[0], HasSubstr(" 3/65281 {5a[031c8240")) << name;
  }
}

TEST(Samples, the_guide_covers_two_days_and_more) {
  for (const char* name : NAMES) {
    std::set<std::string> days;
    for (const auto& section : sections_of(sample(name))) {
      if (section.pid != pid::EIT || section.table_id() < table::EIT_SCHEDULE_FIRST ||
          section.table_id() > table::EIT_SCHEDULE_LAST || section.bytes.size() < 20)
        continue;
      EXPECT_TRUE(section.crc_right());
      days.insert(section.hex(16, 2));
    }
    EXPECT_GE(days.size(), 3u) << name;
  }
}

TEST(Samples, network_conf_names_the_files) {
  EXPECT_THAT(
      read_file(std::string(SAMPLES) + "/network.conf"),
      HasSubstr("\n474000000 = kuldnokk-474.json\n498000000 = kuldnokk-498.json\n522000000 = kuldnokk-522.json\n"));
}

}  // namespace
