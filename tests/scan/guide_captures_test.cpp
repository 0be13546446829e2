// The guides of recorded streams, which are not part of the tree: without them these tests are skipped. References hold
// a line a service: events, texts, and a checksum over starts, durations, genres, ratings, languages and texts.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "scan/scan_run.h"

namespace {

// A recording whose scan cannot complete gets its services, television in H.264 (25), beforehand.
struct Recorded_guide {
  const char* file;
  const char* reference;
  const char* types;
  std::vector<int> services;
  int speed;  // little enough for the stream to be played through within the ten seconds of the first table
};

class Guide_captures_test : public Scan_test, public testing::WithParamInterface<Recorded_guide> {};

}  // namespace

TEST_P(Guide_captures_test, every_event_is_stored_once) {
  const Recorded_guide& guide = GetParam();
  const std::string file = support::capture_file(guide.file);
  if (file.empty())
    GTEST_SKIP() << guide.file << " is not here";
  std::string script = std::string("types ") + guide.types + "\n";
  for (const int service : guide.services)
    script += "insert INSERT INTO kanalid (freq, pat_prnr, serv_type) VALUES (506000000, " + std::to_string(service) +
              ", 25)\n";
  script += "kelvo 0 tuner\n";
  if (guide.services.empty())
    script += "freq 0 506000000\nwait_done 0 100\n";
  script += "freq 0 506000000\nwait_done 0 100\nwait_guide 0 1500\n";
  std::vector<std::string> options = on_freq(file);
  options.insert(options.end(), {"--pace", "fast"});
  const Scan_run scan = run(options, script, guide.speed);
  EXPECT_EQ("guide complete\n", scan.lines({"guide"}));
  EXPECT_EQ(0U, scan.count_err("ERROR: SQL")) << scan.err;
  EXPECT_EQ(0U, scan.count_err("eit_for_service")) << scan.err;
  EXPECT_EQ("", sql("SELECT channel, start_epoch, count(*) FROM epglist GROUP BY 1, 2 HAVING count(*) > 1"));
  EXPECT_EQ("", sql("SELECT entry FROM epglist WHERE start_epoch <= 0 OR dur_sec < 0"));
  const std::string all = dump({.events = false});
  const auto titles_from = [](const char* first, const char* last) {
    return std::string("sum(unicode(ev_name) BETWEEN ") + first + " AND " + last + ")";
  };
  const std::string titles =
      sql("SELECT lang, count(*), " + titles_from("0x20", "0x24F") + ", " + titles_from("0x370", "0x3FF") + ", " +
          titles_from("0x400", "0x4FF") + " FROM epglist_lang GROUP BY lang ORDER BY lang");
  support::expect_reference(std::string("captures/guide_") + guide.reference,
                            all.substr(all.find("== events")) +
                                "== titles by their first character\nlanguage|titles|latin|greek|cyrillic\n" + titles);
}

INSTANTIATE_TEST_SUITE_P(
    Recorded, Guide_captures_test,
    testing::Values(
        Recorded_guide{"gr_crete_2023_complete.ts", "gr_crete_2023.txt", "1", {}, 8},
        Recorded_guide{"fr_r4_paris_2019_si.ts", "fr_r4_paris_2019.txt", "1 25", {1025, 1026, 1031, 1045, 1046}, 8},
        Recorded_guide{"cz_db_mux24_2023.si.ts",
                       "cz_db_mux24_2023.txt",
                       "1 25",
                       {515, 517, 518, 525, 526, 801, 809, 2562, 2817, 2818, 5640, 5641, 6146, 6923, 8202, 8210, 33031},
                       8},
        Recorded_guide{"eit_hu_2024.ts", "eit_hu_2024.txt", "25", {100, 101, 102, 103, 130, 131, 132, 133}, 30}),
    [](const auto& capture) {
      const std::string name = capture.param.file;
      return name.substr(0, name.find('.'));
    });
