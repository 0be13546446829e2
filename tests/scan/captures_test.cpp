// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Recorded streams, which are not part of the tree: without them these tests are skipped.

#include "scan/scan_run.h"

namespace {

const std::string TOLD_SCAN = "verbosity 1; " + SCAN_ONCE + "verbosity 0";

std::string test_name(std::string file) {
  std::replace(file.begin(), file.end(), '.', '_');
  return file;
}

struct Capture {
  const char* file;
  const char* reference;
  bool timed_out;  // a PMT or what ends the SDT is not there
};

void PrintTo(const Capture& capture, std::ostream* out) {
  *out << capture.file;
}

class Captures_test : public Scan_test, public testing::WithParamInterface<Capture> {};

// One multiplex carried in different ways, between foreign sections. Two networks' NITs are among them, and the one
// that is read first after the PAT counts: one is so close behind it that chance decides.
class Two_networks_test : public Scan_test {
 protected:
  std::string network() const { return sql("SELECT DISTINCT network_id FROM kanalid"); }
  std::string reference() const { return "captures/variant_" + network().substr(0, 5) + ".txt"; }
};

class Variants_test : public Two_networks_test, public testing::WithParamInterface<const char*> {};

}  // namespace

TEST_P(Captures_test, one_scan_gives_the_reference) {
  const std::string file = support::capture_file(GetParam().file);
  if (file.empty())
    GTEST_SKIP() << GetParam().file << " is not here";
  const Scan_run scan = run(on_freq(file), TOLD_SCAN, GetParam().timed_out ? 20 : 5);
  EXPECT_EQ(scan.lines({"done", "no"}), "done 0 0\n");
  EXPECT_EQ(scan.count_err("scan timed out for frequency 506000000\n"), GetParam().timed_out ? 1U : 0U) << scan.err;
  EXPECT_EQ(scan.count_err("ERROR: SQL"), 0U) << scan.err;
  support::expect_reference(std::string("captures/") + GetParam().reference, dump({.events = false}));
}

INSTANTIATE_TEST_SUITE_P(Recorded, Captures_test,
                         testing::Values(Capture{"it_rai_2022.ts", "it_rai_2022.txt", false},
                                         Capture{"it_rai_2022.si.ts", "it_rai_2022.txt", false},
                                         Capture{"gr_crete_2023_complete.ts", "gr_crete_2023_complete.txt", false},
                                         Capture{"gr_crete_2023_noisy.si.ts", "gr_crete_2023_noisy.txt", true},
                                         Capture{"fr_r4_paris_2019_si.ts", "fr_r4_paris_2019.txt", true},
                                         Capture{"cz_db_mux24_2023.si.ts", "cz_db_mux24_2023.txt", true},
                                         Capture{"it_mediaset_2018_psi.ts", "it_mediaset_2018.txt", true}),
                         [](const auto& capture) { return test_name(capture.param.file); });

TEST_P(Variants_test, give_the_same_result) {
  const std::string file = support::capture_file(GetParam());
  if (file.empty())
    GTEST_SKIP() << GetParam() << " is not here";
  const Scan_run scan = run(on_freq(file, {"--pace", "500k"}), TOLD_SCAN, 4);
  EXPECT_EQ(scan.lines({"done", "no"}), "done 0 0\n");
  EXPECT_EQ(scan.count_err("timed out"), 0U) << scan.err;
  EXPECT_EQ(scan.count_err("ERROR: Fragmented"), 0U) << scan.err;
  ASSERT_TRUE(network() == "12289\n" || network() == "13313\n") << network();
  support::expect_reference(reference(), dump({.numbers = false, .events = false}));
}

INSTANTIATE_TEST_SUITE_P(Recorded, Variants_test,
                         testing::Values("variant_base.ts", "variant_packed.ts", "variant_tiny9.ts", "variant_204.ts",
                                         "variant_192.m2ts"),
                         [](const auto& file) { return test_name(file.param); });

TEST_F(Two_networks_test, quirk_of_a_pat_in_two_sections_the_first_one_read_is_all_and_an_error_is_printed) {
  const std::string file = support::capture_file("variant_pat_two_sections.ts");
  if (file.empty())
    GTEST_SKIP() << "variant_pat_two_sections.ts is not here";
  const Scan_run scan = run(on_freq(file, {"--pace", "500k"}), TOLD_SCAN, 4);
  EXPECT_EQ(scan.lines({"done", "no"}), "done 0 0\n");
  EXPECT_EQ(scan.count_err("ERROR: Fragmented PAT secnr: "), 1U) << scan.err;
  EXPECT_EQ(sql("SELECT count(*) FROM kanalid"), "4\n");
  // What is there is as in the others.
  const std::string all = support::read_file(std::string(KELVO_SOURCE_DIR) + "/tests/data/" + reference());
  for (const std::string& row : support::lines_of(dump({.numbers = false, .events = false})))
    EXPECT_NE(std::string::npos, ("\n" + all).find("\n" + row + "\n")) << row;
}
