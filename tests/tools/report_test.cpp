// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <linux/dvb/frontend.h>

#include <cerrno>

#include "support/test.h"
#include "tools/scan/scan_json.h"
#include "tools/scan/scan_report.h"

namespace {

using testing::HasSubstr;

std::string report(const std::vector<Multiplex_line>& lines, const std::vector<Service>& before,
                   const std::vector<Service>& after, bool wide = false) {
  char* text = nullptr;
  size_t size = 0;
  FILE* file = open_memstream(&text, &size);
  print_report(file, lines, before, after, wide);
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
  EXPECT_EQ(multiplex_text(line(1, 0, Outcome::NO_STREAM, 6, 0)), "locked, no stream, 6.0 s");
  EXPECT_EQ(multiplex_text(line(1, 0, Outcome::NO_DEMUX, 0.24, 0)), "the demultiplexer cannot be used, 0.2 s");
  EXPECT_EQ(multiplex_text(line(1, 0, Outcome::NO_LOCK, 0.16, 0)), "no lock, 0.2 s");
  EXPECT_EQ(multiplex_text(line(1, -1, Outcome::OUT_OF_RANGE, 0, 0)), "out of the frontend's range");
  EXPECT_EQ(multiplex_text(line(1, -1, Outcome::NOT_SCANNED, 0, 0)), "not scanned: interrupted");
  EXPECT_EQ(multiplex_text(line(1, -1, Outcome::TIME_UP, 0, 0)), "not scanned: the time was up");
  EXPECT_EQ(multiplex_text(line(1, -1, Outcome::DEVICE_GONE, 0, 0)), "not scanned: the adapter is gone");
}

TEST(Multiplex_text, names_the_tables_that_did_not_come) {
  const struct {
    std::vector<Missing_table> missing;
    const char* text;
  } cases[] = {
      {{{0, 0}}, "locked; the PAT did not come"},
      {{{256, 2, 101}}, "locked; the PMT of 1 service did not come"},
      {{{256, 2, 101}, {256, 2, 102}}, "locked; the PMTs of 2 services did not come"},
      {{{17, 0x42}, {300, 2}, {301, 2}}, "locked; the SDT and the PMTs of 2 services did not come"},
      {{{256, 2, 101}, {16, 0x40}, {257, 2, 102}, {17, 0x42}},
       "locked; the PMTs of 2 services, the NIT and the SDT did not come"},
      {{{17, 0x4A}}, "locked; the table 74 did not come"},
  };
  for (const auto& c : cases) {
    Multiplex_line timed_out = line(1, 0, Outcome::TIMED_OUT, 39.4, 10);
    timed_out.result.missing = c.missing;
    EXPECT_EQ(multiplex_text(timed_out), std::string(c.text) + ", 10 services, 39.4 s");
  }
}

TEST(Multiplex_text, says_why_there_is_no_lock_or_where_it_is) {
  const struct {
    Tuning_result tuning;
    const char* text;
  } cases[] = {
      {{.outcome = TUNING_NO_SIGNAL}, "no signal"},
      {{.outcome = TUNING_NO_LOCK}, "signal, no lock"},
      {{.outcome = TUNING_NO_STREAM}, "locked, no stream"},
      {{.outcome = TUNING_REFUSED, .error = EINVAL}, "refused by the device: Invalid argument"},
      {{.outcome = TUNING_CANCELLED}, "interrupted"},
      {{.outcome = TUNING_NO_DEVICE, .error = EBUSY}, "busy: another program has the frontend"},
      {{.outcome = TUNING_NO_DEVICE, .error = EACCES}, "no right to open (group video)"},
      {{.outcome = TUNING_NO_DEVICE, .error = ENODEV}, "the adapter is gone"},
      {{.outcome = TUNING_NO_DEVICE, .error = EIO}, "the frontend cannot be used: Input/output error"},
      {{.outcome = TUNING_NO_FIRMWARE}, "firmware missing (see dmesg)"},
  };
  for (const auto& c : cases) {
    Multiplex_line one = line(578000000, 0, Outcome::NO_LOCK, 2, 0);
    one.result.tuning = c.tuning;
    EXPECT_EQ(multiplex_text(one), std::string(c.text) + ", 2.0 s");
  }
  Multiplex_line beside = line(578000000, 0, Outcome::LOCKED, 2, 3);
  beside.result.tuning = {.outcome = TUNING_LOCKED, .freq = 578000000, .offset_hz = -166000};
  EXPECT_EQ(multiplex_text(beside), "locked, reports 577.834 MHz, 3 services, 2.0 s");
}

TEST(Multiplex_text, counts_what_was_lost) {
  const struct {
    std::vector<Lost_sections> lost;
    const char* text;
  } cases[] = {
      {{}, ""},
      {{{18, 3, 0}}, "; lost 3 sections or more (buffer overflow)"},
      {{{18, 1, 0}, {17, 0, 1}}, "; lost 1 section or more (buffer overflow), 1 section came broken"},
      {{{0, 0, 2}, {18, 0, 1}}, "; 3 sections came broken"},
  };
  for (const auto& c : cases) {
    Multiplex_line one = line(1, 0, Outcome::LOCKED, 3.24, 8);
    one.result.lost = c.lost;
    EXPECT_EQ(multiplex_text(one), std::string("locked, 8 services, 3.2 s") + c.text);
  }
}

TEST(Report, shows_system_and_readings_with_their_units) {
  const auto measured = [](int freq, Tuning_result tuning, Signal_value strength, Signal_value snr) {
    Multiplex_line one = line(freq, 0, Outcome::LOCKED, 2, 1);
    one.result.tuning = tuning;
    one.result.signal.strength = strength;
    one.result.signal.snr = snr;
    return one;
  };
  Multiplex_line lossy = measured(506000000, {.outcome = TUNING_LOCKED, .system = SYS_DVBT}, {SCALE_DECIBEL, -52.34},
                                  {SCALE_DECIBEL, 24.06});
  lossy.result.lost = {{18, 2, 0}};
  // Readings of what was not scanned would be those of something else.
  Multiplex_line skipped = measured(530000000, {.outcome = TUNING_LOCKED, .system = SYS_DVBT}, {SCALE_BOX, 99}, {});
  skipped.result.outcome = Outcome::NOT_SCANNED;
  EXPECT_EQ(
      report({lossy, measured(514000000, {.outcome = TUNING_LOCKED, .system = SYS_DVBT2}, {SCALE_RELATIVE, 63.4}, {}),
              measured(514000002, {.outcome = TUNING_LOCKED, .system = SYS_DVBT2, .pipe = 2}, {SCALE_DRIVER, 51400},
                       {SCALE_RELATIVE, 70}),
              skipped},
             {}, {}),
      "  MULTIPLEX  ADAPTER  SYSTEM               STRENGTH      SNR  SERVICES   TIME  RESULT\n"
      "506.000 MHz        0  DVB-T               -52.3 dBm  24.1 dB         1  2.0 s  locked; lost 2 sections or more "
      "(buffer overflow)\n"
      "514.000 MHz        0  DVB-T2                   63 %        -         1  2.0 s  locked\n"
      "514.000 MHz        0  DVB-T2 pipe 2  51400 (driver)     70 %         1  2.0 s  locked\n"
      "530.000 MHz        0  -                           -        -         -      -  not scanned: interrupted\n"
      "\n"
      "3 of 4 frequencies with a multiplex, 3 services: 0 new, 0 back, 0 lost.\n");
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
            "  MULTIPLEX  ADAPTER  SYSTEM  STRENGTH  SNR  SERVICES   TIME  RESULT\n"
            "506.000 MHz        0  -              -    -         4  2.0 s  locked\n"
            "514.000 MHz        1  -              -    -         -  0.2 s  no lock\n"
            "900.000 MHz        -  -              -    -         -      -  out of the frontend's range\n"
            "\n"
            "CHANGE  LCN  NAME     TYPE  PROVIDER    FREQUENCY\n"
            "new       9  Newer    TV    Meedia    506.000 MHz\n"
            "new       -  Fresh    TV    Meedia    506.000 MHz\n"
            "back      2  Returns  TV    Meedia    506.000 MHz\n"
            "lost      3  Goes     TV    Meedia    506.000 MHz\n"
            "\n"
            "1 of 3 frequencies with a multiplex, 4 services: 2 new, 1 back, 1 lost.\n");
}

TEST(Report, sums_up_the_frequencies_that_have_nothing) {
  std::vector<Multiplex_line> lines{line(474000000, 0, Outcome::LOCKED, 2.04, 1)};
  for (const int mhz : {482, 490, 498, 506}) {
    lines.push_back(line(mhz * 1000000, 0, Outcome::NO_LOCK, 2.5, 0));
    lines.back().result.tuning.outcome = TUNING_NO_SIGNAL;
  }
  // Each of these says more than that there is nothing.
  for (const int mhz : {514, 522, 530, 538}) {
    lines.push_back(line(mhz * 1000000, 0, Outcome::NO_LOCK, 2, 0));
    lines.back().result.tuning.outcome = TUNING_NO_LOCK;
  }
  lines[2].note = "had 3 services";
  const std::string rest =
      "514.000 MHz        0  -              -    -         -  2.0 s  signal, no lock\n"
      "522.000 MHz        0  -              -    -         -  2.0 s  signal, no lock\n"
      "530.000 MHz        0  -              -    -         -  2.0 s  signal, no lock\n"
      "538.000 MHz        0  -              -    -         -  2.0 s  signal, no lock\n";
  const std::string heading =
      "  MULTIPLEX  ADAPTER  SYSTEM  STRENGTH  SNR  SERVICES   TIME  RESULT\n"
      "474.000 MHz        0  -              -    -         1  2.0 s  locked\n";
  const std::string known = "490.000 MHz        0  -              -    -         -  2.5 s  no signal; had 3 services\n";
  EXPECT_EQ(report(lines, {}, {}),
            heading + "482.000 MHz        0  -              -    -         -  2.5 s  no signal\n" + known +
                "498.000 MHz        0  -              -    -         -  2.5 s  no signal\n"
                "506.000 MHz        0  -              -    -         -  2.5 s  no signal\n" +
                rest + "\n1 of 9 frequencies with a multiplex, 1 service: 0 new, 0 back, 0 lost.\n")
      << "three are no crowd";
  lines.push_back(line(546000000, 0, Outcome::NO_LOCK, 2.6, 0));
  lines.back().result.tuning.outcome = TUNING_NO_SIGNAL;
  const std::string sum = "\n1 of 10 frequencies with a multiplex, 1 service: 0 new, 0 back, 0 lost.\n";
  EXPECT_EQ(report(lines, {}, {}),
            heading + known + rest + "no signal: 4 frequencies from 482.000 MHz to 546.000 MHz, 10 s\n" + sum);
  EXPECT_THAT(report(lines, {}, {}, true), HasSubstr("546.000 MHz        0  -              -    -         -  2.6 s"));
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
  EXPECT_EQ(
      report(lines, {}, {service(1, 1, "Here", 1), service(2, 1, "Here", 0)}),
      "  MULTIPLEX  ADAPTER  SYSTEM  STRENGTH  SNR  SERVICES   TIME  RESULT\n"
      "506.000 MHz        0  -              -    -         1  2.0 s  locked\n"
      "514.000 MHz        0  -              -    -         1  2.0 s  locked; announced by 506.000 MHz; same multiplex as 506.000 MHz, "
      "weaker\n"
      "522.000 MHz        0  -              -    -         -  0.2 s  no lock; had 3 services\n"
      "\n"
      "CHANGE  LCN  NAME  TYPE  PROVIDER    FREQUENCY\n"
      "new       1  Here  TV    Meedia    506.000 MHz\n"
      "\n"
      "2 of 3 frequencies with a multiplex, 1 service: 1 new, 0 back, 0 lost.\n");
}

TEST(Report, without_changes_has_no_table_of_them) {
  const std::vector<Service> same{service(1, 1, "Stays", 1)};
  EXPECT_EQ(report({line(506000000, 0, Outcome::LOCKED, 2.04, 1)}, same, same),
            "  MULTIPLEX  ADAPTER  SYSTEM  STRENGTH  SNR  SERVICES   TIME  RESULT\n"
            "506.000 MHz        0  -              -    -         1  2.0 s  locked\n"
            "\n"
            "1 of 1 frequency with a multiplex, 1 service: 0 new, 0 back, 0 lost.\n");
}

TEST(Report, tells_what_known_services_are_now) {
  const auto changed = [](Service service, auto change) {
    change(service);
    return service;
  };
  const Service one = service(1, 1, "One", 1);
  const Service two = service(2, 2, "Two", 1);
  const Service three = service(3, 3, "Three", 0);
  EXPECT_EQ(report({}, {one, two, three},
                   {changed(one, [](Service& s) { s.name = "Uno", s.lcn = 11; }),
                    changed(two, [](Service& s) { s.freq = 514000000, s.scrambled = true, s.visible = false; }),
                    changed(three, [](Service& s) { s.scan_state = 1, s.name = "Tres"; })}),
            "\n"
            "CHANGE                            LCN  NAME           TYPE  PROVIDER                   FREQUENCY\n"
            "back, renamed                       3  Three -> Tres  TV    Meedia                   506.000 MHz\n"
            "moved, now scrambled, hidden        2  Two            TV    Meedia    506.000 MHz -> 514.000 MHz\n"
            "renamed, renumbered           1 -> 11  One -> Uno     TV    Meedia                   506.000 MHz\n"
            "0 of 0 frequencies with a multiplex, 0 services: 0 new, 1 back, 0 lost, 2 changed.\n");
}

TEST(Report_json, has_multiplexes_changes_with_old_and_new_values_and_channels_with_streams) {
  Multiplex_line locked = line(506000000, 0, Outcome::TIMED_OUT, 2.5, 2);
  locked.result.tuning.outcome = TUNING_LOCKED;
  locked.result.tuning.system = SYS_DVBT2;
  locked.result.missing = {{256, 2, 101}};
  const Multiplex_line empty = line(498000000, -1, Outcome::OUT_OF_RANGE, 0, 0);
  Service before = service(1, 1, "One", 1);
  Service after = service(1, 800, "Uno", 1);
  before.freq = 514000000;
  after.scrambled = true;
  Stream video;
  video.pid = 300;
  video.stream_type = 2;
  video.kind = "video";
  video.codec = "MPEG-2";
  after.streams.push_back(video);
  Service elsewhere = service(7, 7, "Elsewhere", 1);
  elsewhere.freq = 522000000;
  Service fresh = service(2, NO_LCN, "Two", 1);
  const nlohmann::ordered_json json = scan_json({locked, empty}, {before, elsewhere}, {after, fresh, elsewhere});
  EXPECT_EQ(json["multiplexes"].dump(),
            R"([{"frequency":498000000,"adapter":null,"found":false,"complete":false,)"
            R"("result":"out of the frontend's range","system":null,"seconds":0.0,"services":null,"note":null,)"
            R"("announced_by":null,"missing":[]},)"
            R"({"frequency":506000000,"adapter":0,"found":true,"complete":false,)"
            R"("result":"locked; the PMT of 1 service did not come","system":"DVB-T2","seconds":2.5,"services":2,)"
            R"("note":null,"announced_by":null,"missing":[{"pid":256,"table_id":2,"service_id":101}]}])");
  EXPECT_EQ(json["changes"].dump(),
            R"([{"change":"new","channel":2,"service_id":0,"kinds":[],"old":null,)"
            R"("new":{"name":"Two","lcn":null,"frequency":506000000,"scrambled":false,"visible":true}},)"
            R"({"change":"changed","channel":1,"service_id":0,)"
            R"("kinds":["moved","renamed","renumbered","now scrambled"],)"
            R"("old":{"name":"One","lcn":1,"frequency":514000000,"scrambled":false,"visible":true},)"
            R"("new":{"name":"Uno","lcn":800,"frequency":506000000,"scrambled":true,"visible":true}}])");
  ASSERT_EQ(json["channels"].size(), 2U) << "of multiplexes that were scanned";
  EXPECT_EQ(json["channels"][0]["name"], "Uno");
  EXPECT_EQ(json["channels"][0]["streams"].dump(),
            R"([{"pid":300,"kind":"video","codec":"MPEG-2","stream_type":2,"languages":[]}])");
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
