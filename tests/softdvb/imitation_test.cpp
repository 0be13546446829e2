// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "support/softdvb.h"
#include "support/support.h"
#include "support/test.h"
#include "support/text.h"

// The devices that --device names, each on 506 MHz (DVB-T), 522 MHz (DVB-T2) and 530 MHz (DVB-T2, pipes 1 and 3).
// Steps as in softdvb/session.h; 524 is the kernel's ENOTSUPP, which has no name here.
#define COUNTING SOFTDVB_STREAMS "/counting.188.ts"

using support::Texts;

// Each of `plays` in a process of its own, one after the other. The same text comes back when all is as it says.
static Texts played(const Texts& options, const Texts& plays) {
  Texts all{"--time", "x10", "--mux", "506000000=" COUNTING, "--mux", "522000000,system=dvbt2=" COUNTING};
  for (const char* pipe : {"1", "3"})
    all.insert(all.end(), {"--mux", std::string("530000000,system=dvbt2,plp=") + pipe + "=" COUNTING});
  all.insert(all.end(), options.begin(), options.end());
  Texts command{SOFTDVB_PLAY};
  command.insert(command.end(), plays.begin(), plays.end());
  const support::Softdvb_run run = support::run_softdvb(all, command);
  EXPECT_EQ(run.err, "");
  return support::lines_of(run.out);
}

struct Imitation {
  std::string device;
  Texts plays;
  Texts options = {};
};

static void expect_imitations(std::initializer_list<Imitation> rows) {
  for (const Imitation& row : rows) {
    Texts options{"--device", row.device};
    options.insert(options.end(), row.options.begin(), row.options.end());
    // Steps that a busy machine takes too late are played again; what is wrong comes out wrong each time.
    Texts came = played(options, row.plays);
    for (int again = 0; again < 3 && came != row.plays; ++again)
      came = played(options, row.plays);
    EXPECT_EQ(came, row.plays) << row.device;
  }
}

TEST(Imitation, tells_what_it_is) {
  expect_imitations({
      {"box", {"reader: info = softdvb DVB-T 0; T 47000000-862000000, reader: systems = T"}},
      {"rtl2832", {"reader: info = Realtek RTL2832 (DVB-T); T 174000000-862000000, reader: systems = T"}},
      {"si2168", {"reader: info = Silicon Labs Si2168; T 48000000-870000000, reader: systems = T T2 C"}},
      {"mn88472", {"reader: info = Panasonic MN88472; T 174000000-862000000, reader: systems = T T2 C"}},
      {"cxd2820r", {"reader: info = Sony CXD2820R; T 174000000-862000000, reader: systems = T T2 C"}},
      {"cxd2841er",
       {"reader: info = Sony CXD2841ER DVB-T/T2/C demodulator; T 42000000-1002000000, reader: systems = T T2 C"}},
      {"dib7000p", {"reader: info = DiBcom 7000PC; T 44250000-867250000, reader: systems = T"}},
      {"af9033", {"reader: info = Afatech AF9033 (DVB-T); T 174000000-862000000, reader: systems = T"}},
      {"drxk", {"reader: info = DRXK DVB-C DVB-T; C 47000000-865000000, reader: systems = C C/C T"}},
      {"zl10353", {"reader: info = Zarlink ZL10353 DVB-T; T 174000000-862000000, frontend: systems = T"}},
      {"stv0367", {"reader: info = STV0367 DDB DVB-C/T; C 47000000-865000000, reader: systems = C T"}},
      {"unkind", {"reader: info = softdvb unkind; T 174000000-862000000, reader: systems = T T2"}},
  });
}

// Fresh, the driver of this one is asked for what it does not know yet, and with that everything fails. A writer that
// has not tuned is answered from the core's cache.
TEST(Imitation, a_driver_that_knows_nothing_before_the_lock_hides_its_systems) {
  expect_imitations({
      {"zl10353",
       {"reader: systems = EINVAL, frontend: open, reader: systems = T, systems = T, tuning = EINVAL, "
        "seek T 600000000, wait 2500, systems = EINVAL, found = EINVAL, stats = EINVAL, tuning = EINVAL, "
        "seek T 506000000, wait 1500, status = 1f, found = T 506000000, "
        "tuning = 506000000 bw=0 hp=2 lp=0 const=3 mode=1 guard=3 hier=0"}},
  });
}

static const std::string AS_LEFT = "tuning = 0 bw=0 hp=0 lp=0 const=0 mode=0 guard=0 hier=0";
static const std::string FOUND = " bw=0 hp=2 lp=0 const=3 mode=1 guard=3 hier=0";

TEST(Imitation, locks_to_terrestrial_streams_by_properties) {
  const std::string tuned = "seek T 506000000, wait 1200, status = 1f, filter 256, await, ";
  expect_imitations({
      {"box", {tuned + "tuning = 506000000" + FOUND + ", found = T 506000000"}},
      {"rtl2832", {tuned + "tuning = 506000000" + FOUND + ", found = T 506000000"}},
      {"si2168", {tuned + AS_LEFT + ", found = T 506000000"}},
      {"mn88472", {tuned + AS_LEFT + ", found = T 506000000"}},
      {"cxd2820r", {tuned + "tuning = 506000000" + FOUND + ", found = T 506000000"}},
      {"cxd2841er", {tuned + "tuning = 506001234 bw=0 hp=9 lp=9 const=6 mode=2 guard=4 hier=4, found = T 506001234"}},
      {"dib7000p", {tuned + "tuning = 506000000" + FOUND + ", found = T 506000000"}},
      {"af9033", {tuned + "tuning = 506000000" + FOUND + ", found = T 506000000"}},
      {"drxk", {tuned + AS_LEFT + ", found = T 506000000"}},
      {"zl10353", {tuned + "tuning = 506000000" + FOUND + ", found = T 506000000"}},
      {"stv0367", {tuned + "tuning = 1" + FOUND + ", found = T 1"}},
      {"unkind", {tuned + "tuning = 506166000" + FOUND + ", found = T 506166000"}},
  });
}

TEST(Imitation, locks_to_second_generation_streams_with_that_system_only) {
  const std::string refused = "seek T2 522000000 = EINVAL, status = 0, seek T 522000000, wait 3000, status = 0";
  const std::string tuned =
      "seek T 522000000, wait 1500, status = 0, seek T2 522000000, wait 1800, status = 1f, filter 256, await";
  expect_imitations({
      {"rtl2832", {refused}},
      {"si2168", {tuned + ", found = T2 522000000"}},
      {"mn88472", {tuned + ", found = T2 522000000"}},
      {"cxd2841er", {tuned + ", found = T2 522001234"}},
      {"dib7000p", {refused}},
      {"af9033", {refused}},
      {"drxk", {refused}},
      {"zl10353", {refused}},
      {"stv0367", {refused}},
      {"unkind", {tuned + ", found = T2 522166000"}},
  });
}

// One failure later this driver looks for the other system, and goes on in turn.
TEST(Imitation, a_driver_that_searches_finds_either_system_whatever_is_asked) {
  const Texts slowly{"--time", "x1"};
  expect_imitations({
      {"cxd2820r",
       {"seek T 522000000, waits 1000 status = 0, wait 500, waits 500 status = 1f, found = T2 522000000"},
       slowly},
      {"cxd2820r", {"seek T2 506000000, waits 2000 status = 0, wait 700, status = 1f, found = T 506000000"}, slowly},
      {"cxd2820r",
       {"seek T2 600000000, waits 2000 status = 0, seek T2 522000000, waits 1000 status = 0, found = T 522000000"},
       slowly},
  });
}

TEST(Imitation, has_the_readings_of_its_driver) {
  const std::string tuned = "seek T 506000000, wait 1200, status = 1f, ";
  const std::string none = "strength = 524, snr = 524, ber = 524, ucblocks = 524, ";
  const std::string counters = "unknown counter counter";
  expect_imitations({
      {"box",
       {tuned + "strength = c8c8, snr = fafa, ber = 0, ucblocks = 0, "
                "stats = relative relative counter counter counter"}},
      {"rtl2832",
       {tuned + "strength = 2ff, snr = 113, ber = 0, ucblocks = 524, stats = relative decibel none counter none"}},
      {"si2168", {none + tuned + none + "stats = decibel decibel none counter counter"}},
      {"mn88472", {none + tuned + none + "stats = relative decibel none counter counter"}},
      {"cxd2820r",
       {tuned + "strength = 7a50, snr = 113, ber = 0, ucblocks = 0, stats = relative decibel none counter none"}},
      {"cxd2841er", {none + tuned + none + "stats = decibel decibel none counter counter"}},
      {"dib7000p",
       {tuned + "strength = 8421, snr = 113, ber = 0, ucblocks = 0, stats = decibel decibel none counter counter"}},
      {"af9033",
       {tuned + "strength = 8ccc, snr = 113, ber = 0, ucblocks = 0, stats = decibel decibel none counter counter"}},
      {"drxk",
       {tuned + "strength = a000, snr = 113, ber = 524, ucblocks = 0, "
                "stats = relative decibel counter counter counter"}},
      {"zl10353", {tuned + "strength = 9a5c, snr = f0, ber = 0, ucblocks = 0, stats = none none none none none"}},
      {"stv0367", {none + tuned + none + "stats = decibel decibel none counter counter"}},
      {"unkind", {none + tuned + none + "stats = decibel decibel none counter counter"}},
      {"si2168", {"seek T 600000000, wait 500, stats = decibel unknown none unknown unknown"}},
      {"drxk",
       {"seek T 600000000, wait 500, strength = 1000, snr = 0, ber = 524, ucblocks = 0, "
        "stats = relative unknown unknown unknown unknown"}},
      {"si2168", {"frontend: open, stats = unknown unknown none unknown unknown"}},
  });
}

TEST(Imitation, shows_bits_of_its_own_before_a_lock_and_on_a_weak_signal) {
  const Texts late{"--lock-delay", "60000"};
  const Texts weak{"--weak", "506000000"};
  const auto shows = [](const std::string& bits) {
    return Texts{"seek T 506000000, wait 500, status" + (bits == "0" ? " = 0" : " = " + bits)};
  };
  expect_imitations({
      {"box", shows("3"), late},
      {"rtl2832", shows("0"), late},
      {"si2168", shows("3"), late},
      {"mn88472", shows("3"), late},
      {"dib7000p", shows("1"), late},
      {"af9033", shows("1"), late},
      {"drxk", shows("3"), late},
      {"zl10353", shows("1"), late},
      {"stv0367", shows("3"), late},
      {"unkind", shows("0"), late},
      {"box", shows("3"), weak},
      {"rtl2832", shows("7"), {"--weak", "506000000", "--look-interval", "60000"}},
      {"si2168", shows("3"), weak},
      {"mn88472", shows("3"), weak},
      {"cxd2820r", shows("f"), {"--weak", "506000000", "--time", "x1"}},
      {"cxd2841er", shows("3"), weak},
      {"dib7000p", shows("7"), weak},
      {"af9033", shows("7"), weak},
      {"drxk", shows("3"), weak},
      {"zl10353", shows("7"), weak},
      {"stv0367", shows("3"), weak},
      {"unkind", shows("7"), weak},
  });
}

// A lock that comes later than the core's patience never comes, except where the driver is called only once.
TEST(Imitation, locks_late_only_within_the_delay_of_its_driver) {
  const auto with = [](int ms) { return Texts{"--lock-delay", "506000000=" + std::to_string(ms)}; };
  const Texts locks{"seek T 506000000, wait 4700, status = 1f"};
  const std::string found = "found = T 506000000, status = ";
  expect_imitations({
      {"rtl2832", locks, with(900)},
      {"rtl2832", {"seek T 506000000, wait 4700, " + found + "0"}, with(1100)},
      {"si2168", {"seek T 506000000, wait 4700, " + found + "3"}, with(950)},
      {"drxk", {"frontend: open, wait 1000, seek T 506000000, wait 3500, status = 1f"}, with(2900)},
      {"af9033", locks, with(1900)},
      {"af9033", {"seek T 506000000, wait 4700, " + found + "1"}, with(2100)},
      {"cxd2841er", {"seek T 506000000, waits 2500 status = 3, wait 18000, status = 1f"}, with(20000)},
      {"cxd2841er", {"seek T 506000000, waits 4000 status = 1f"}, with(2000)},
      {"box", locks, with(3500)},
  });
}

TEST(Imitation, keeps_everybody_waiting_inside_the_driver) {
  expect_imitations({
      {"si2168",
       {"frontend: open, waits 3100 status = 0, seek T 506000000, waits 60 found = T 506000000, frontend: close, wait 2000, "
        "frontend: open, waits 1900 info = Silicon Labs Si2168; T 48000000-870000000"}},
      {"mn88472", {"frontend: open, waits 300 status = 0, frontend: close, wait 2000, frontend: open, status = 0"}},
      {"dib7000p", {"seek T 506000000, waits 250 reader: systems = T, wait 300, status = 1f"}},
      {"dib7000p", {"seek T 600000000, waits 900 reader: status = 0"}},
      {"cxd2841er", {"seek T 600000000, waits 2500 status = 0, status = 0, waits 0 status = 0"}},
      {"cxd2841er", {"seek T 506000000, waits 600 status = 1f"}},
      {"cxd2820r", {"seek T 600000000, waits 1000 status = 0, wait 600, waits 600 status = 0"}},
  });
}

TEST(Imitation, refuses_some_parameters_unseen) {
  const std::string zero = "seek T 506000000 bw:0, wait 1500, status = ";
  const std::string four = "seek T 506000000 mode:3, wait 1500, status = ";
  expect_imitations({
      {"box", {zero + "1f, " + four + "1f"}},
      {"rtl2832", {zero + "0, " + four + "1f"}},
      {"si2168", {zero + "0, " + four + "1f"}},
      {"mn88472", {zero + "0, " + four + "1f"}},
      {"cxd2841er", {zero + "0, " + four + "1f"}},
      {"dib7000p", {zero + "0, " + four + "1f"}},
      {"af9033", {zero + "0, " + four + "1f"}},
      {"drxk", {zero + "0, " + four + "1f"}},
      {"zl10353", {zero + "1f, " + four + "0"}},
      {"stv0367", {zero + "1f, " + four + "0"}},
      {"unkind", {zero + "0, " + four + "0"}},
  });
}

// The old interface tunes with the system that the last program chose, in whatever process.
TEST(Imitation, the_cached_system_outlives_its_program) {
  const std::string name = "Silicon Labs Si2168; ";
  const std::string limits = " 48000000-870000000";
  const std::string wakes = "wait 2000, frontend: open, ";
  expect_imitations({
      {"si2168",
       {"tune 506000000 bw:8, wait 1000, status = 1f, system C, info = " + name + "C" + limits,
        "reader: info = " + name + "C" + limits +
            ", tune 506000000 bw:8 = EINVAL, found = C 506000000, system any, "
            "found = T 506000000, system T2, info = " +
            name + "T" + limits,
        wakes + "tune 522000000 bw:8, wait 1500, found = T 522000000, status = 0, system ISDBT = EINVAL"}},
      {"drxk",
       {"tune 506000000 bw:8 = EINVAL, system T, tune 506000000 bw:8, wait 1000, status = 1f",
        "tune 506000000 bw:8, wait 1000, status = 1f"}},
      {"stv0367",
       {"tune 506000000 bw:8 = EINVAL, seek T 506000000, wait 1000, status = 1f",
        "reader: info = STV0367 DDB DVB-C/T; T 47000000-865000000"}},
      {"cxd2820r",
       {"seek T2 522000000, wait 2000, status = 1f, found = T2 522000000",
        "wait 2000, tune 506000000 bw:8, wait 1500, status = 1f, found = T 506000000"}},
      {"rtl2832", {"system C = EINVAL, system T2 = EINVAL, tune 506000000 bw:8, wait 1000, status = 1f"}},
      {"cxd2820r", {"seek T 506000000, wait 1500, status = 1f, system T2, found = T2 506000000, system T"}},
  });
}

TEST(Imitation, an_event_of_a_lock_has_what_the_driver_reports) {
  const std::string tuned = "seek T 506000000, wait 5000, event = 0, event tuning = 1f ";
  expect_imitations({
      {"si2168", {tuned + "506000000 bw=0 hp=9 lp=9 const=6 mode=2 guard=4 hier=4"}},
      {"rtl2832", {tuned + "506000000" + FOUND}},
      {"cxd2841er", {tuned + "506001234 bw=0 hp=9 lp=9 const=6 mode=2 guard=4 hier=4"}},
      {"stv0367", {tuned + "1" + FOUND}},
      {"unkind", {tuned + "506166000" + FOUND}},
  });
}

TEST(Imitation, goes_on_for_a_while_when_its_program_has_ended) {
  const std::string tuned =
      "seek T 506000000, wait 1500, status = 1f, frontend: close, reader: status = 1f, wait 2000, ";
  expect_imitations({
      {"unkind", {tuned + "reader: status = 0, reader: found = T 506000000"}, {"--time", "x1"}},
      {"si2168", {tuned + "reader: status = EAGAIN, reader: found = T 506000000"}, {"--time", "x1"}},
  });
}

TEST(Imitation, without_its_firmware_it_never_locks) {
  const Texts missing{"--firmware", "missing"};
  expect_imitations({
      {"si2168",
       {"reader: status = EAGAIN, reader: systems = T T2 C, frontend: open, status = EAGAIN, seek T 506000000, "
        "wait 3000, status = 0, found = T 506000000"},
       missing},
      {"mn88472", {"frontend: open, status = EAGAIN, seek T 506000000, wait 3000, status = 0"}, missing},
      {"drxk", {"frontend: open, status = ENODEV, seek T 506000000, wait 3000, status = 0"}, missing},
      {"si2168", {"reader: status = EAGAIN, frontend: open, waits 3100 reader: status = 0"}},
  });
}

TEST(Imitation, receives_the_pipe_that_was_asked_for) {
  const std::string filter = "filter 256, ";
  const auto seek = [](const std::string& pipe) {
    return "seek T2 530000000" + pipe + ", wait 1800, status = 1f, wait 300, ready";
  };
  expect_imitations({
      {"si2168", {filter + seek("") + " = data, stop, start, " + seek(" plp:3") + " = data"}},
      {"si2168", {filter + seek(" plp:0")}},
      {"mn88472", {filter + seek("") + ", " + seek(" plp:1") + " = data"}},
      {"unkind", {filter + seek(" plp:2") + ", " + seek(" plp:3") + " = data"}},
      {"cxd2841er", {filter + seek(" plp:7") + ", " + seek("") + " = data"}},
      {"si2168", {filter + "seek T2 522000000 plp:5, wait 1800, status = 1f, wait 300, ready = data"}},
  });
}

TEST(Imitation, a_single_shot_is_not_repeated) {
  expect_imitations({
      {"af9033",
       {"oneshot, seek T 506000000, event = 0, wait 2600, status = 1f, event = EAGAIN",
        "seek T 506000000, event = 0, wait 2600, status = 1, event = 1"},
       {"--lock-delay", "2500"}},
  });
}

TEST(Imitation, has_as_many_filters_as_its_device) {
  const auto open = [](int count) {
    std::string steps;
    for (int i = 0; i < count; ++i)
      steps += std::to_string(i) + ": open, ";
    return steps;
  };
  expect_imitations({
      {"rtl2832", {open(255) + "more: open = EMFILE"}},
      {"drxk", {open(256) + "more: open = EMFILE"}},
      {"unkind", {open(15) + "more: open = EMFILE"}, {"--filters", "15"}},
  });
}

TEST(Imitation, is_pulled_out_and_put_in_when_its_time_has_come) {
  const std::string gone = "frontend: open, wait 30000, status = ENODEV, nodes = ENOENT";
  expect_imitations({
      {"unkind", {gone}, {"--unplug", "20"}},
      {"si2168",
       {gone + ", frontend: close, wait 90000, nodes = demux0 dvr0 frontend0, frontend: open, waits 3100 status = 0, "
               "seek T 506000000, wait 1500, status = 1f"},
       {"--unplug", "20", "--replug", "100"}},
  });
}

// A section each 100 ms, 1 ms a packet: five of them arrive together, and a small queue holds three.
TEST(Imitation, gives_its_packets_in_bursts) {
  const std::string tuned = "filter 256, tune 506000000, wait 300, read = EAGAIN, await, ";
  const std::string five = "read = 40#0, read = 40#1, read = 40#2, read = 40#3, read = 40#4, read = EAGAIN";
  const std::string lost = "read = EOVERFLOW, read = EAGAIN";
  expect_imitations({
      {"box", {tuned + five}, {"--time", "x1", "--burst", "94000"}},
      {"box", {"buffer 150, " + tuned + lost}, {"--time", "x1", "--burst", "94000"}},
      {"box", {"buffer 150, " + tuned + lost}, {"--time", "x1", "--burst", "94000", "--grace", "60000"}},
      {"box",
       {"buffer 150, filter 256, tune 506000000, await, read = EOVERFLOW"},
       {"--pace", "fast", "--burst", "94000"}},
  });
}

TEST(Imitation, shows_the_strength_that_was_given) {
  const std::string tuned = "seek T 506000000, wait 1500, status = 1f, values = ";
  expect_imitations({
      {"unkind", {tuned + "-52000 27500"}},
      {"unkind",
       {tuned + "-70500 8000, control adapter 0 level 506000000=-60, values = -60000 8000"},
       {"--signal", "506000000:level=-70.5", "--signal", "*:cnr=8"}},
      {"unkind", {"seek T 506000000, wait 1500, status = 7, values = -82000 0"}, {"--weak", "506000000"}},
      {"unkind", {"seek T 600000000, wait 1500, status = 0, values = -98000 0"}},
      {"rtl2832", {tuned + "767 27500"}},
      {"box", {tuned + "51400 64250"}},
      {"zl10353", {tuned + "0 0"}},
  });
}

TEST(Imitation, counts_errors_from_the_lock_on) {
  expect_imitations({
      {"unkind",
       {"seek T 506000000, wait 1500, rate = 0.000000, control adapter 0 ber 506000000=2000, rate = 0.002000, "
        "seek T 600000000, rate = unknown"}},
      {"box", {"seek T 506000000, wait 1500, rate = 0.000000, control adapter 0 ber=1000, rate = 0.000010"}},
  });
}

TEST(Imitation, may_be_busy) {
  expect_imitations({
      {"unkind", {"frontend: open = EBUSY, reader: status = 0, reader: systems = T T2"}, {"--busy"}},
      {"zl10353",
       {"frontend: open = EBUSY, reader: status = 1f, reader: systems = T, control adapter 0 free, frontend: open",
        "control adapter 0 busy, frontend: open = EBUSY, control adapter 0 free, frontend: open"},
       {"--busy", "--tuned", "506000000"}},
  });
}

TEST(Imitation, reports_the_offset_that_was_given) {
  const auto found = [](const std::string& freq) {
    return Texts{"seek T 506000000, wait 1500, status = 1f, found = T " + freq};
  };
  expect_imitations({
      {"box", found("506000001"), {"--frequency-offset", "1"}},
      {"unkind", found("506000000"), {"--frequency-offset", "0"}},
      {"rtl2832", found("505833333"), {"--frequency-offset", "-166667"}},
      {"si2168", found("506000000"), {"--frequency-offset", "5000"}},
      {"stv0367", found("1"), {"--frequency-offset", "5000"}},
  });
}

TEST(Imitation, the_launcher_lists_them_all) {
  const support::Softdvb_run run = support::run_program({support::softdvb_launcher(), "--list-devices"});
  EXPECT_EQ(run.exit_code, 0);
  Texts names;
  for (const std::string& line : support::lines_of(run.out))
    if (line[0] != ' ')
      names.push_back(line.substr(0, line.find(':')));
  EXPECT_EQ(names, (Texts{"box", "rtl2832", "si2168", "mn88472", "cxd2820r", "cxd2841er", "dib7000p", "af9033", "drxk",
                          "zl10353", "stv0367", "unkind"}));
  EXPECT_THAT(run.out,
              testing::HasSubstr("\n  lock       350 ms (T2 750), sought anew each 900 ms; tuning takes 60 ms; "
                                 "firmware 3100 ms at the first opening, 1900 after each sleep\n"));
}
