// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// TDT, TOT and the arithmetic of dates.
#include <chrono>
#include <limits>

#include "si/recorded_clock.h"
#include "si/si_support.h"
#include "si/siparse_parts.h"

using namespace si_support;

namespace {

constexpr time_t NOON_2010 = 1262347200;  // 2010-01-01 12:00:00 UTC, MJD 55197

class Time_tables : public Parser_test {
 protected:
  Time_tables() {
    recorded_clock.time = NOON_2010;
    recorded_clock.take_settings();
  }
  ~Time_tables() override { recorded_clock = {}; }
  // The multiplex belongs to the preferred network, whose offsets are looked at.
  void prefer_this() {
    db.set_preferred_provider("Net");
    run("INSERT INTO kanalid (dvb_type, hf_conn, freq, pat_prnr, network_name) VALUES (1, 3, 506000000, 1, 'Net')");
  }
  // Both tables with this time.
  static std::vector<Bytes> both(unsigned mjd, unsigned hms_bcd) { return {tdt(mjd, hms_bcd), tot(mjd, hms_bcd, {})}; }
};

Bytes offset_entry(const std::string& country, int region, int polarity, unsigned offset, unsigned next = 0) {
  return join({bytes(country), u8(region << 2 | 2 | polarity), u16(offset), u16(55197), u24(0x010203), u16(next)});
}

// --- Arithmetic ------------------------------------------------------------------------------------------------------

TEST(Dates, mjd_to_bcd) {
  const struct {
    unsigned mjd;
    unsigned bcd;
  } cases[] = {
      {45218, 0x19820906}, {55197, 0x20100101}, {51543, 0x19991231}, {51544, 0x20000101},
      {51603, 0x20000229}, {51604, 0x20000301}, {55196, 0x20091231}, {60000, 0x20230225},
      {40587, 0x19700101}, {65535, 0x20380422}, {15079, 0x19000301},
  };
  for (const auto& c : cases)
    EXPECT_EQ(Siparse::mjd_to_bcd(c.mjd), c.bcd) << c.mjd;
}

TEST(Dates, every_day_follows_the_day_before) {
  for (unsigned mjd = 40587; mjd <= 65535; ++mjd) {
    const std::chrono::year_month_day date = std::chrono::sys_days(std::chrono::days(mjd - 40587));
    const unsigned expected = static_cast<unsigned>(static_cast<int>(date.year())) * 10000 +
                              static_cast<unsigned>(date.month()) * 100 + static_cast<unsigned>(date.day());
    ASSERT_EQ(Siparse::bcd_to_int(Siparse::mjd_to_bcd(mjd)), expected) << mjd;
  }
}

TEST(Dates, of_every_mjd_can_be_computed) {
  for (unsigned mjd = 0; mjd <= 0xFFFF; ++mjd)
    (void)Siparse::mjd_to_bcd(mjd);
  EXPECT_EQ(Siparse::mjd_to_bcd(0) & 0xFF, 0x19u) << "before 1900 the formula does not hold";
}

TEST(Dates, bcd) {
  EXPECT_EQ(Siparse::bcd_to_int(0x20101115), 20101115u);
  EXPECT_EQ(Siparse::bcd_to_int(0), 0u);
  EXPECT_EQ(Siparse::bcd_to_int(0x1A), 20u) << "digits above 9 are not rejected";
  EXPECT_EQ(Siparse::bcd_to_int(0xFFFFFFFF), 166666665u);
  EXPECT_EQ(Siparse::bin_to_bcd(1234), 0x1234u);
  EXPECT_EQ(Siparse::bin_to_bcd(1234567890), 0x34567890u) << "higher digits are lost";
}

TEST(Dates, print_gmtime_at_3) {
  EXPECT_EQ(messages_at(3, [] { Siparse::print_gmtime(NOON_2010); }), "Fri Jan  1 12:00:00 2010\n");
  EXPECT_EQ(messages_at(2, [] { Siparse::print_gmtime(NOON_2010); }), "");
}

// --- The clock -------------------------------------------------------------------------------------------------------

TEST_F(Time_tables, ten_seconds_off_leave_the_clock_and_eleven_set_it_to_every_date_that_can_be_sent) {
  constexpr int64_t LEAVES = -1;
  const struct {
    const char* what;
    int64_t now;
    unsigned mjd;
    unsigned hms_bcd;
    int64_t set;
  } cases[] = {
      {"right", NOON_2010, 55197, 0x120000, LEAVES},
      {"10 s late", NOON_2010 - 10, 55197, 0x120000, LEAVES},
      {"10 s early", NOON_2010 + 10, 55197, 0x120000, LEAVES},
      {"11 s late", NOON_2010 - 11, 55197, 0x120000, NOON_2010},
      {"11 s early", NOON_2010 + 11, 55197, 0x120000, NOON_2010},
      {"years late", 1000, 55197, 0x120000, NOON_2010},
      {"beyond 2038", 4102444800, 55197, 0x120000, NOON_2010},
      {"to 1970", NOON_2010, 40587, 0x000000, 0},
      {"to the end of 1999", NOON_2010, 51543, 0x235959, 946684799},
      {"to a leap day", NOON_2010, 51603, 0x123456, 951827696},
      {"to the last second of 32 bits", NOON_2010, 65442, 0x031407, 2147483647},
      {"to the second after it", NOON_2010, 65442, 0x031408, 2147483648},
      {"to the last one of 16 bits of MJD", NOON_2010, 65535, 0x235959, 2155593599},
      {"to no BCD", NOON_2010, 55197, 0x1A7F99, NOON_2010 + 8 * 3600 + 85 * 60 + 99},
  };
  for (const auto& c : cases) {
    if (std::max(c.now, c.set) > std::numeric_limits<time_t>::max())
      continue;  // on machines where the clock ends there
    for (const Bytes& section : both(c.mjd, c.hms_bcd)) {
      SCOPED_TRACE(std::string(c.what) + (section[0] == table::TDT ? ", TDT" : ", TOT"));
      recorded_clock.time = static_cast<time_t>(c.now);
      const bool sets = c.set != LEAVES;
      EXPECT_EQ(scan_at(3, section).find("Changing system clock\n") != std::string::npos, sets);
      EXPECT_EQ(recorded_clock.take_settings(), std::vector<time_t>(sets ? 1 : 0, static_cast<time_t>(c.set)));
      EXPECT_THAT(scan_at(2, section), Not(HasSubstr("Changing")));
      recorded_clock.take_settings();
    }
  }
}

TEST_F(Time_tables, a_time_that_the_clock_cannot_hold_is_not_set) {
  if (sizeof(time_t) > 4)
    GTEST_SKIP() << "this one holds every date that can be sent";
  for (const Bytes& section : both(65442, 0x031408)) {
    scan(section);
    EXPECT_THAT(recorded_clock.take_settings(), IsEmpty());
  }
}

TEST_F(Time_tables, with_a_right_clock_the_time_becomes_valid_and_the_filter_closes) {
  recorded_clock.time = 1000;
  Siparse early(&filter, 1, CONN, TYPE, &db);
  EXPECT_FALSE(early.systime_valid());
  recorded_clock.time = NOON_2010;
  open(TDT);
  open(TOT);
  scan_with(early, tdt(55197, 0x120000), pid::TIME);
  EXPECT_TRUE(early.systime_valid());
  EXPECT_THAT(filters(), ElementsAre(TOT));
  EXPECT_THAT(recorded_clock.take_settings(), IsEmpty());
  scan_with(early, tot(55197, 0x120000, {}), pid::TIME);
  EXPECT_THAT(filters(), IsEmpty());
}

TEST_F(Time_tables, the_time_is_invalid_up_to_the_end_of_1999) {
  for (time_t now : {time_t{946684798}, time_t{946684799}}) {
    recorded_clock.time = now;
    const std::string all =
        messages_at(4, [&] { EXPECT_EQ(Siparse(&filter, 1, CONN, TYPE, &db).systime_valid(), now == 946684799); });
    EXPECT_EQ(all, std::string(now == 946684799 ? "System time valid\n" : "System time invalid\n") + "Epoch time is " +
                       std::to_string(now) + "\n");
  }
}

TEST_F(Time_tables, are_announced_at_4) {
  for (const auto& [section, text] : {std::pair{tdt(55197, 0x120000), "Time and date section\n"},
                                      std::pair{tot(55197, 0x120000, {}), "Time offset section\n"}}) {
    EXPECT_THAT(scan_at(4, section), HasSubstr(text));
    EXPECT_THAT(scan_at(3, section), Not(HasSubstr(text)));
  }
}

TEST_F(Time_tables, are_read_whatever_the_bit_of_current_next) {
  for (unsigned bcd : {0x120000u, 0x130000u}) {  // where other tables have the bit, these have the hour
    for (const Bytes& section : both(55197, bcd)) {
      EXPECT_EQ(section[5] & 1, bcd == 0x130000u ? 1 : 0);
      open({pid::TIME, section[0]});
      scan(section);
      EXPECT_THAT(filters(), IsEmpty());
    }
  }
  EXPECT_THAT(recorded_clock.take_settings(), ElementsAre(NOON_2010 + 3600, NOON_2010 + 3600));
}

TEST_F(Time_tables, a_date_of_garbage_is_converted_without_a_fault) {
  scan(tdt(0xFFFF, 0xFFFFFF));
  scan(tdt(0, 0));
  scan(tot(0xFFFF, 0xFFFFFF, {}));
  // A clock of 32 bits shows neither 1858 nor April 2038, and is left alone.
  EXPECT_EQ(recorded_clock.take_settings().size(), sizeof(time_t) > 4 ? 3u : 0u);
}

TEST_F(Time_tables, a_tdt_reads_the_clock_before_anything_else_and_a_tot_behind_its_offsets) {
  recorded_clock.announced = true;
  const std::string of_tdt = scan_at(4, tdt(55197, 0x130000));
  const std::string of_tot =
      scan_at(4, tot(55197, 0x130000, descriptor(tag::LOCAL_TIME_OFFSET, offset_entry("EST", 0, 0, 0x0200))));
  recorded_clock.announced = false;
  EXPECT_THAT(of_tdt, HasSubstr(".14.70 <time>Time and date section\nChanging system clock\n<settimeofday>"));
  EXPECT_THAT(of_tot, AllOf(HasSubstr(".14.73 Time offset section\nParsing descriptor 58, dec 88, oid 506000000\n"
                                      "Country id EST "),
                            HasSubstr("<time>Changing system clock\n<settimeofday>")));
  EXPECT_LT(of_tot.find("Country id EST"), of_tot.find("<time>"));
  EXPECT_EQ(support::count_of(of_tot, "<time>"), 1U);
}

// --- Who is told -----------------------------------------------------------------------------------------------------

class Told : public Time_tables {
 protected:
  Told() {
    parser.parts().set_time_listener(
        [](void* data, const Broadcast_time& time) { static_cast<Told*>(data)->times.push_back(time); }, this);
  }
  // Each as "frequency time off_by clock zone".
  Texts told() const {
    Texts all;
    for (const Broadcast_time& t : times)
      all.push_back(formatted("%d %lld %lld %d %d", t.freq, static_cast<long long>(t.utc),
                              static_cast<long long>(t.off_by), t.clock, t.zone));
    return all;
  }
  std::vector<Broadcast_time> times;
};

TEST_F(Told, of_each_table_with_time_frequency_and_what_became_of_the_clock) {
  scan_each({tdt(55197, 0x120005), tot(55197, 0x115956, {}), tdt(55197, 0x120011)});
  recorded_clock.settings_refused = true;
  scan(tot(55197, 0x115949, {}));
  const auto line = [](int off_by, int clock) {
    return formatted("%d %lld %d %d %d", FREQ, NOON_2010 + static_cast<long long>(off_by), off_by, clock,
                     ZONE_UNTOUCHED);
  };
  EXPECT_EQ(told(),
            (Texts{line(5, CLOCK_RIGHT), line(-4, CLOCK_RIGHT), line(11, CLOCK_SET), line(-11, CLOCK_REFUSED)}));
  EXPECT_TRUE(parser.systime_valid()) << "all the same";
  parser.parts().set_time_listener(nullptr, nullptr);
  scan(tdt(55197, 0x120000));
  EXPECT_EQ(times.size(), 4u) << "nobody is told any more";
}

TEST_F(Told, of_times_of_more_than_32_bits) {
  scan(tdt(65535, 0x235959));
  ASSERT_EQ(times.size(), 1u);
  EXPECT_EQ(times[0].utc, 2155593599);
  EXPECT_EQ(times[0].off_by, 2155593599 - NOON_2010);
  EXPECT_EQ(times[0].clock, sizeof(time_t) > 4 ? CLOCK_SET : CLOCK_REFUSED);
}

TEST_F(Told, of_the_last_offset_that_did_anything) {
  prefer_this();
  const char* const before = std::getenv("TZ");
  const std::string zone = before != nullptr ? before : "";
  setenv("TZ", "EET-2", 1);
  scan(
      tot(55197, 0x120000,
          descriptor(tag::LOCAL_TIME_OFFSET, join({offset_entry("PRT", 5, 0, 0x0200), offset_entry("a/b", 0, 0, 0)}))));
  (void)(before != nullptr ? setenv("TZ", zone.c_str(), 1) : unsetenv("TZ"));
  tzset();
  ASSERT_EQ(times.size(), 1u);
  EXPECT_EQ(times[0].zone, ZONE_RIGHT);
  EXPECT_EQ(times[0].offset_min, 120);
  EXPECT_STREQ(times[0].country, "PRT");
}

// --- A clock and a zone that are left alone --------------------------------------------------------------------------

class Kept : public Told {
 protected:
  Kept() { parser.parts().set_system_policy(false, false); }
  // What a table prints at this level; its filter is open.
  std::string warnings(const Bytes& section, int level = 1) {
    open({pid::TIME, section[0]});
    return scan_at(level, section);
  }
};

TEST_F(Kept, the_clock_is_not_set_and_who_is_told_hears_by_how_much_it_is_off) {
  scan_each({tdt(55197, 0x120010), tdt(55197, 0x120011), tot(55197, 0x115949, {}), tot(55197, 0x130000, {}),
             tdt(65535, 0x235959), tdt(40587, 0)});
  Texts clocks;
  for (const Broadcast_time& t : times)
    clocks.push_back(formatted("%lld %d", static_cast<long long>(t.off_by), t.clock));
  EXPECT_EQ(clocks, (Texts{formatted("10 %d", CLOCK_RIGHT), formatted("11 %d", CLOCK_KEPT),
                           formatted("-11 %d", CLOCK_KEPT), formatted("3600 %d", CLOCK_KEPT),
                           formatted("893246399 %d", CLOCK_KEPT), formatted("-1262347200 %d", CLOCK_KEPT)}));
  EXPECT_THAT(recorded_clock.take_settings(), IsEmpty());
  EXPECT_THAT(scan_at(3, tdt(55197, 0x130000)), Not(HasSubstr("Changing")));
}

TEST_F(Kept, a_difference_of_more_than_a_minute_is_warned_of_once) {
  for (const Bytes& section : both(55197, 0x120100))
    EXPECT_EQ(warnings(section), "") << "a minute";
  EXPECT_EQ(warnings(tdt(55197, 0x120101)),
            "WARNING: The system's clock is 61 s behind the broadcast time and is left alone\n");
  for (const Bytes& section : both(55197, 0x230000))
    EXPECT_EQ(warnings(section), "");
}

TEST_F(Kept, a_clock_that_is_ahead_is_said_to_be) {
  EXPECT_EQ(warnings(tot(55196, 0x120000, {})),
            "WARNING: The system's clock is 86400 s ahead of the broadcast time and is left alone\n");
}

TEST_F(Kept, the_warning_is_one_of_verbosity_1) {
  EXPECT_EQ(warnings(tot(55196, 0x120000, {}), 0), "");
}

TEST_F(Kept, the_time_is_valid_while_the_last_table_agrees_with_the_clock) {
  EXPECT_TRUE(parser.systime_valid()) << "nothing speaks against it";
  scan(tdt(55197, 0x120011));
  EXPECT_FALSE(parser.systime_valid());
  scan(tot(55197, 0x115950, {}));
  EXPECT_TRUE(parser.systime_valid());
  recorded_clock.time = 1000;
  Siparse early(&filter, 0, CONN, TYPE, &db);
  early.parts().set_system_policy(false, true);
  EXPECT_FALSE(early.systime_valid());
  scan_with(early, tdt(55197, 0x120000), pid::TIME);
  EXPECT_FALSE(early.systime_valid());
  recorded_clock.time = NOON_2010;
  scan_with(early, tdt(55197, 0x120000), pid::TIME);
  EXPECT_TRUE(early.systime_valid());
}

TEST_F(Kept, its_filter_is_closed_all_the_same) {
  open(TDT);
  open(TOT);
  scan_each({tdt(55197, 0x130000), tot(55197, 0x130000, {})});
  EXPECT_THAT(filters(), IsEmpty());
}

TEST_F(Kept, another_zone_is_told_and_nothing_is_written) {
  prefer_this();
  const char* const before = std::getenv("TZ");
  const std::string zone = before != nullptr ? before : "";
  setenv("TZ", "EET-2", 1);
  const Bytes right = tot(55197, 0x120000, descriptor(tag::LOCAL_TIME_OFFSET, offset_entry("PRT", 5, 0, 0x0200)));
  const Bytes other = tot(55197, 0x120000, descriptor(tag::LOCAL_TIME_OFFSET, offset_entry("EST", 0, 1, 0x0330)));
  scan(right);
  EXPECT_EQ(warnings(other), "WARNING: Checking mux 506000000 provider Net = timezone Net\n");
  db.set_preferred_provider("Another");
  scan(other);
  (void)(before != nullptr ? setenv("TZ", zone.c_str(), 1) : unsetenv("TZ"));
  tzset();
  Texts zones;
  for (const Broadcast_time& t : times)
    zones.push_back(formatted("%d %d %s", t.zone, t.offset_min, t.country));
  EXPECT_EQ(zones, (Texts{formatted("%d 120 PRT", ZONE_RIGHT), formatted("%d -210 EST", ZONE_KEPT),
                          formatted("%d 0 ", ZONE_UNTOUCHED)}));
}

TEST_F(Kept, each_of_the_two_can_be_left_alone_by_itself) {
  parser.parts().set_system_policy(true, false);
  scan(tdt(55197, 0x130000));
  EXPECT_THAT(recorded_clock.take_settings(), ElementsAre(NOON_2010 + 3600));
  EXPECT_EQ(times.back().clock, CLOCK_SET);
}

// --- Local time offsets ----------------------------------------------------------------------------------------------

class Offsets : public Time_tables {
 protected:
  Offsets() {
    prefer_this();
    db.set_preferred_provider("Another");  // so that no zone is written
  }
};

TEST_F(Offsets, every_entry_is_traced_at_3_and_handed_on) {
  const Bytes d = descriptor(tag::LOCAL_TIME_OFFSET,
                             join({offset_entry("EST", 0, 0, 0x0200, 0x0300), offset_entry("PRT", 5, 1, 0x0130)}));
  EXPECT_THAT(scan_at(3, tot(55197, 0x120000, d)),
              HasSubstr("Country id EST region id 0, offset 200, next_offset 300 , polarity 0, ymd 20100101, hms "
                        "10203\nWARNING: Checking mux 506000000 provider Net = timezone Another\n"
                        "Country id PRT region id 5, offset 130, next_offset 0 , polarity 1, ymd 20100101, hms "
                        "10203\nWARNING: Checking mux 506000000 provider Net = timezone Another\n"));
  EXPECT_THAT(scan_at(2, tot(55197, 0x120000, d)), Not(HasSubstr("Country")));
}

TEST_F(Offsets, outside_a_tot_the_context_is_taken_as_the_frequency) {
  const Bytes d = descriptor(tag::LOCAL_TIME_OFFSET, offset_entry("EST", 0, 0, 0x0200));
  EXPECT_THAT(trace_of(d, FREQ, 3), HasSubstr("WARNING: Checking mux 506000000 "));
  EXPECT_THAT(trace_of(d, 7, 3), Not(HasSubstr("Checking")));
}

TEST_F(Offsets, a_tot_with_descriptors_of_services_stores_nothing) {
  db.pat_for_network(0, TYPE, CONN, FREQ, 1, TS_ID, 0x100);
  scan(tot(55197, 0x120000, service_descriptor(1, "P", "S")));
  EXPECT_THAT(rows("SELECT channel FROM kanalid_scan_0 WHERE serv_name = 'S'"), IsEmpty());
}

}  // namespace
