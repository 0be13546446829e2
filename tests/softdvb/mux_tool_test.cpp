// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "base/ids.h"
#include "softdvb/mux/stream.h"
#include "softdvb/mux_support.h"
#include "support/test.h"

namespace {

using mux_support::lines_with;
using mux_support::one_service;
using mux_support::stream_of;
using mux_support::tables_by_libdvbpsi;
using support::Bytes;
using support::read_file;
using support::Temp_dir;
using support::write_file;
using testing::HasSubstr;
using testing::StartsWith;

struct Result {
  int code = -1;
  std::string out;
  std::string err;
};

class Mux_tool : public testing::Test {
 protected:
  Temp_dir folder;
  std::string description = folder.file("a.json");

  void SetUp() override { write_file(description, one_service()); }

  // Runs the tool in the folder by the shell, so that redirections can be part of the arguments.
  Result run(const std::string& arguments) const {
    const std::string command =
        "cd '" + folder.path() + "' && '" SOFTDVB_MUX "' " + arguments + " >out 2>err </dev/null";
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, text_of("out"), text_of("err")};
  }

  std::string text_of(const std::string& name) const { return read_file(folder.file(name)); }
  Bytes bytes_of(const std::string& name) const { return support::bytes(text_of(name)); }

  std::set<std::string> files() const {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder.path()))
      names.insert(entry.path().filename());
    return names;
  }

  unsigned mode_of(const std::string& name) const {
    struct stat status {};
    EXPECT_EQ(stat(folder.file(name).c_str(), &status), 0);
    return status.st_mode & 0777;
  }
};

TEST_F(Mux_tool, wrong_use_is_one_line_and_2) {
  const auto expect = [&](const std::string& arguments, const std::string& message) {
    const Result result = run(arguments);
    EXPECT_EQ(result.code, 2) << arguments;
    EXPECT_EQ(result.err, message) << arguments;
    EXPECT_EQ(result.out, "") << arguments;
  };
  expect("", "softdvb-mux: no description is named; see softdvb-mux --help\n");
  expect("a.json", "softdvb-mux: no output is named, use -o FILE; see softdvb-mux --help\n");
  expect("a.json -o", "softdvb-mux: --output: 1 required TEXT missing; see softdvb-mux --help\n");
  expect("--fast", "softdvb-mux: The following argument was not expected: --fast; see softdvb-mux --help\n");
  expect("a.json -o a.ts --now noon", "softdvb-mux: --now noon is no time such as 2026-03-01T18:00:00Z\n");
}

TEST_F(Mux_tool, a_wrong_description_is_one_line_and_2_and_leaves_the_old_file) {
  write_file(description, "{\n  \"transport_stream_id\": 1,\n  \"original_network_id\": \"x\"\n}\n");
  write_file(folder.file("a.ts"), "old");
  const Result result = run("a.json -o a.ts");
  EXPECT_EQ(result.code, 2);
  EXPECT_EQ(
      result.err,
      "softdvb-mux: a.json: original_network_id: \"x\" is not allowed, a whole number from 0 to 65535 (or \"0x0\" to "
      "\"0xFFFF\") is\n");
  EXPECT_EQ(text_of("a.ts"), "old");
  EXPECT_EQ(files(), (std::set<std::string>{"a.json", "a.ts", "err", "out"}));
}

TEST_F(Mux_tool, an_unreadable_description_is_1) {
  Result result = run("none.json -o a.ts");
  EXPECT_EQ(result.code, 1);
  EXPECT_EQ(result.err, "softdvb-mux: none.json cannot be read: No such file or directory\n");
  result = run(". -o a.ts");
  EXPECT_EQ(result.code, 1);
  EXPECT_EQ(result.err, "softdvb-mux: . cannot be read: Is a directory\n");
}

TEST_F(Mux_tool, an_unwritable_output_is_1_and_nothing_is_left) {
  Result result = run("a.json -q -o none/a.ts");
  EXPECT_EQ(result.code, 1);
  EXPECT_EQ(result.err, "softdvb-mux: none/a.ts cannot be written: No such file or directory\n");
  ASSERT_EQ(mkdir(folder.file("sub").c_str(), 0755), 0);
  result = run("a.json -q -o sub");
  EXPECT_EQ(result.code, 1);
  EXPECT_EQ(result.err, "softdvb-mux: sub cannot be written: Is a directory\n");
  EXPECT_EQ(files(), (std::set<std::string>{"a.json", "err", "out", "sub"}));
}

TEST_F(Mux_tool, a_full_disk_is_1_and_the_old_file_stays) {
  write_file(folder.file("a.ts"), "old");
  // No file may become larger than 16 KiB; the signal that comes with it is ignored, as a full disk sends none.
  const std::string command =
      "cd '" + folder.path() + "' && (trap '' XFSZ; ulimit -f 16; exec '" SOFTDVB_MUX "' -q a.json -o a.ts) >out 2>err";
  const int status = std::system(("bash -c \"" + command + "\"").c_str());
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_EQ(text_of("err"), "softdvb-mux: a.ts cannot be written: File too large\n");
  EXPECT_EQ(text_of("a.ts"), "old");
  EXPECT_EQ(files(), (std::set<std::string>{"a.json", "a.ts", "err", "out"}));
}

TEST_F(Mux_tool, pipes_and_links_stay_what_they_are) {
  write_file(folder.file("real.ts"), "old");
  ASSERT_EQ(chmod(folder.file("real.ts").c_str(), 0640), 0);
  ASSERT_EQ(symlink("real.ts", folder.file("link.ts").c_str()), 0);
  ASSERT_EQ(run("-q a.json -o link.ts --now 2026-03-01T18:00:00Z").code, 0);
  EXPECT_TRUE(std::filesystem::is_symlink(folder.file("link.ts")));
  EXPECT_EQ(bytes_of("real.ts"), stream_of(one_service()));
  EXPECT_EQ(mode_of("real.ts"), 0640u) << "a file that was there keeps its mode";

  ASSERT_EQ(mkfifo(folder.file("pipe").c_str(), 0600), 0);
  const std::string command = "cd '" + folder.path() +
                              "' && { cat pipe >read & '" SOFTDVB_MUX
                              "' -q a.json -o pipe --now 2026-03-01T18:00:00Z; wait; }";
  ASSERT_EQ(std::system(command.c_str()), 0);
  EXPECT_EQ(text_of("read"), text_of("real.ts"));
  EXPECT_TRUE(std::filesystem::is_fifo(folder.file("pipe")));
}

TEST_F(Mux_tool, writes_the_stream_and_says_what) {
  const Result result = run("a.json -o a.ts --now 2026-03-01T18:00:00Z");
  EXPECT_EQ(result.code, 0);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "a.ts: transport stream 1, 1 services, 1330 packets, 2.0 s at 1000000 bits a second\n");
  EXPECT_EQ(bytes_of("a.ts"), stream_of(one_service()));
  const mode_t mask = umask(0);
  umask(mask);
  EXPECT_EQ(mode_of("a.ts"), 0666u & ~mask);
}

TEST_F(Mux_tool, quiet_says_nothing_and_a_dash_is_standard_output) {
  Result result = run("-q a.json -o a.ts --now 2026-03-01T18:00:00Z");
  EXPECT_EQ(result.err, "");
  const std::string written = text_of("a.ts");
  result = run("a.json -o - --now 2026-03-01T18:00:00Z");
  EXPECT_EQ(result.code, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out, written);
}

TEST_F(Mux_tool, now_on_the_command_line_wins_over_the_description) {
  write_file(description, one_service("", R"(, "now": "2001-01-01T00:00:00Z")"));
  run("a.json -o a.ts --now 2026-03-01T18:00:00Z");
  EXPECT_EQ(bytes_of("a.ts"), stream_of(one_service()));
}

TEST_F(Mux_tool, help_names_every_option) {
  const Result result = run("--help");
  EXPECT_EQ(result.code, 0);
  for (const char* word : {"DESCRIPTION", "-o,--output", "--now", "--list-defaults", "--example", "-q,--quiet"})
    EXPECT_THAT(result.out, HasSubstr(word));
}

TEST_F(Mux_tool, the_listed_defaults_can_be_used_as_they_are) {
  const Result result = run("--list-defaults");
  EXPECT_EQ(result.code, 0);
  EXPECT_THAT(result.out, HasSubstr("\"pat\": 0.08,"));
  EXPECT_THAT(result.out, HasSubstr("\"eit_schedule_actual_later\": 24,"));
  // The first object's intervals, put into a description, change nothing.
  const size_t start = result.out.find("\"intervals\"");
  const size_t end = result.out.find("  }\n", start);
  ASSERT_NE(end, std::string::npos);
  const std::string intervals = result.out.substr(start, end + 3 - start);
  EXPECT_EQ(stream_of(one_service("", ", " + intervals)), stream_of(one_service()));
}

TEST_F(Mux_tool, the_example_works) {
  ASSERT_EQ(run("--example").code, 0);
  std::filesystem::rename(folder.file("out"), folder.file("example.json"));
  const Result result = run("-q example.json -o a.ts");
  EXPECT_EQ(result.code, 0);
  EXPECT_EQ(result.err, "");
}

constexpr const char* NAMES[] = {"kuldnokk-474.json", "kuldnokk-498.json", "kuldnokk-522.json"};

Bytes sample(const std::string& name) {
  return softdvb_mux::make_stream(read_file(std::string(SAMPLES) + "/" + name), mux_support::NOW);
}

TEST(Samples, every_programme_is_a_service_with_a_provider) {
  std::set<int> ids;
  for (const char* name : NAMES) {
    const auto lines = tables_by_libdvbpsi(sample(name));
    const auto pat = lines_with(lines, "PAT");
    const auto sdt = lines_with(lines, "SDT 0x42");
    ASSERT_EQ(pat.size(), 1u) << name;
    ASSERT_EQ(sdt.size(), 1u) << name;
    size_t at = pat[0].find(": ") + 2;
    for (size_t end; at < pat[0].size(); at = end + 1) {
      end = std::min(pat[0].find(' ', at), pat[0].size());
      const int program = std::stoi(pat[0].substr(at, end - at));
      if (program == 0)
        continue;
      EXPECT_TRUE(ids.insert(program).second) << program << " is used twice";
      const size_t service = sdt[0].find(" " + std::to_string(program) + " schedule");
      ASSERT_NE(service, std::string::npos) << program;
      const size_t descriptor = sdt[0].find("48[", service);
      ASSERT_NE(descriptor, std::string::npos);
      EXPECT_NE(sdt[0].substr(descriptor + 5, 2), "00") << program << " names no provider";
    }
  }
  EXPECT_EQ(ids.size(), 24u);
}

TEST(Samples, every_nit_lists_the_three_multiplexes) {
  for (const char* name : NAMES) {
    const auto nit = lines_with(tables_by_libdvbpsi(sample(name)), "NIT");
    ASSERT_EQ(nit.size(), 1u) << name;
    EXPECT_THAT(nit[0], StartsWith("NIT 0x40 net 65345 v0 {40[4b756c646e6f6b6b] 5b[")) << name;
    // 474, 498 and 522 MHz in units of 10 Hz
    EXPECT_THAT(nit[0], HasSubstr(" 1/65281 {5a[02d34440")) << name;
    EXPECT_THAT(nit[0], HasSubstr(" 2/65281 {5a[02f7e340")) << name;
    EXPECT_THAT(nit[0], HasSubstr(" 3/65281 {5a[031c8240")) << name;
  }
}

TEST(Samples, the_guide_covers_two_days_and_more) {
  for (const char* name : NAMES) {
    std::set<std::string> days;
    for (const auto& section : mux_support::sections_of(sample(name))) {
      if (section.pid != pid::EIT || section.table_id() < table::EIT_SCHEDULE_FIRST ||
          section.table_id() > table::EIT_SCHEDULE_LAST || section.bytes.size() < 20)
        continue;
      EXPECT_TRUE(section.crc_right());
      days.insert(mux_support::hex({section.bytes[16], section.bytes[17]}));
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
