// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Streams of recordings, which are not part of the tree: without them these tests are skipped. What a scan has stored
// is compared with another reading of the same PMTs (recorded_streams.py).

#include "support/db_dump.h"
#include "tools/command_fixture.h"

namespace {

constexpr const char* WORDS =
    "SELECT k.pat_prnr, es_pid, es_type, component_tag, kind, codec FROM stream_detail JOIN kanalid k USING (channel)";
constexpr const char* LANGUAGES = R"(
    SELECT k.pat_prnr, 'lang', l.es_pid,
           (SELECT count(*) FROM stream_language b
             WHERE b.channel = l.channel AND b.es_pid = l.es_pid AND b.rowid < l.rowid), l.lang, l.role, l.page
      FROM stream_language l JOIN kanalid k USING (channel))";
constexpr const char* SYSTEMS =
    "SELECT k.pat_prnr, 'ca', s.es_pid, s.ca_sysid, s.ca_pid FROM stream_ca s JOIN kanalid k USING (channel)";

class Recorded_streams : public Command_fixture, public testing::WithParamInterface<const char*> {
 protected:
  void scan(const std::string& file, const Words& options) {
    const Command_result result =
        run({"--time", "x20", "--mux", "506000000=" + file}, joined({{"scan", "--freq", "506000000"}, options}));
    EXPECT_EQ(result.exit_code, 0) << result.err;
  }
  Words stored(const std::string& query) const {
    Words lines = support::lines_of(support::query_database(db_, query));
    std::sort(lines.begin(), lines.end());
    return lines;
  }
};

// Those of which the box stores anything.
class Unnamed_streams : public Recorded_streams {};

std::string name_of(const testing::TestParamInfo<const char*>& file) {
  std::string name = file.param;
  std::replace(name.begin(), name.end(), '.', '_');
  return name;
}

}  // namespace

TEST_P(Recorded_streams, are_those_that_another_decoder_reads) {
  const std::string file = support::capture_file(GetParam());
  if (file.empty())
    GTEST_SKIP() << GetParam() << " is not here";
  const Command_result reading = run_command({"python3", KELVO_SOURCE_DIR "/tests/tools/recorded_streams.py", file});
  ASSERT_EQ(reading.exit_code, 0) << reading.err;
  Words expected = support::lines_of(reading.out);
  ASSERT_FALSE(expected.empty());
  std::sort(expected.begin(), expected.end());

  scan(file, {});
  Words found = stored(WORDS);
  for (const char* query : {LANGUAGES, SYSTEMS})
    for (const std::string& line : stored(query))
      found.push_back(line);
  std::sort(found.begin(), found.end());
  EXPECT_EQ(found, expected);
  const Words streams = stored("SELECT channel, es_pid FROM estreams GROUP BY 1, 2");
  EXPECT_EQ(stored("SELECT channel, es_pid FROM stream_detail"), streams);
  // The same once more: nothing is written.
  const Words rows = stored("SELECT rowid, * FROM stream_language");
  scan(file, {});
  EXPECT_EQ(stored("SELECT rowid, * FROM stream_language"), rows);
}

TEST_P(Unnamed_streams, are_those_of_the_box_and_get_words_later) {
  const std::string file = support::capture_file(GetParam());
  if (file.empty())
    GTEST_SKIP() << GetParam() << " is not here";
  device_ = "box";
  scan(file, {"--profile", "box"});
  EXPECT_EQ(stored("SELECT name FROM sqlite_master WHERE name LIKE 'stream_%' OR name LIKE 'broadcast_%'"), Words{});
  EXPECT_NE(stored("SELECT es_pid FROM estreams"), Words{});
  EXPECT_EQ(run_command({KELVO_COMMAND, "channels", "--db", db_}).exit_code, 0) << "what has no words is shown, too";

  // Words come with the next scan that makes them; the rows that were there keep their meaning.
  const Words before = stored("SELECT DISTINCT channel, es_pid, es_type, codec, ca_sysid, ca_pid FROM estreams");
  device_ = "unkind";
  scan(file, {});
  EXPECT_NE(stored(WORDS), Words{});
  EXPECT_EQ(stored("SELECT DISTINCT channel, es_pid, es_type, codec, ca_sysid, ca_pid FROM estreams"), before);
  EXPECT_EQ(run_command({KELVO_COMMAND, "channels", "--db", db_, "--format", "json"}).exit_code, 0);
}

INSTANTIATE_TEST_SUITE_P(, Recorded_streams,
                         testing::Values("it_rai_2022.si.ts", "it_mediaset_2018_psi.ts", "gr_crete_2023_noisy.si.ts",
                                         "fr_tnt_2018_all.ts", "variant_base.ts"),
                         name_of);
INSTANTIATE_TEST_SUITE_P(, Unnamed_streams,
                         testing::Values("it_rai_2022.si.ts", "gr_crete_2023_noisy.si.ts", "variant_base.ts"), name_of);
