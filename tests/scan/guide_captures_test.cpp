// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The guides of recorded streams, which are not part of the tree: without them these tests are skipped. What is stored
// is compared with what another library finds in the recording, value by value. References hold a line a service, for
// people to read: events, texts, and a checksum over starts, durations, genres, ratings, languages and texts.

#include "scan/recorded_guide.h"
#include "scan/scan_run.h"

namespace {

// A recording whose scan cannot complete gets its services, television in H.264 (25), beforehand, and a channel
// request. After a frequency request the present/following table would be opened when the scan gives up after 40 s,
// which is when the services' timers run out for the fourth time: each would be killed at once, and events that only
// that table has would be lost. With a channel the timers start anew together with the guide.
struct Recorded_guide {
  const char* file;
  const char* reference;
  const char* types;
  std::vector<int> services;
  const char* pace;
  int speed;
  int turns;          // tunings until everything is there, at most
  double turn_s = 0;  // each begins so much later in the recording
};

std::ostream& operator<<(std::ostream& out, const Recorded_guide& guide) {
  return out << guide.file;
}

class Guide_captures_test : public Scan_test, public testing::WithParamInterface<Recorded_guide> {
 protected:
  Scan_run collect(const Recorded_guide& guide, const std::string& file, int turn) {
    std::string script = std::string("types ") + guide.types + "\n";
    for (const int service : turn == 0 ? guide.services : std::vector<int>{})
      script += "insert INSERT INTO kanalid (freq, pat_prnr, serv_type) VALUES (506000000, " + std::to_string(service) +
                ", 25)\n";
    script += guide.services.empty() ? SCAN_ONCE + "freq 0 506000000; wait_done 0 100; "
                                     : "kelvo 0 tuner; channel 0 506000000 1; ";
    return run(
        on_freq(file, {"--pace", guide.pace, "--grace", "5000", "--offset", std::to_string(turn * guide.turn_s)}),
        script + "wait_guide 0 1500", guide.speed);
  }
};

}  // namespace

TEST_P(Guide_captures_test, every_event_is_stored_once) {
  const Recorded_guide& guide = GetParam();
  const std::string file = support::capture_file(guide.file);
  if (file.empty())
    GTEST_SKIP() << guide.file << " is not here";
  const std::vector<std::string> recorded =
      scan_support::recorded_guide(file, {guide.services.begin(), guide.services.end()});
  ASSERT_FALSE(recorded.empty());
  for (int turn = 0; turn < guide.turns; ++turn) {
    const Scan_run scan = collect(guide, file, turn);
    EXPECT_EQ(scan.lines({"guide"}), "guide complete\n");
    EXPECT_EQ(scan.count_err("ERROR: SQL"), 0U) << scan.err;
    EXPECT_EQ(scan.count_err("eit_for_service"), 0U) << scan.err;
    if (sql("SELECT count(*) FROM epglist_lang") == std::to_string(recorded.size()) + "\n")
      break;
  }
  scan_support::expect_same_guide(recorded, sql(scan_support::STORED_GUIDE));
  EXPECT_EQ(sql("SELECT channel, start_epoch, count(*) FROM epglist GROUP BY 1, 2 HAVING count(*) > 1"), "");
  EXPECT_EQ(sql("SELECT source_oid, lang, count(*) FROM epglist_lang GROUP BY 1, 2 HAVING count(*) > 1"), "");
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

// The French recording lost some sections on the way and has most of the others three times. A service is done when the
// last section of its part of the table has come twice, which may be before the first good copy of another one: what is
// missing then comes with the next tuning, if that begins elsewhere in the stream. For the other three one tuning is
// enough, unless the machine is so busy that a service of the first table is killed.
INSTANTIATE_TEST_SUITE_P(
    Recorded, Guide_captures_test,
    testing::Values(
        Recorded_guide{"gr_crete_2023_complete.ts", "gr_crete_2023.txt", "1", {}, "fast", 8, 3},
        Recorded_guide{"gr_crete_2023_noisy.si.ts",
                       "gr_crete_2023_noisy.txt",
                       "1 25",
                       {9, 10, 11, 12, 20, 21, 22, 31, 32, 35, 40, 41},
                       "600k",
                       20,
                       4,
                       3.6},
        Recorded_guide{"fr_r4_paris_2019_si.ts",
                       "fr_r4_paris_2019.txt",
                       "1 25",
                       {1025, 1026, 1031, 1045, 1046},
                       "200k",
                       20,
                       5,
                       9.3},
        Recorded_guide{"cz_db_mux24_2023.si.ts",
                       "cz_db_mux24_2023.txt",
                       "1 25",
                       {515, 517, 518, 525, 526, 801, 809, 2562, 2817, 2818, 5640, 5641, 6146, 6923, 8202, 8210, 33031},
                       "1M",
                       20,
                       2,
                       2.6},
        Recorded_guide{
            "eit_hu_2024.ts", "eit_hu_2024.txt", "25", {100, 101, 102, 103, 130, 131, 132, 133}, "200k", 30, 3}),
    [](const auto& capture) {
      const std::string name = capture.param.file;
      return name.substr(0, name.find('.'));
    });
