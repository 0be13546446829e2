// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// A host that has loaded another library with section and descriptor classes of the same names crashed at its first
// PAT, because the library used the other's. Here every symbol of the other's ends the program.
#include <dlfcn.h>

#include "si/si_support.h"
#include "support/database.h"

namespace {

using namespace si_support;
using testing::ElementsAre;

TEST(Foreign_classes, stand_before_those_of_the_library) {
  void* const constructor = dlsym(RTLD_DEFAULT, "_ZN25ProgramAssociationSectionC1EPKh");
  ASSERT_NE(constructor, nullptr);
  Dl_info info{};
  ASSERT_NE(dladdr(constructor, &info), 0);
  EXPECT_THAT(info.dli_fname, testing::HasSubstr("foreign_classes"));
}

TEST(Foreign_classes, are_not_used_by_a_scan) {
  support::Database db;
  db->create_temp_tables(0);
  Section_filter filter(0);
  Siparse parser(&filter, 0, CONN, TYPE, &db.sdbl());
  const auto scan = [&](Bytes section, int pid) {
    parser.scan_assembled_section(reinterpret_cast<char*>(section.data()), pid, FREQ, nullptr, SCAN_PAT);
  };
  scan(pat({{1, 0x100}, {2, 0x200}}), 0);
  scan(pmt(1, 0x101, {{0x03, 0x102, descriptor(0x0A, join({bytes("est"), {0}}))}}), 0x100);
  scan(sdt({{1, service_descriptor(1, "Kuldnokk", "Kuldnokk 1")}}), 0x11);
  EXPECT_THAT(db.rows("SELECT pat_prnr, pmt_pid, pcr_pid FROM kanalid_scan_0 ORDER BY pat_prnr"),
              ElementsAre("1|256|257", "2|512|0"));
  EXPECT_THAT(db.rows("SELECT es_pid, languages FROM estreams_scan_0"), ElementsAre("258|est "));
  EXPECT_THAT(db.rows("SELECT serv_name FROM kanalid_scan_0 WHERE pat_prnr = 1"), ElementsAre("Kuldnokk 1"));
}

}  // namespace
