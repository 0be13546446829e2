// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "support/test.h"
#include "tools/scan/scan_report.h"

namespace {

using testing::HasSubstr;

std::string report(const std::vector<Multiplex_line>& lines, const std::vector<Service>& before,
                   const std::vector<Service>& after) {
  char* text = nullptr;
  size_t size = 0;
  FILE* file = open_memstream(&text, &size);
  print_report(file, lines, before, after);
  (void)fclose(file);
  std::string out(text, size);
  free(text);
  return out;
}

Service service(int channel, int lcn, const char* name, int scan_state, int row_status = 0) {
  Service out;
  std::tie(out.channel, out.lcn, out.scan_state, out.row_status) = std::tie(channel, lcn, scan_state, row_status);
  out.name = name;
  out.type = 1;
  out.provider = "Meedia";
  out.freq = 506000000;
  return out;
}

Multiplex_line line(int freq, int adapter, Outcome outcome, double seconds, int services) {
  Multiplex_line out;
  Multiplex_result& result = out.result;
  std::tie(result.freq, result.adapter, result.outcome, result.seconds) = std::tie(freq, adapter, outcome, seconds);
  out.services = services;
  return out;
}

TEST(Multiplex_text, says_what_happened) {
  EXPECT_EQ(multiplex_text(line(1, 0, Outcome::LOCKED, 3.24, 8)), "locked, 8 services, 3.2 s");
  EXPECT_EQ(multiplex_text(line(1, 0, Outcome::LOCKED, 3.24, 1)), "locked, 1 service, 3.2 s");
  EXPECT_EQ(multiplex_text(line(1, 0, Outcome::TIMED_OUT, 39.4, 0)),
            "timed out: not all tables came, 0 services, 39.4 s");
  EXPECT_EQ(multiplex_text(line(1, 0, Outcome::NO_STREAM, 6, 0)), "no MPEG stream, 6.0 s");
  EXPECT_EQ(multiplex_text(line(1, 0, Outcome::NO_DEMUX, 0.24, 0)), "the demultiplexer cannot be used, 0.2 s");
  EXPECT_EQ(multiplex_text(line(1, 0, Outcome::NO_LOCK, 0.16, 0)), "no lock, 0.2 s");
  EXPECT_EQ(multiplex_text(line(1, -1, Outcome::OUT_OF_RANGE, 0, 0)), "out of the frontend's range");
  EXPECT_EQ(multiplex_text(line(1, -1, Outcome::NOT_SCANNED, 0, 0)), "not scanned: interrupted");
  EXPECT_EQ(multiplex_text(line(1, -1, Outcome::TIME_UP, 0, 0)), "not scanned: the time was up");
}

TEST(Report, lists_multiplexes_by_frequency_and_changes_by_kind) {
  const std::vector<Service> before{service(1, 1, "Stays", 1), service(2, 2, "Returns", 0), service(3, 3, "Goes", 1),
                                    service(4, 4, "Stays away", 0)};
  const std::vector<Service> after{service(1, 1, "Stays", 1),     service(2, 2, "Returns", 1),
                                   service(3, 3, "Goes", 0),      service(4, 4, "Stays away", 0),
                                   service(5, 65535, "Fresh", 1), service(6, 9, "Newer", 1)};
  EXPECT_EQ(report({line(514000000, 1, Outcome::NO_LOCK, 0.16, 0), line(506000000, 0, Outcome::LOCKED, 2.04, 4),
                    line(900000000, -1, Outcome::OUT_OF_RANGE, 0, 0)},
                   before, after),
            "  MULTIPLEX  ADAPTER  SERVICES   TIME  RESULT\n"
            "506.000 MHz        0         4  2.0 s  locked\n"
            "514.000 MHz        1         -  0.2 s  no lock\n"
            "900.000 MHz        -         -      -  out of the frontend's range\n"
            "\n"
            "CHANGE  LCN  NAME     TYPE  PROVIDER    FREQUENCY\n"
            "new       9  Newer    TV    Meedia    506.000 MHz\n"
            "new       -  Fresh    TV    Meedia    506.000 MHz\n"
            "back      2  Returns  TV    Meedia    506.000 MHz\n"
            "lost      3  Goes     TV    Meedia    506.000 MHz\n"
            "\n"
            "1 of 3 frequencies with a multiplex, 4 services: 2 new, 1 back, 1 lost.\n");
}

TEST(Report, says_where_a_multiplex_came_from_and_which_one_it_doubles) {
  std::vector<Multiplex_line> lines{line(506000000, 0, Outcome::LOCKED, 2.04, 1),
                                    line(514000000, 0, Outcome::LOCKED, 2.04, 1),
                                    line(522000000, 0, Outcome::NO_LOCK, 0.16, 0)};
  lines[1].result.announced_by = 506000000;
  lines[1].note = "same multiplex as 506.000 MHz, weaker";
  lines[1].doubles = 1;
  lines[2].note = "had 3 services";
  // The double is in the list as not found, but nobody has lost it.
  EXPECT_EQ(report(lines, {}, {service(1, 1, "Here", 1), service(2, 1, "Here", 0)}),
            "  MULTIPLEX  ADAPTER  SERVICES   TIME  RESULT\n"
            "506.000 MHz        0         1  2.0 s  locked\n"
            "514.000 MHz        0         1  2.0 s  locked; announced by 506.000 MHz; same multiplex as 506.000 MHz, "
            "weaker\n"
            "522.000 MHz        0         -  0.2 s  no lock; had 3 services\n"
            "\n"
            "CHANGE  LCN  NAME  TYPE  PROVIDER    FREQUENCY\n"
            "new       1  Here  TV    Meedia    506.000 MHz\n"
            "\n"
            "2 of 3 frequencies with a multiplex, 1 service: 1 new, 0 back, 0 lost.\n");
}

TEST(Report, without_changes_has_no_table_of_them) {
  const std::vector<Service> same{service(1, 1, "Stays", 1)};
  EXPECT_EQ(report({line(506000000, 0, Outcome::LOCKED, 2.04, 1)}, same, same),
            "  MULTIPLEX  ADAPTER  SERVICES   TIME  RESULT\n"
            "506.000 MHz        0         1  2.0 s  locked\n"
            "\n"
            "1 of 1 frequency with a multiplex, 1 service: 0 new, 0 back, 0 lost.\n");
}

// Stored without streams and as not found, such a service is neither lost nor back when it is completed later.
TEST(Report, services_without_streams_are_new_once) {
  const Service bare = service(1, 1, "Bare", 0, 2);
  EXPECT_THAT(report({}, {}, {bare}), HasSubstr("1 new, 0 back, 0 lost"));
  EXPECT_THAT(report({}, {bare}, {service(1, 1, "Bare", 1, 0)}), HasSubstr("0 new, 0 back, 0 lost"));
  EXPECT_THAT(report({}, {bare}, {service(1, 1, "Bare", 0, 0)}), HasSubstr("0 new, 0 back, 1 lost"));
}

// A multiplex that timed out keeps its services; that they are known to be there is no change.
TEST(Report, timed_out_services_are_not_lost) {
  EXPECT_THAT(report({}, {service(1, 1, "Waits", 1)}, {service(1, 1, "Waits", 2)}), HasSubstr("0 new, 0 back, 0 lost"));
}

}  // namespace
