// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Which local time offset counts, and what becomes of it.
#include "si/local_offsets.h"

#include <cstdlib>

#include "base/receiver_profile.h"
#include "db/sdbl_parts.h"
#include "si/countries.h"
#include "si/recorded_clock.h"
#include "si/si_support.h"
#include "si/siparse_parts.h"
#include "si/system_clock.h"

using namespace si_support;

namespace {

constexpr int64_t NOON_2010 = 1262347200;  // 2010-01-01 12:00:00 UTC, MJD 55197

// This process's zone, until the end of the test.
class Zone_here {
 public:
  explicit Zone_here(const char* zone) {
    if (const char* before = std::getenv("TZ"); before != nullptr)
      before_ = before;
    setenv("TZ", zone, 1);
    tzset();
  }
  ~Zone_here() {
    (void)(before_ ? setenv("TZ", before_->c_str(), 1) : unsetenv("TZ"));
    tzset();
  }
  Zone_here(const Zone_here&) = delete;
  Zone_here& operator=(const Zone_here&) = delete;

 private:
  std::optional<std::string> before_;
};

bool have_zones() {
  return access("/usr/share/zoneinfo/zone.tab", R_OK) == 0 && access("/usr/share/zoneinfo/Europe/Tallinn", R_OK) == 0;
}

constexpr int EST_NETWORK = 0x2000 + 233;
constexpr int ESP_NETWORK = 0x2000 + 724;

// --- Countries -------------------------------------------------------------------------------------------------------

TEST(Countries, have_three_letters) {
  EXPECT_EQ(countries::by_letters("EE"), "EST");
  EXPECT_EQ(countries::by_letters("est"), "EST");
  EXPECT_EQ(countries::by_letters("ZWE"), "ZWE");
  for (const char* none : {"", "E", "XX", "ESTX", "Estonia"})
    EXPECT_EQ(countries::by_letters(none), "") << none;
}

TEST(Countries, of_terrestrial_networks) {
  EXPECT_EQ(countries::by_network(EST_NETWORK), "EST");
  EXPECT_EQ(countries::by_network(0x233A), "GBR");
  EXPECT_EQ(countries::by_network(0x20FA), "FRA");
  for (const int none : {-1, 0, 233, 0x2000, 0x2001, 0x3000, 0xFFFF})
    EXPECT_EQ(countries::by_network(none), "") << none;
}

TEST(Countries, of_the_systems_zone) {
  if (!have_zones())
    GTEST_SKIP() << "no list of zones";
  const struct {
    const char* zone;
    const char* country;
  } cases[] = {
      {"Europe/Tallinn", "EST"},
      {":Europe/Tallinn", "EST"},
      {"/usr/share/zoneinfo/Europe/Paris", "FRA"},
      {"Atlantic/Canary", "ESP"},
      {"UTC", ""},
      {"EET-2", ""},
      {"", ""},
      {"Europe", ""},
      {"Europe/Tallin", ""},
  };
  for (const auto& c : cases) {
    const Zone_here here(c.zone);
    EXPECT_EQ(countries::by_system_zone(), c.country) << c.zone;
  }
}

// --- The choice ------------------------------------------------------------------------------------------------------

const struct {
  const char* legend;
  const char* host;
  int network;
  const char* zone;
  std::vector<Local_offset> offsets;
  const char* chosen;  // "EST 0 120", or empty
} CHOICES[] = {
    {"nothing", "EST", EST_NETWORK, "UTC0", {}, ""},
    {"the host's country",
     "LVA",
     EST_NETWORK,
     "Europe/Vilnius",
     {{"EST", 0, 120}, {"LVA", 0, 121}, {"LTU", 0, 122}},
     "LVA 0 121"},
    {"by two letters", "lv", EST_NETWORK, "UTC0", {{"EST", 0, 120}, {"LVA", 0, 121}}, "LVA 0 121"},
    {"the network's country",
     "",
     EST_NETWORK,
     "Europe/Vilnius",
     {{"LVA", 0, 121}, {"EST", 0, 120}, {"LTU", 0, 122}},
     "EST 0 120"},
    {"the network's where the host's is not there",
     "FIN",
     EST_NETWORK,
     "UTC0",
     {{"LVA", 0, 121}, {"EST", 0, 120}},
     "EST 0 120"},
    {"the country's code in small letters", "", EST_NETWORK, "UTC0", {{"LVA", 0, 121}, {"est", 0, 120}}, "est 0 120"},
    {"the zone's country", "", -1, "Europe/Vilnius", {{"LVA", 0, 121}, {"LTU", 0, 122}}, "LTU 0 122"},
    {"nobody's, of several", "", -1, "UTC0", {{"LVA", 0, 121}, {"LTU", 0, 122}}, ""},
    {"the only one", "FIN", EST_NETWORK, "UTC0", {{"LVA", 0, 121}}, "LVA 0 121"},
    {"the only one, which is no country", "", -1, "UTC0", {{"EUR", 0, 60}}, "EUR 0 60"},
    {"the only one, which is no text", "", -1, "UTC0", {{"a/b", 0, 60}}, ""},
    {"the first region", "", ESP_NETWORK, "UTC0", {{"ESP", 2, 0}, {"ESP", 1, 60}}, "ESP 1 60"},
    {"a region without number goes before", "", ESP_NETWORK, "UTC0", {{"ESP", 1, 0}, {"ESP", 0, 60}}, "ESP 0 60"},
    {"the region of the zone here", "", ESP_NETWORK, "Atlantic/Canary", {{"ESP", 1, 60}, {"ESP", 2, 0}}, "ESP 2 0"},
    {"the first where the zone here is another country's",
     "",
     ESP_NETWORK,
     "Europe/London",
     {{"ESP", 1, 60}, {"ESP", 2, 0}},
     "ESP 1 60"},
    {"the first where the zone here is no region's",
     "",
     ESP_NETWORK,
     "Atlantic/Canary",
     {{"ESP", 2, 120}, {"ESP", 1, 60}},
     "ESP 1 60"},
};

TEST(Country_offset, is_that_of_host_network_zone_or_the_only_one) {
  if (!have_zones())
    GTEST_SKIP() << "no list of zones";
  for (const auto& c : CHOICES) {
    SCOPED_TRACE(c.legend);
    const Zone_here here(c.zone);
    const Local_offset* chosen = Country_offset(c.host).choose(c.offsets, c.network, NOON_2010);
    EXPECT_EQ(
        chosen == nullptr ? "" : formatted("%s %d %d", chosen->country.c_str(), chosen->region, chosen->offset_min),
        c.chosen);
  }
}

// --- Through time tables ---------------------------------------------------------------------------------------------

// 55400 is 2010-07-23.
Bytes offset_entry(const std::string& country, int region, int polarity, unsigned offset, unsigned next = 0,
                   unsigned change_mjd = 55400, unsigned change_bcd = 0x010000) {
  return join(
      {bytes(country), u8(region << 2 | 2 | polarity), u16(offset), u16(change_mjd), u24(change_bcd), u16(next)});
}

Bytes tot_of(const Bytes& entries, unsigned mjd = 55197) {
  return tot(mjd, 0x120000, descriptor(tag::LOCAL_TIME_OFFSET, entries));
}

struct Zone_bench : Parser_bench {
  explicit Zone_bench(const Receiver_profile& profile) {
    recorded_clock.time = static_cast<time_t>(NOON_2010);
    parser.parts().read_as(profile);
    parser.parts().set_time_listener(
        [](void* data, const Broadcast_time& time) { static_cast<Zone_bench*>(data)->times.push_back(time); }, this);
  }
  ~Zone_bench() { recorded_clock = {}; }
  std::string stored() {
    return rows("SELECT 1 FROM sqlite_master WHERE name = 'broadcast_zone'").empty()
               ? "no table"
               : text("SELECT * FROM broadcast_zone");
  }
  std::vector<Broadcast_time> times;
};

// The zone is left alone, whatever the switch says of whose it is.
Receiver_profile profile_of(Receiver_profile::Zone_country whose, const std::string& country = "") {
  Receiver_profile profile;
  profile.zone_country = whose;
  profile.country = country;
  profile.set_clock = profile.set_zone = false;
  return profile;
}

using enum Receiver_profile::Zone_country;

const Bytes TWO = tot_of(join({offset_entry("LVA", 0, 0, 0x0200, 0x0300), offset_entry("GBR", 0, 1, 0x0330, 0x0230)}));

TEST(Broadcast_zone, box_looks_at_its_provider_only_and_tells_no_change) {
  const Zone_here here("UTC0");
  Zone_bench box(profile_of(PREFERRED_PROVIDER, "GBR"));
  box.scan(TWO);
  ASSERT_EQ(box.times.size(), 1U);
  EXPECT_EQ(box.times[0].zone, ZONE_UNTOUCHED);
  EXPECT_EQ(box.times[0].change_epoch, 0);
  EXPECT_EQ(box.stored(), "no table");
}

TEST(Broadcast_zone, of_the_country_is_told_with_its_next_change_and_stored) {
  const Zone_here here("UTC0");
  Zone_bench any(profile_of(COUNTRY, "GBR"));
  any.scan(TWO);
  ASSERT_EQ(any.times.size(), 1U);
  const Broadcast_time& told = any.times[0];
  EXPECT_EQ(told.zone, ZONE_KEPT);
  EXPECT_STREQ(told.country, "GBR");
  EXPECT_EQ(told.offset_min, -210);
  EXPECT_EQ(told.next_offset_min, -150);
  EXPECT_EQ(told.change_epoch, 1279846800);  // 2010-07-23 01:00 UTC
  EXPECT_EQ(told.offset_at(1279846799), -210);
  EXPECT_EQ(told.offset_at(1279846800), -150);
  EXPECT_EQ(any.stored(), formatted("506000000|%d|%d|GBR|0|-210|1279846800|-150", CONN, TYPE));
  any.scan(tot_of(offset_entry("GBR", 3, 0, 0x0100, 0x0100)));
  EXPECT_EQ(any.stored(), formatted("506000000|%d|%d|GBR|3|60|0|60", CONN, TYPE)) << "the last one stands";
}

TEST(Broadcast_zone, of_the_network_is_found_by_the_tables_or_else_the_database) {
  const Zone_here here("UTC0");
  const Bytes three = tot_of(
      join({offset_entry("LVA", 0, 0, 0x0200), offset_entry("GBR", 0, 0, 0), offset_entry("EST", 0, 0, 0x0200)}));
  Zone_bench any(profile_of(COUNTRY));
  any.scan(three);
  EXPECT_EQ(any.times.back().zone, ZONE_UNTOUCHED) << "the network is not known";
  any.run(
      formatted("INSERT INTO kanalid (dvb_type, hf_conn, freq, pat_prnr, orig_network_id) VALUES (%d, %d, %d, 1, "
                "%d)",
                TYPE, CONN, FREQ, EST_NETWORK));
  any.scan(three);
  EXPECT_STREQ(any.times.back().country, "EST");
  any.parser.parts().begin_network();
  any.scan(section(table::SDT_ACTUAL, TS_ID, join({u16(0x233A), {0xFF}})));
  any.scan(three);
  EXPECT_STREQ(any.times.back().country, "GBR");
  EXPECT_EQ(any.times.back().zone, ZONE_RIGHT);
}

TEST(Broadcast_zone, a_change_that_has_been_made_or_changes_nothing_is_none) {
  const Zone_here here("UTC0");
  const struct {
    const char* legend;
    Bytes entry;
    int offset;
    int64_t change;
  } cases[] = {
      {"to come", offset_entry("EST", 0, 0, 0x0200, 0x0300, 55197, 0x120001), 120, NOON_2010 + 1},
      {"now", offset_entry("EST", 0, 0, 0x0200, 0x0300, 55197, 0x120000), 120, 0},
      {"made", offset_entry("EST", 0, 0, 0x0200, 0x0300, 55100), 120, 0},
      {"the same offset", offset_entry("EST", 0, 0, 0x0200, 0x0200), 120, 0},
      {"of the last day that can be sent", offset_entry("EST", 0, 1, 0x1200, 0x1100, 65535, 0x235959), -720,
       2155593599},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.legend);
    Zone_bench any(profile_of(COUNTRY));
    any.scan(tot_of(c.entry));
    ASSERT_EQ(any.times.size(), 1U);
    EXPECT_EQ(any.times[0].offset_min, c.offset);
    EXPECT_EQ(any.times[0].change_epoch, c.change);
    EXPECT_EQ(any.times[0].offset_at(NOON_2010), c.offset);
    EXPECT_EQ(any.number("SELECT change_epoch FROM broadcast_zone"),
              static_cast<int>(std::min<int64_t>(c.change, 2147483647)));
  }
}

// To the minute, and at the time of the table: Estonia had three hours in 1970, and two in the winter of 2010.
TEST(Broadcast_zone, is_compared_with_the_systems_at_the_time_of_the_table) {
  if (!have_zones())
    GTEST_SKIP() << "no zones";
  const Zone_here here("Europe/Tallinn");
  const struct {
    unsigned mjd;
    unsigned offset;
    int zone;
  } cases[] = {{55197, 0x0200, ZONE_RIGHT},
               {55197, 0x0300, ZONE_KEPT},
               {55197, 0x0230, ZONE_KEPT},
               {55400, 0x0300, ZONE_RIGHT},
               {55400, 0x0200, ZONE_KEPT}};
  for (const auto& c : cases) {
    Zone_bench any(profile_of(COUNTRY));
    any.scan(tot_of(offset_entry("EST", 0, 0, c.offset), c.mjd));
    EXPECT_EQ(any.times.at(0).zone, c.zone) << c.mjd << " " << c.offset;
  }
}

TEST(Broadcast_zone, an_offset_that_is_stored_already_is_not_written_again) {
  const Zone_here here("UTC0");
  Zone_bench any(profile_of(COUNTRY));
  any.scan(tot_of(offset_entry("EST", 0, 0, 0x0200)));
  any.open(TOT);
  any.run("CREATE TRIGGER t AFTER INSERT ON broadcast_zone BEGIN SELECT raise(FAIL, 'written'); END");
  EXPECT_EQ(any.scan_at(2, tot_of(offset_entry("EST", 0, 0, 0x0200))), "");
  any.open(TOT);
  EXPECT_THAT(any.scan_at(1, tot_of(offset_entry("EST", 0, 0, 0x0300))),
              HasSubstr("WARNING: The local time of 506000000 Hz is not stored: "));
}

// --- Times that do not fit -------------------------------------------------------------------------------------------

TEST(Time_that_fits, ends_where_the_clocks_type_does) {
  EXPECT_EQ(time_that_fits<int32_t>(2147483647), 2147483647);
  EXPECT_EQ(time_that_fits<int32_t>(2147483648), std::nullopt) << "2038-01-19 03:14:08";
  EXPECT_EQ(time_that_fits<int32_t>(broadcast_seconds(65535, 0x235959)), std::nullopt);
  EXPECT_EQ(time_that_fits<int64_t>(broadcast_seconds(65535, 0x235959)), 2155593599);
  EXPECT_EQ(time_that_fits<int32_t>(-2147483649), std::nullopt);
}

}  // namespace
