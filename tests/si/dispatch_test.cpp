// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Which sections reach which parser.
#include <dvbsi++/ca_section.h>
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

std::vector<Table> tables() {
  return {
      {"PAT", pat({{1, 0x100}}), 0, "Scanning PAT\n", 4, "PAT scanned, setting SDT, NIT, PMT\n"},
      {"CAT", support::long_section(0x01, 0xFFFF, 0, ca(0x102, 0x103)), 1,
       "--->>>> !!!!!! Contitional Access section!!!!!\n", 3, "CA descriptor SysId: 258, PID: 259 \n"},
      {"PMT", pmt(1, 0x101, {}), 0x100, "Scanning PMT for pid 256\n", 4, "PMT: Program 1, PID 100, PCR pid 101\n"},
      {"NIT", nit(0x3001, {}, {}), 16, "Scanning NIT same network\n", 4, "NIT: network_id 12289\n"},
      {"SDT", sdt({}), 17, "Scanning SDT\n", 4, "SDT scanned.\n"},
  };
}

TEST_F(Dispatch, every_table_reaches_its_parser) {
  for (const Table& t : tables()) {
    SCOPED_TRACE(t.what);
    std::string all = at_level(4, [&] { EXPECT_EQ(scan(t.section, t.pid), 0); });
    EXPECT_THAT(all, HasSubstr(t.trace));
    EXPECT_THAT(all, HasSubstr(t.effect));
    EXPECT_LT(all.find(t.trace), all.find(t.effect));
    all = scan_at(t.level - 1, t.section, t.pid);
    EXPECT_THAT(all, Not(HasSubstr(t.trace)));
  }
}

TEST_F(Dispatch, a_table_on_a_pid_that_is_not_its_own_is_dropped_without_a_message) {
  const struct {
    const char* what;
    Bytes section;
    int pid;
  } cases[] = {
      {"PAT on 16", pat({{1, 0x100}}), 16},
      {"CAT on 2", support::long_section(0x01, 0xFFFF, 0, {}), 2},
      {"NIT on 17", nit(1, {}, {}), 17},
      {"SDT on 16", sdt({}), 16},
      {"EIT present/following on 17", support::long_section(0x4E, 1, 0, Bytes(6)), 17},
      {"EIT schedule on 20", support::long_section(0x50, 1, 0, Bytes(6)), 20},
      {"TDT on 18", tdt(55197, 0x120000), 18},
      {"TOT on 21", tot(55197, 0x120000, {}), 21},
  };
  int counter = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ++counter;
    const std::string heading =
        formatted(">>>>> Table id %x , pid %x, cntr %d \nNr %3d.%02x.%02x ", c.section[0], static_cast<unsigned>(c.pid),
                  counter, counter, static_cast<unsigned>(c.pid), c.section[0]);
    EXPECT_EQ(scan_at(4, c.section, c.pid), heading);
  }
  EXPECT_THAT(filters(), IsEmpty());
}

TEST_F(Dispatch, a_pmt_is_taken_from_any_pid) {
  for (int pid : {0, 16, 0x20, 0x1FFE})
    EXPECT_THAT(scan_at(4, pmt(1, 0x101, {}), pid), HasSubstr("PMT: Program 1, PID "));
}

TEST_F(Dispatch, quirk_a_nit_on_the_pid_that_the_pat_names_is_dropped_and_its_filter_stays) {
  scan(pat({{0, 0x30}}));
  EXPECT_THAT(filters(), ElementsAre(Filter(0x30, 0x40), SDT));
  EXPECT_THAT(scan_at(4, nit(1, {}, {}), 0x30), Not(HasSubstr("NIT")));
  EXPECT_THAT(filters(), ElementsAre(Filter(0x30, 0x40), SDT));
}

TEST_F(Dispatch, every_section_is_counted_and_announced_at_4) {
  EXPECT_EQ(scan_at(3, sdt({}), 16), "");
  EXPECT_EQ(scan_at(4, sdt({}), 16), ">>>>> Table id 42 , pid 10, cntr 2 \nNr   2.10.42 ");
}

TEST_F(Dispatch, quirk_table_ids_above_7f_are_announced_sign_extended) {
  EXPECT_THAT(scan_at(4, support::long_section(0x80, 1, 0, {}), 0x100),
              StartsWith(">>>>> Table id ffffff80 , pid 100, cntr 1 \nNr   1.100.80 "));
}

TEST_F(Dispatch, unknown_tables_are_reported_at_1_and_dropped) {
  for (int id = 0; id < 256; ++id) {
    if (id <= 0x02 || id == 0x40 || id == 0x42 || id == 0x4E || (id >= 0x50 && id <= 0x5F) || id == 0x70 || id == 0x73)
      continue;
    SCOPED_TRACE(id);
    const Bytes section = support::long_section(static_cast<uint8_t>(id), 1, 0, Bytes(10));
    const std::string expected =
        formatted("WARNING: *********   Unreckognized section %x *********  \n", static_cast<unsigned>(id));
    for (int pid : {0, 17, 18, 0x100})
      EXPECT_EQ(at_level(1, [&] { EXPECT_EQ(scan(section, pid), 0); }), expected);
    EXPECT_EQ(scan_at(0, section, 18), "");
  }
}

TEST_F(Dispatch, a_section_that_is_not_current_yet_is_dropped) {
  for (Table t : tables()) {
    SCOPED_TRACE(t.what);
    const Bytes next = next_of(t.section);
    EXPECT_THAT(scan_at(4, next, t.pid), Not(HasSubstr(t.effect)));
  }
  EXPECT_THAT(filters(), IsEmpty());
  EXPECT_THAT(rows("SELECT * FROM kanalid_scan_0"), IsEmpty());
}

TEST_F(Dispatch, every_table_of_the_guide_reaches_its_parser_from_pid_18) {
  for (int id = 0x4E; id <= 0x5F; ++id) {
    if (id == 0x4F)
      continue;
    const Bytes section = eit(1, id, {}, 7, 9);
    const Bytes next = next_of(section);
    const std::string error =
        formatted("##### EIT table current nr is 0, scanned table %x cnt", static_cast<unsigned>(id));
    const char announced[] = "Scanning EIT, section number 7\n";
    std::string all = scan_at(4, section, 18);
    EXPECT_THAT(all, HasSubstr(announced));
    EXPECT_THAT(all, HasSubstr(error));
    EXPECT_THAT(scan_at(3, section, 18), Not(HasSubstr(announced)));
    all = scan_at(4, next, 18);
    EXPECT_THAT(all, HasSubstr(announced)) << "as every table is announced";
    EXPECT_THAT(all, Not(HasSubstr("#####")));
    EXPECT_THAT(scan_at(4, section, 17), Not(HasSubstr("EIT")));
  }
}

// What the parsers print besides belongs to the trace, but for the ends of NIT and SDT.
TEST_F(Dispatch, the_parsers_trace_at_4_only) {
  const std::vector<Bytes> sections = {
      pat({{0, 0x10}, {1, 0x100}}),
      pmt(1, 0x101, {{2, 0x101, {}}}),
      nit(0x3001, {}, {{TS_ID, 0x20, {}}}),
      sdt({{1, service_descriptor(1, "", "One")}}),
      sdt({{1, service_descriptor(1, "P", "One")}}),
  };
  const int pids[] = {0, 0x100, 16, 17, 17};
  const char* const traces[] = {
      "NetworkPid ", "PAT: ",    "PAT scanned",     "PMT: ",     "Program 1:", "NIT: ", "Tstream",
      "oid ",        "SERV id ", "SDT entry empty", "Moving on", "Parsing",    ">>>>>", "Nr "};
  std::string at_4, at_3;
  for (int level : {4, 3}) {
    db.clear_temp_tables(0);
    for (size_t i = 0; i < sections.size(); ++i)
      (level == 4 ? at_4 : at_3) += scan_at(level, sections[i], pids[i]);
  }
  for (const char* text : traces) {
    EXPECT_THAT(at_4, HasSubstr(text));
    EXPECT_THAT(at_3, Not(HasSubstr(text)));
  }
  EXPECT_THAT(at_3, HasSubstr("NIT scanned.\n"));
  EXPECT_THAT(at_3, HasSubstr("SDT scanned.\n"));
}

TEST_F(Dispatch, the_pointer_and_the_state_do_not_matter_to_a_pat) {
  for (SCAN_STATE state : {SCAN_NONE, SCAN_PMT, SCAN_PAT, SCAN_EIT}) {
    filter.remove_all();
    scan(pat({{7, 0x100}}), 0, state);
    EXPECT_THAT(filters(), UnorderedElementsAre(NIT, pmt_on(0x100), SDT));
  }
}

template <typename Section>
std::unique_ptr<Section> section_of(const Bytes& bytes) {
  return std::make_unique<Section>(bytes.data());
}

TEST_F(Dispatch, the_parsers_take_sections_from_others_than_the_dispatch_too) {
  open(TDT);
  open(TOT);
  recorded_clock.take_settings();
  const auto pat_section = section_of<ProgramAssociationSection>(pat({{1, 0x100}}));
  EXPECT_EQ(parser.parse_section_pat(pat_section.get(), FREQ, SCAN_PAT), 0);
  const auto pmt_section = section_of<ProgramMapSection>(pmt(1, 0x101, {{2, 0x101, {}}}));
  EXPECT_EQ(parser.parse_section_pmt(pmt_section.get(), 0x100, FREQ, SCAN_PAT), 0);
  const auto cat_section = section_of<ConditionalAccessSection>(support::long_section(table::CAT, 0xFFFF, 0, {}));
  EXPECT_EQ(parser.parse_section_cat(cat_section.get(), pid::CAT, FREQ), 0);
  const auto nit_section = section_of<NetworkInformationSection>(nit(0x3001, {}, {}));
  EXPECT_EQ(parser.parse_section_nit(nit_section.get(), pid::NIT, FREQ), 0);
  const auto sdt_section = section_of<ServiceDescriptionSection>(sdt({{1, service_descriptor(1, "P", "One")}}));
  EXPECT_EQ(parser.parse_section_sdt(sdt_section.get(), FREQ), 0);
  const auto tdt_section = section_of<TimeAndDateSection>(tdt(55197, 0x120000));
  EXPECT_EQ(parser.parse_section_tdt(tdt_section.get(), FREQ), 0);
  const auto tot_section = section_of<TimeOffsetSection>(tot(55197, 0x120000, {}));
  EXPECT_EQ(parser.parse_section_tot(tot_section.get(), FREQ), 0);
  EXPECT_EQ(recorded_clock.take_settings().size(), 2u);
  EXPECT_THAT(filters(), IsEmpty());
  EXPECT_EQ(text("SELECT pmt_pid || ' ' || pcr_pid || ' ' || network_id || ' ' || serv_name FROM kanalid_scan_0"),
            "256 257 12289 One");
  EXPECT_EQ(text("SELECT es_pid FROM estreams_scan_0"), "257");
}

// --- Construction ----------------------------------------------------------------------------------------------------

TEST_F(Dispatch, construction_says_whether_the_clock_is_right) {
  const time_t before = time(nullptr);
  const std::string all = at_level(4, [&] {
    const Siparse another(&filter, 1, CONN, TYPE, &db);
    EXPECT_TRUE(another.systime_valid());
    EXPECT_EQ(another.get_eit_stored(), 0);
  });
  const time_t after = time(nullptr);
  std::vector<std::string> possible;
  for (time_t t = before; t <= after; ++t)
    possible.push_back("System time valid\nEpoch time is " + std::to_string(t) + "\n");
  EXPECT_THAT(possible, Contains(all));
  EXPECT_EQ(at_level(3, [&] { const Siparse another(&filter, 1, CONN, TYPE, &db); }), "");
}

TEST_F(Dispatch, add_dvbnr_appends_the_adapter_to_a_name) {
  EXPECT_STREQ(parser.add_dvbnr("kanalid_scan"), "kanalid_scan_0");
  Siparse third(&filter, 2, CONN, TYPE, &db);
  EXPECT_STREQ(third.add_dvbnr("x"), "x_2");
  const std::string longest(200, 'n');
  EXPECT_EQ(third.add_dvbnr(longest.c_str()), std::string(63, 'n'));
}

}  // namespace
