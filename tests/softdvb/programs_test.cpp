// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "support/softdvb.h"
#include "support/support.h"
#include "support/test.h"
#include "support/text.h"

// Programs of Debian that know nothing of these adapters, unchanged.
using support::run_softdvb;
using support::Softdvb_run;
using support::Texts;
using testing::HasSubstr;

static bool installed(const std::string& program) {
  return support::run_program({"which", program}).exit_code == 0;
}

// Names, sorted: what stands before the colon in the channel list of `scan`, and in brackets in the file of
// `dvbv5-scan`.
static Texts names_in(const std::string& text, const char* pattern) {
  Texts names;
  const std::regex expression(pattern, std::regex::multiline);
  for (std::sregex_iterator at(text.begin(), text.end(), expression), end; at != end; ++at)
    names.push_back(at->str(1));
  std::sort(names.begin(), names.end());
  return names;
}
static constexpr const char* OF_SCAN = "^([^:\n]*):.*$";
static constexpr const char* OF_V5 = "^\\[(.*)\\]$";

// What the two programs want to know of the first frequency.
static void write_regions(const support::Temp_dir& folder, const std::string& freq) {
  support::write_file(folder.file("scan"), "T " + freq + " 8MHz 2/3 NONE QAM64 8k 1/4 NONE\n");
  support::write_file(folder.file("v5"),
                      "[R]\n DELIVERY_SYSTEM = DVBT\n FREQUENCY = " + freq + "\n BANDWIDTH_HZ = 8000000\n");
}

class Recorded : public testing::Test {
 protected:
  std::string stream = support::capture_file("it_rai_2022.ts");
  Texts names{"Rai 1",      "Rai 2",      "Rai 3 TGR Emilia Romagna", "Rai News 24", "Rai Radio1",
              "Rai Radio2", "Rai Radio3", "Test HEVC main10"};
  support::Temp_dir folder;

  void SetUp() override { write_regions(folder, "506000000"); }
};

#define NEEDS(program)     \
  if (!installed(program)) \
  GTEST_SKIP() << program " is not installed"

TEST_F(Recorded, scan_lists_the_services) {
  NEEDS("scan");
  if (stream.empty())
    GTEST_SKIP() << "no recorded stream";
  const Softdvb_run run =
      run_softdvb({"--time", "x4", "--mux", "506000000=" + stream}, {"scan", "-q", folder.file("scan")});
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(names_in(run.out, OF_SCAN), names);
  EXPECT_THAT(run.out, HasSubstr("Rai 1:506000000:INVERSION_AUTO:BANDWIDTH_8_MHZ:FEC_2_3:FEC_AUTO:QAM_64:"
                                 "TRANSMISSION_MODE_8K:GUARD_INTERVAL_1_4:HIERARCHY_NONE:512:650:3401\n"));
}

TEST_F(Recorded, dvbv5_scan_finds_the_adapter_and_lists_the_services) {
  NEEDS("dvbv5-scan");
  if (stream.empty())
    GTEST_SKIP() << "no recorded stream";
  const Softdvb_run run = run_softdvb({"--mux", "506000000=" + stream},
                                      {"dvbv5-scan", "-N", "-o", folder.file("found"), folder.file("v5")});
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(names_in(support::read_file(folder.file("found")), OF_V5), names);
}

TEST_F(Recorded, dvbdate_tells_the_time_of_the_stream) {
  NEEDS("dvbdate");
  const std::string mediaset = support::capture_file("it_mediaset_2018_psi.ts");
  if (mediaset.empty())
    GTEST_SKIP() << "no recorded stream";
  const Softdvb_run run =
      run_softdvb({"--tuned", "506000000", "--mux", "506000000=" + mediaset}, {"env", "TZ=UTC", "LC_ALL=C", "dvbdate"});
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_THAT(run.out + run.err, HasSubstr("Tue Feb 13 12:35:0"));
}

// The sample network, as this build makes it.

class Sample_network : public testing::Test {
 protected:
  support::Temp_dir folder;
  std::vector<std::string> options{"--time", "x4"};

  void SetUp() override {
    for (const char* mhz : {"474", "498", "522"}) {
      const std::string file = folder.file(std::string(mhz) + ".ts");
      const Softdvb_run made =
          support::run_program({SOFTDVB_MUX, std::string(SAMPLES) + "/kuldnokk-" + mhz + ".json", "-o", file});
      ASSERT_EQ(made.exit_code, 0) << made.err;
      options.insert(options.end(), {"--mux", std::string(mhz) + "000000=" + file});
    }
    write_regions(folder, "474000000");
  }
};

TEST_F(Sample_network, scan_finds_all_three_multiplexes) {
  NEEDS("scan");
  const Softdvb_run run = run_softdvb(options, {"scan", "-q", folder.file("scan")});
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_GE(names_in(run.out, OF_SCAN).size(), 20u) << run.out;
  for (const char* freq : {":474000000:", ":498000000:", ":522000000:"})
    EXPECT_THAT(run.out, HasSubstr(freq));
}

TEST_F(Sample_network, dvbv5_scan_finds_all_three_multiplexes) {
  NEEDS("dvbv5-scan");
  const Softdvb_run run = run_softdvb(options, {"dvbv5-scan", "-o", folder.file("found"), folder.file("v5")});
  EXPECT_EQ(run.exit_code, 0) << run.err;
  const std::string found = support::read_file(folder.file("found"));
  EXPECT_GE(names_in(found, OF_V5).size(), 20u);
  for (const char* freq : {"474000000", "498000000", "522000000"})
    EXPECT_THAT(found, HasSubstr(freq));
}

TEST_F(Sample_network, dvbdate_reads_the_time) {
  NEEDS("dvbdate");
  options.insert(options.end(), {"--tuned", "474000000"});
  const Softdvb_run run = run_softdvb(options, {"dvbdate"});
  EXPECT_EQ(run.exit_code, 0) << run.out << run.err;
}

TEST_F(Sample_network, femon_shows_lock_and_readings) {
  NEEDS("femon");
  options.insert(options.end(), {"--tuned", "474000000", "--signal", "*:strength=0x1234", "--signal", "*:ber=7"});
  const Softdvb_run run = run_softdvb(options, {"femon", "-c", "2"});
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(run.out,
            "FE: softdvb DVB-T 0 (DVBT)\n"
            "status SCVYL | signal 1234 | snr fafa | ber 00000007 | unc 00000000 | FE_HAS_LOCK\n"
            "status SCVYL | signal 1234 | snr fafa | ber 00000007 | unc 00000000 | FE_HAS_LOCK\n");
}

TEST_F(Sample_network, femon_shows_a_lost_lock) {
  NEEDS("femon");
  options.insert(options.end(), {"--tuned", "474000000", "--signal", "474000000:status=0"});
  const Softdvb_run run = run_softdvb(options, {"femon", "-c", "1"});
  EXPECT_THAT(run.out, testing::StartsWith("FE: softdvb DVB-T 0 (DVBT)\nstatus       | "));
  EXPECT_THAT(run.out, testing::Not(HasSubstr("FE_HAS_LOCK")));
}

// What dvr0 gives.

// The PIDs of whole packets, in order.
static std::vector<int> pids_of(const std::string& packets) {
  std::set<int> pids;
  EXPECT_EQ(packets.size() % 188, 0u);
  for (size_t at = 0; at + 188 <= packets.size(); at += 188) {
    EXPECT_EQ(packets[at], 0x47);
    pids.insert((packets[at + 1] & 0x1F) << 8 | static_cast<unsigned char>(packets[at + 2]));
  }
  return {pids.begin(), pids.end()};
}

TEST_F(Sample_network, what_a_zapping_program_filters_is_read_by_another) {
  NEEDS("dvbv5-zap");
  NEEDS("tzap");
  support::write_file(folder.file("v5"),
                      "[Third]\n SERVICE_ID = 3\n VIDEO_PID = 289\n AUDIO_PID = 290\n FREQUENCY = 474000000\n"
                      " BANDWIDTH_HZ = 8000000\n DELIVERY_SYSTEM = DVBT\n");
  support::write_file(folder.file("zap"),
                      "Third:474000000:INVERSION_AUTO:BANDWIDTH_8_MHZ:FEC_AUTO:FEC_AUTO:QAM_AUTO:"
                      "TRANSMISSION_MODE_AUTO:GUARD_INTERVAL_AUTO:HIERARCHY_AUTO:289:290:3\n");
  options[1] = "x20";
  // The second reader comes late: what was sent before, more than the device holds, is not for it.
  const std::pair<const char*, const char*> runs[] = {{"dvbv5-zap -c v5 -r Third", "1"},
                                                      {"tzap -c zap -r Third", "60"}};
  for (const auto& [zap, wait] : runs) {
    const Softdvb_run run = run_softdvb(options, {"sh", "-c",
                                                  "cd " + folder.path() + "; " + zap + " >/dev/null 2>&1 & sleep " +
                                                      wait + "; head -c 37600 /dev/dvb/adapter0/dvr0; kill $!"});
    EXPECT_EQ(run.out.size(), 37600u) << zap << run.err;
    EXPECT_EQ(pids_of(run.out), (std::vector<int>{289, 290})) << zap;
  }
}

TEST_F(Sample_network, dvbv5_zap_records_the_whole_multiplex) {
  NEEDS("dvbv5-zap");
  support::write_file(folder.file("v5"),
                      "[Third]\n SERVICE_ID = 3\n VIDEO_PID = 289\n AUDIO_PID = 290\n FREQUENCY = 474000000\n"
                      " BANDWIDTH_HZ = 8000000\n DELIVERY_SYSTEM = DVBT\n");
  const std::string file = folder.file("all.ts");
  const Softdvb_run run =
      run_softdvb(options, {"dvbv5-zap", "-c", folder.file("v5"), "-P", "-t", "4", "-o", file, "Third"});
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_THAT(pids_of(support::read_file(file)), testing::IsSupersetOf({0, 16, 17, 18, 20, 256, 289, 369, 8191}));
}

// Programs that look for adapters through libudev.

class Discovery : public testing::Test {
 protected:
  support::Temp_dir folder;

  void SetUp() override { NEEDS("dvb-fe-tool"); }

  static std::string first_line(const std::string& text) { return text.substr(0, text.find('\n')); }
};

TEST_F(Discovery, finds_each_adapter_under_its_own_number) {
  NEEDS("umockdev-wrapper");
  for (const char* number : {"0", "3", "15"}) {
    const Softdvb_run run =
        run_softdvb({"--adapter", "0", "--adapter", "15", "--adapter", "3"}, {"dvb-fe-tool", "-a", number});
    EXPECT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(first_line(run.out), std::string("Device softdvb DVB-T ") + number + " (/dev/dvb/adapter" + number +
                                       "/frontend0) capabilities:");
  }
}

TEST_F(Discovery, finds_no_adapter_that_was_not_asked_for) {
  NEEDS("umockdev-wrapper");
  const Softdvb_run run = run_softdvb({"--adapter", "2"}, {"dvb-fe-tool", "-a", "0"});
  EXPECT_EQ(run.out, "WARNING  device dvb0.frontend0 not found\n");
  EXPECT_EQ(run.err, "");
}

TEST_F(Discovery, works_for_what_a_shell_starts) {
  NEEDS("umockdev-wrapper");
  const Softdvb_run run = run_softdvb({}, {"sh", "-c", "env dvb-fe-tool -a 0 | head -n 1; echo $LD_PRELOAD"});
  EXPECT_EQ(first_line(run.out), "Device softdvb DVB-T 0 (/dev/dvb/adapter0/frontend0) capabilities:");
  EXPECT_EQ(run.out.find("umockdev"), std::string::npos) << "what does not look for adapters runs without it";
}

TEST_F(Discovery, says_what_is_missing_where_it_cannot_work) {
  // A file that is no library stands for one that is not installed.
  support::write_file(folder.file("libumockdev-preload.so.0"), "");
  const Softdvb_run run = run_softdvb({}, {"env", "LD_LIBRARY_PATH=" + folder.path(), "dvb-fe-tool"});
  EXPECT_EQ(first_line(run.err),
            "softdvb: dvb-fe-tool looks for adapters through libudev, which finds none here without "
            "libumockdev-preload.so.0 (umockdev)");
  EXPECT_NE(run.exit_code, 0);
}
