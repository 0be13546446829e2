// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/sdbl_parts.h"
#include "db_support.h"
#include "support/softdvb.h"

using support::messages_at;
using support::prints_only_from;
using testing::EndsWith;

namespace {

constexpr char SOURCE[] = "/tmp/zoneinfo/timezone.txt";
constexpr char INSTALLED[] = "/dvbfiles/localtime";

// Under the launcher, where /tmp/zoneinfo and /dvbfiles are folders of the sandbox. Only this process's idea of the
// zone is changed.
class Timezone : public db_support::Database_test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(support::under_softdvb());
    std::filesystem::remove_all("/tmp/zoneinfo");
    std::filesystem::create_directories("/dvbfiles");
    std::filesystem::remove(INSTALLED);
    run("INSERT INTO kanalid (freq, hf_conn, dvb_type, network_name) VALUES (506000000, 2, 1, 'levira')");
    zone("EET-2");
  }
  void TearDown() override {
    unsetenv("TZ");
    tzset();
  }
  static void zone(const char* tz) { setenv("TZ", tz, 1); }
  std::string update(int offset_min, const char* name = "EST", int nr = 0, int type = TYPE, int conn = CONN,
                     int freq = FREQ) {
    return messages_at(1, [&] { sdbl().update_system_timezone(offset_min, name, nr, type, conn, freq); });
  }
  // The file that the compiler of zones gets, of which the first line names the network.
  static std::string source() { return support::read_file(SOURCE); }
  static void expect_untouched() { EXPECT_FALSE(std::filesystem::exists(SOURCE)); }
  void expect_not_installed() {
    EXPECT_EQ(update(180), std::string(CHECKED) + "WARNING: Setting timezone to 180\n");
    EXPECT_FALSE(std::filesystem::exists(INSTALLED));
  }

  static constexpr char CHECKED[] = "WARNING: Checking mux 506000000 provider levira = timezone levira\n";
  static constexpr char FIRST_LINE[] = "# Automatically generated timezone file for network levira\n";
  const std::string precious_ = folder().file("precious");
};

}  // namespace

TEST_F(Timezone, the_right_offset_writes_nothing) {
  EXPECT_THAT([&] { sdbl().update_system_timezone(120, "EST", 0, TYPE, CONN, FREQ); },
              prints_only_from(1, std::string(CHECKED) + "WARNING: Timezone OK\n"));
  expect_untouched();
  EXPECT_FALSE(std::filesystem::exists(INSTALLED));
}

TEST_F(Timezone, another_offset_writes_compiles_and_installs_the_zone) {
  EXPECT_THAT([&] { sdbl().update_system_timezone(180, "EST", 0, TYPE, CONN, FREQ); },
              prints_only_from(1, std::string(CHECKED) + "WARNING: Setting timezone to 180\n"));
  EXPECT_EQ(source(), std::string(FIRST_LINE) + "Zone EST_0  03:00 - EST\n");
  if (!std::filesystem::exists("/usr/sbin/zic"))
    GTEST_SKIP() << "no zone compiler";
  EXPECT_TRUE(std::filesystem::exists(INSTALLED));
  EXPECT_EQ(support::read_file(INSTALLED).substr(0, 4), "TZif");
  EXPECT_FALSE(std::filesystem::exists("/tmp/zoneinfo/EST_0"));
}

TEST_F(Timezone, hours_and_minutes_stand_behind_a_minus_or_a_blank) {
  const std::pair<int, const char*> cases[] = {{90, " 01:30"},   {345, " 05:45"},  {840, " 14:00"},  {30, " 00:30"},
                                               {1, " 00:01"},    {-1, "-00:01"},   {-30, "-00:30"},  {-90, "-01:30"},
                                               {-210, "-03:30"}, {-600, "-10:00"}, {6039, " 100:39"}};
  for (const auto& [offset_min, field] : cases) {
    update(offset_min, "PRT", 2);
    EXPECT_EQ(source(), std::string(FIRST_LINE) + "Zone PRT_2 " + field + " - PRT\n");
  }
}

// Whoever reads the zone that was installed gets the offset that was broadcast.
TEST_F(Timezone, the_installed_zone_is_the_one_that_was_broadcast) {
  if (!std::filesystem::exists("/usr/sbin/zic"))
    GTEST_SKIP() << "no zone compiler";
  for (const int offset_min : {180, -90, 0, 345, -720, 840}) {
    zone("EET-2");
    update(offset_min, "ABC", 3);
    // The C library reads zones past the sandbox.
    support::write_file(folder().file("zone"), support::read_file(INSTALLED));
    zone((":" + folder().file("zone")).c_str());
    tzset();
    const time_t winter = 1262304000, summer = 1277942400;
    for (const time_t t : {winter, summer}) {
      tm local{};
      localtime_r(&t, &local);
      EXPECT_EQ(local.tm_gmtoff, offset_min * 60);
      EXPECT_STREQ(local.tm_zone, "ABC");
    }
    EXPECT_FALSE(std::filesystem::exists("/tmp/zoneinfo/ABC_3")) << offset_min;
    std::filesystem::remove(INSTALLED);
    std::filesystem::remove(SOURCE);
  }
}

// A host may have taken it from the air.
TEST_F(Timezone, the_network_s_name_makes_no_line_of_its_own) {
  run("UPDATE kanalid SET network_name = 'le' || char(10) || 'Link EST_0 ../../etc/x' || char(13) || 'ra'");
  sdbl().set_preferred_provider("le\nLink EST_0 ../../etc/x\rra");
  update(180);
  EXPECT_EQ(source(),
            "# Automatically generated timezone file for network le?Link EST_0 ../../etc/x?ra\n"
            "Zone EST_0  03:00 - EST\n");
}

TEST_F(Timezone, quirk_offset_0_is_written_as_minus_0) {
  update(0);
  EXPECT_EQ(source(), std::string(FIRST_LINE) + "Zone EST_0 -00:00 - EST\n");
}

TEST_F(Timezone, quirk_negative_half_hours_never_match) {
  zone("NST3:30");
  EXPECT_THAT(update(-210), EndsWith("WARNING: Setting timezone to -210\n"));
  zone("IST-5:30");
  EXPECT_THAT(update(330), EndsWith("WARNING: Timezone OK\n"));
}

TEST_F(Timezone, quirk_offsets_of_twelve_hours_never_match) {
  zone("NZST-12");
  EXPECT_THAT(update(720), EndsWith("WARNING: Setting timezone to 720\n"));
  zone("TOT-13");
  EXPECT_THAT(update(780), EndsWith("WARNING: Setting timezone to 780\n"));
  zone("BIT12");
  EXPECT_THAT(update(-720), EndsWith("WARNING: Timezone OK\n"));
  zone("ABC-11:59");
  EXPECT_THAT(update(719), EndsWith("WARNING: Timezone OK\n"));
}

TEST_F(Timezone, quirk_minutes_of_the_offset_are_not_compared) {
  EXPECT_THAT(update(179), EndsWith("WARNING: Timezone OK\n"));
  EXPECT_THAT(update(119), EndsWith("WARNING: Setting timezone to 119\n"));
}

TEST_F(Timezone, a_zone_installed_meanwhile_is_seen) {
  EXPECT_THAT(update(180), EndsWith("WARNING: Setting timezone to 180\n"));
  zone("MSK-3");
  EXPECT_THAT(update(180), EndsWith("WARNING: Timezone OK\n"));
}

TEST_F(Timezone, another_network_changes_nothing) {
  run("UPDATE kanalid SET network_name = 'Levira'");
  EXPECT_EQ(update(180), "WARNING: Checking mux 506000000 provider Levira = timezone levira\n");
  expect_untouched();
  sdbl().set_preferred_provider("Levira");
  EXPECT_EQ(update(180),
            "WARNING: Checking mux 506000000 provider Levira = timezone Levira\nWARNING: Setting timezone to 180\n");
  EXPECT_EQ(source(), "# Automatically generated timezone file for network Levira\nZone EST_0  03:00 - EST\n");
}

TEST_F(Timezone, an_unknown_multiplex_or_one_without_a_name_changes_nothing) {
  EXPECT_EQ(update(180, "EST", 0, TYPE, CONN, FREQ + 1), "");
  EXPECT_EQ(update(180, "EST", 0, TYPE + 1), "") << "another type";
  EXPECT_EQ(update(180, "EST", 0, TYPE, CONN - 1), "") << "another connector";
  run("UPDATE kanalid SET network_name = NULL");
  EXPECT_EQ(update(180), "WARNING: Checking mux 506000000 provider  = timezone levira\n");
  expect_untouched();
}

TEST_F(Timezone, odd_country_codes_end_after_the_check_of_the_network) {
  for (const char* name : {"", "../x", "a b", "$(x)", "x;y", "'", "\xc4\xb5", "123456789", "a\nb", "-x", "E.T"}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(update(180, name), CHECKED);
    expect_untouched();
  }
  update(180, "Abc45678");
  EXPECT_EQ(source(), std::string(FIRST_LINE) + "Zone Abc45678_0  03:00 - Abc45678\n");
}

TEST_F(Timezone, a_link_in_the_place_of_the_source_is_not_followed) {
  std::filesystem::create_directories("/tmp/zoneinfo");
  support::write_file(precious_, "keep me");
  std::filesystem::create_symlink(precious_, SOURCE);
  expect_not_installed();
  EXPECT_EQ(support::read_file(precious_), "keep me");
}

TEST_F(Timezone, a_link_in_the_place_of_the_folder_is_not_followed) {
  std::filesystem::create_directories(precious_);
  std::filesystem::create_directory_symlink(precious_, "/tmp/zoneinfo");
  expect_not_installed();
  EXPECT_TRUE(std::filesystem::is_empty(precious_));
}

TEST_F(Timezone, a_file_in_the_place_of_the_folder_stays) {
  support::write_file("/tmp/zoneinfo", "keep me");
  expect_not_installed();
  EXPECT_EQ(support::read_file("/tmp/zoneinfo"), "keep me");
}

TEST_F(Timezone, a_pipe_in_the_place_of_the_source_is_not_waited_for) {
  std::filesystem::create_directories("/tmp/zoneinfo");
  ASSERT_EQ(mkfifo((std::string(getenv("SOFTDVB_ROOT")) + SOURCE).c_str(), 0600), 0);
  expect_not_installed();
}

// The zone is broadcast again and again.
TEST_F(Timezone, a_folder_that_is_missing_costs_the_zone_until_it_is_there) {
  if (!std::filesystem::exists("/usr/sbin/zic"))
    GTEST_SKIP() << "no zone compiler";
  const std::pair<const char*, std::function<void()>> ways[] = {
      {"missing", [] {}},
      {"a file", [] { support::write_file("/dvbfiles", "keep me"); }},
      {"a link to nothing", [] { std::filesystem::create_symlink("/nowhere/at/all", "/dvbfiles"); }},
  };
  for (const auto& [legend, make] : ways) {
    SCOPED_TRACE(legend);
    std::filesystem::remove_all("/dvbfiles");
    make();
    EXPECT_THAT(update(180),
                testing::MatchesRegex(std::string(CHECKED) +
                                      "WARNING: Setting timezone to 180\ncp: [^\n]*/dvbfiles/localtime[^\n]*\n"));
    EXPECT_FALSE(std::filesystem::exists(INSTALLED));
    std::filesystem::remove_all("/dvbfiles");
    std::filesystem::create_directory("/dvbfiles");
    update(180);
    EXPECT_TRUE(std::filesystem::exists(INSTALLED));
  }
}

TEST_F(Timezone, the_database_is_not_left_locked) {
  update(120);
  EXPECT_EQ(db_support::Other_connection(file()).run("UPDATE kanalid SET lcn = 5"), SQLITE_DONE);
  EXPECT_EQ(number("SELECT lcn FROM kanalid"), 5);
}

// Each would find its source empty, or what it has compiled gone.
TEST_F(Timezone, adapters_that_set_it_at_the_same_time_all_do) {
  if (!std::filesystem::exists("/usr/sbin/zic"))
    GTEST_SKIP() << "no zone compiler";
  const Multiplex multiplex{Input{Connector{CONN}, Delivery{TYPE}}, FREQ};
  std::atomic<int> set{0};
  std::vector<std::thread> adapters;
  for (int n = 0; n < 4; ++n)
    adapters.emplace_back([&, n] {
      for (int i = 0; i < 5; ++i)
        set += sdbl().parts().zone.update(60 * (3 + n), "EST", 0, multiplex, true) == sdbl::Zone_outcome::SET;
    });
  for (std::thread& adapter : adapters)
    adapter.join();
  EXPECT_EQ(set, 20);
  EXPECT_EQ(support::read_file(INSTALLED).substr(0, 4), "TZif");
}
