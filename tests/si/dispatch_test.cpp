// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Which sections reach which parser.
#include <dvbsi++/network_information_section.h>
#include <dvbsi++/program_association_section.h>
#include <dvbsi++/program_map_section.h>
#include <dvbsi++/service_description_section.h>
#include <dvbsi++/time_date_section.h>
#include <dvbsi++/time_offset_section.h>

#include "si/recorded_clock.h"
#include "si/si_support.h"

using namespace si_support;

namespace {

class Dispatch : public Parser_test {};

// Each table with the PID it belongs to, and how the trace of its parser begins.
struct Table {
  const char* what;
  Bytes section;
  int pid;
  const char* trace;
  int level;
  const char* effect;  // a trace that only the parser prints
};

const Table TABLES[] = {
    {"PAT", pat({{1, 0x100}}), pid::PAT, "Scanning PAT\n", 4, "PAT scanned, setting SDT, NIT, PMT\n"},
    {"CAT", cat(ca(0x102, 0x103)), pid::CAT, "--->>>> !!!!!! Contitional Access section!!!!!\n", 3,
     "CA descriptor SysId: 258, PID: 259 \n"},
    {"PMT", pmt(1, 0x101, {}), 0x100, "Scanning PMT for pid 256\n", 4, "PMT: Program 1, PID 100, PCR pid 101\n"},
    {"NIT", nit(0x3001, {}, {}), pid::NIT, "Scanning NIT same network\n", 4, "NIT: network_id 12289\n"},
    {"SDT", sdt({}), pid::SDT, "Scanning SDT\n", 4, "SDT scanned.\n"},
};

TEST_F(Dispatch, every_table_reaches_its_parser) {
  for (const Table& t : TABLES) {
    SCOPED_TRACE(t.what);
    const std::string all = messages_at(4, [&] { EXPECT_EQ(scan(t.section, t.pid), 0); });
    EXPECT_THAT(all, HasSubstr(t.trace));
    EXPECT_THAT(all, HasSubstr(t.effect));
    EXPECT_LT(all.find(t.trace), all.find(t.effect));
    EXPECT_THAT(scan_at(t.level - 1, t.section, t.pid), Not(HasSubstr(t.trace)));
  }
}

TEST_F(Dispatch, a_table_on_a_pid_that_is_not_its_own_is_dropped_without_a_message) {
  const struct {
    const char* what;
    Bytes section;
    int pid;
  } cases[] = {
      {"PAT", pat({{1, 0x100}}), pid::NIT},
      {"CAT", cat({}), 2},
      {"NIT", nit(1, {}, {}), pid::SDT},
      {"SDT", sdt({}), pid::NIT},
      {"EIT present/following", section(table::EIT_PRESENT_FOLLOWING, 1, Bytes(6)), pid::SDT},
      {"EIT schedule", section(table::EIT_SCHEDULE_FIRST, 1, Bytes(6)), pid::TIME},
      {"TDT", tdt(55197, 0x120000), pid::EIT},
      {"TOT", tot(55197, 0x120000, {}), 21},
  };
  int counter = 0;
  for (const auto& c : cases) {
    const auto pid = static_cast<unsigned>(c.pid);
    ++counter;
    EXPECT_EQ(scan_at(4, c.section, c.pid), formatted(">>>>> Table id %x , pid %x, cntr %d \nNr %3d.%02x.%02x ",
                                                      c.section[0], pid, counter, counter, pid, c.section[0]))
        << c.what << " on " << c.pid;
  }
  EXPECT_THAT(filters(), IsEmpty());
}

TEST_F(Dispatch, a_pmt_is_taken_from_any_pid) {
  for (int pid : {pid::PAT, pid::NIT, pid::LAST_RESERVED + 1, pid::LAST - 1})
    EXPECT_THAT(scan_at(4, pmt(1, 0x101, {}), pid), HasSubstr("PMT: Program 1, PID "));
}

TEST_F(Dispatch, quirk_a_nit_on_the_pid_that_the_pat_names_is_dropped_and_its_filter_stays) {
  scan(pat({{0, 0x30}}));
  EXPECT_THAT(filters(), ElementsAre(Filter(0x30, 0x40), SDT));
  EXPECT_THAT(scan_at(4, nit(1, {}, {}), 0x30), Not(HasSubstr("NIT")));
  EXPECT_THAT(filters(), ElementsAre(Filter(0x30, 0x40), SDT));
}

TEST_F(Dispatch, every_section_is_counted_and_announced_at_4) {
  EXPECT_EQ(scan_at(3, sdt({}), pid::NIT), "");
  EXPECT_EQ(scan_at(4, sdt({}), pid::NIT), ">>>>> Table id 42 , pid 10, cntr 2 \nNr   2.10.42 ");
}

TEST_F(Dispatch, quirk_table_ids_above_7f_are_announced_sign_extended) {
  EXPECT_THAT(scan_at(4, support::long_section(0x80, 1, 0, {}), 0x100),
              StartsWith(">>>>> Table id ffffff80 , pid 100, cntr 1 \nNr   1.100.80 "));
}

bool is_known(int id) {
  return id <= table::PMT || id == table::NIT_ACTUAL || id == table::SDT_ACTUAL || id == table::EIT_PRESENT_FOLLOWING ||
         (id >= table::EIT_SCHEDULE_FIRST && id <= table::EIT_SCHEDULE_LAST) || id == table::TDT || id == table::TOT;
}

TEST_F(Dispatch, unknown_tables_are_reported_at_1_and_dropped) {
  for (int id = 0; id < 256; ++id) {
    if (is_known(id))
      continue;
    const Bytes unknown = section(id, 1, Bytes(10));
    const std::string expected =
        formatted("WARNING: *********   Unreckognized section %x *********  \n", static_cast<unsigned>(id));
    for (int pid : {pid::PAT, pid::SDT, pid::EIT, 0x100})
      EXPECT_EQ(messages_at(1, [&] { EXPECT_EQ(scan(unknown, pid), 0) << id; }), expected);
    EXPECT_EQ(scan_at(0, unknown, pid::EIT), "") << id;
  }
}

TEST_F(Dispatch, a_section_that_is_not_current_yet_is_dropped) {
  for (const Table& t : TABLES)
    EXPECT_THAT(scan_at(4, next_of(t.section), t.pid), Not(HasSubstr(t.effect))) << t.what;
  EXPECT_THAT(filters(), IsEmpty());
  EXPECT_EQ(table("kanalid_scan_0"), Texts{});
}

TEST_F(Dispatch, every_table_of_the_guide_reaches_its_parser_from_pid_18) {
  for (int id = table::EIT_PRESENT_FOLLOWING; id <= table::EIT_SCHEDULE_LAST; ++id) {
    if (id == table::EIT_PRESENT_FOLLOWING_OTHER)
      continue;
    SCOPED_TRACE(id);
    const Bytes section = eit(1, id, {}, 7, 9);
    const std::string error =
        formatted("##### EIT table current nr is 0, scanned table %x cnt", static_cast<unsigned>(id));
    const char announced[] = "Scanning EIT, section number 7\n";
    EXPECT_THAT(scan_at(4, section), AllOf(HasSubstr(announced), HasSubstr(error)));
    EXPECT_THAT(scan_at(3, section), Not(HasSubstr(announced)));
    EXPECT_THAT(scan_at(4, next_of(section)), AllOf(HasSubstr(announced), Not(HasSubstr("#####"))))
        << "as every table is announced";
    EXPECT_THAT(scan_at(4, section, pid::SDT), Not(HasSubstr("EIT")));
  }
}

// What the parsers print besides belongs to the trace, but for the ends of NIT and SDT.
TEST_F(Dispatch, the_parsers_trace_at_4_only) {
  const std::vector<Bytes> sections = {
      pat({{0, pid::NIT}, {1, 0x100}}),
      pmt(1, 0x101, {{2, 0x101}}),
      nit(0x3001, {}, {{TS_ID, 0x20, {}}}),
      sdt({{1, service_descriptor(1, "", "One")}}),
      sdt({{1, service_descriptor(1, "P", "One")}}),
  };
  const std::string at_4 = messages_at(4, [&] { scan_each(sections); });
  db.clear_temp_tables(0);
  const std::string at_3 = messages_at(3, [&] { scan_each(sections); });
  for (const char* text : {"NetworkPid ", "PAT: ", "PAT scanned", "PMT: ", "Program 1:", "NIT: ", "Tstream", "oid ",
                           "SERV id ", "SDT entry empty", "Moving on", "Parsing", ">>>>>", "Nr "}) {
    EXPECT_THAT(at_4, HasSubstr(text));
    EXPECT_THAT(at_3, Not(HasSubstr(text)));
  }
  EXPECT_THAT(at_3, HasSubstr("NIT scanned.\n"));
  EXPECT_THAT(at_3, HasSubstr("SDT scanned.\n"));
}

TEST_F(Dispatch, the_pointer_and_the_state_do_not_matter_to_a_pat) {
  for (SCAN_STATE state : {SCAN_NONE, SCAN_PMT, SCAN_PAT, SCAN_EIT}) {
    filter.remove_all();
    scan(pat({{7, 0x100}}), pid::PAT, state);
    EXPECT_THAT(filters(), UnorderedElementsAre(NIT, pmt_on(0x100), SDT));
  }
}

TEST_F(Dispatch, the_parsers_take_sections_from_others_than_the_dispatch_too) {
  open(TDT);
  open(TOT);
  recorded_clock.take_settings();
  ProgramAssociationSection a_pat(pat({{1, 0x100}}).data());
  EXPECT_EQ(parser.parse_section_pat(&a_pat, FREQ, SCAN_PAT), 0);
  ProgramMapSection a_pmt(pmt(1, 0x101, {{2, 0x101}}).data());
  EXPECT_EQ(parser.parse_section_pmt(&a_pmt, 0x100, FREQ, SCAN_PAT), 0);
  ConditionalAccessSection a_cat(cat({}).data());
  EXPECT_EQ(parser.parse_section_cat(&a_cat, pid::CAT, FREQ), 0);
  NetworkInformationSection a_nit(nit(0x3001, {}, {}).data());
  EXPECT_EQ(parser.parse_section_nit(&a_nit, pid::NIT, FREQ), 0);
  ServiceDescriptionSection an_sdt(sdt({{1, service_descriptor(1, "P", "One")}}).data());
  EXPECT_EQ(parser.parse_section_sdt(&an_sdt, FREQ), 0);
  TimeAndDateSection a_tdt(tdt(55197, 0x120000).data());
  EXPECT_EQ(parser.parse_section_tdt(&a_tdt, FREQ), 0);
  TimeOffsetSection a_tot(tot(55197, 0x120000, {}).data());
  EXPECT_EQ(parser.parse_section_tot(&a_tot, FREQ), 0);
  EXPECT_EQ(recorded_clock.take_settings().size(), 2u);
  EXPECT_THAT(filters(), IsEmpty());
  EXPECT_EQ(text("SELECT pmt_pid || ' ' || pcr_pid || ' ' || network_id || ' ' || serv_name FROM kanalid_scan_0"),
            "256 257 12289 One");
  EXPECT_EQ(text("SELECT es_pid FROM estreams_scan_0"), "257");
}

// --- Construction ----------------------------------------------------------------------------------------------------

TEST_F(Dispatch, construction_says_whether_the_clock_is_right) {
  const time_t before = time(nullptr);
  const std::string all = messages_at(4, [&] {
    const Siparse another(&filter, 1, CONN, TYPE, &db);
    EXPECT_TRUE(another.systime_valid());
    EXPECT_EQ(another.get_eit_stored(), 0);
  });
  const time_t after = time(nullptr);
  std::vector<std::string> possible;
  for (time_t t = before; t <= after; ++t)
    possible.push_back("System time valid\nEpoch time is " + std::to_string(t) + "\n");
  EXPECT_THAT(possible, Contains(all));
  EXPECT_EQ(messages_at(3, [&] { const Siparse another(&filter, 1, CONN, TYPE, &db); }), "");
}

TEST_F(Dispatch, add_dvbnr_appends_the_adapter_to_a_name) {
  EXPECT_STREQ(parser.add_dvbnr("kanalid_scan"), "kanalid_scan_0");
  Siparse third(&filter, 2, CONN, TYPE, &db);
  EXPECT_STREQ(third.add_dvbnr("x"), "x_2");
  const std::string longest(200, 'n');
  EXPECT_EQ(third.add_dvbnr(longest.c_str()), std::string(63, 'n'));
}

}  // namespace
