// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <numeric>

#include "softdvb/session.h"

// Run with adapter 0 on 506 MHz, 514 MHz (no signal until told) and 522 MHz (DVB-T2), limits 174 to 862 MHz. The driver
// has no count of wrong blocks; 524 is the kernel's ENOTSUPP, which has no name here.
using namespace device;

static constexpr int ENOTSUPP_OF_KERNEL = 524;
static constexpr uint32_t FREQ = 506000000;
static constexpr uint32_t T2_FREQ = 522000000;
static const std::string LOCK = "tune 506000000, wait 400, status = 1f, event = 0, event = 1f, event = EAGAIN, ";
// What stands behind the frequency before and after the lock.
static const std::string AUTOMATIC = " bw=3 hp=9 lp=9 const=6 mode=2 guard=4 hier=4";
static const std::string FOUND = " bw=0 hp=2 lp=0 const=3 mode=1 guard=3 hier=0";

using Properties = std::vector<std::pair<uint32_t, uint32_t>>;

static long set_properties(int fd, const Properties& wanted) {
  std::vector<dtv_property> list(wanted.size());
  for (size_t i = 0; i < wanted.size(); ++i) {
    list[i].cmd = wanted[i].first;
    list[i].u.data = wanted[i].second;
  }
  dtv_properties all{static_cast<uint32_t>(list.size()), list.data()};
  return result(ioctl(fd, FE_SET_PROPERTY, &all));
}

static std::vector<dtv_property> properties_of(int fd, const std::vector<uint32_t>& commands) {
  std::vector<dtv_property> list(commands.size());
  for (size_t i = 0; i < commands.size(); ++i)
    list[i].cmd = commands[i];
  dtv_properties all{static_cast<uint32_t>(list.size()), list.data()};
  EXPECT_EQ(result(ioctl(fd, FE_GET_PROPERTY, &all)), 0);
  return list;
}

TEST(Frontend_open, has_one_writer_and_many_readers) {
  Fd fd(open_frontend());
  EXPECT_EQ(result(open_frontend(O_RDWR)), -EBUSY);
  EXPECT_EQ(result(open_frontend(O_RDWR | O_NONBLOCK)), -EBUSY);
  EXPECT_EQ(result(open_frontend(O_WRONLY)), -EBUSY);
  const Fd a(open_frontend(O_RDONLY));
  const Fd b(open_frontend(O_RDONLY | O_NONBLOCK));
  EXPECT_GE(a, 0);
  EXPECT_GE(b, 0);
  const Fd copy(dup(fd));
  fd.reset();
  EXPECT_EQ(result(open_frontend()), -EBUSY) << "a copy of the writer keeps the place";
  EXPECT_EQ(status_of(copy), 0);
}

TEST(Frontend_open, a_writer_that_goes_frees_the_place) {
  EXPECT_THAT("frontend: open, frontend: close, frontend: open", plays());
}

TEST(Frontend_open, readers_may_look_but_not_change) {
  EXPECT_THAT("reader: tune 506000000 = EPERM, reader: event = EPERM, reader: tuning = 0" + AUTOMATIC + ", " + LOCK +
                  "reader: status = 1f, reader: strength = c8c8",
              plays());
  dvb_frontend_info info{};
  EXPECT_EQ(ioctl(Fd(open_frontend(O_RDONLY)), FE_GET_INFO, &info), 0);
}

TEST(Frontend_open, without_a_writer_there_are_no_readings) {
  EXPECT_THAT(
      "reader: status = 0, reader: strength = EAGAIN, reader: snr = EAGAIN, reader: ber = EAGAIN, "
      "reader: ucblocks = 524",
      plays());
}

TEST(Frontend_open, tells_its_kind_and_limits) {
  const Fd fd(open_frontend());
  dvb_frontend_info info{};
  ASSERT_EQ(ioctl(fd, FE_GET_INFO, &info), 0);
  EXPECT_EQ(info.type, FE_OFDM);
  EXPECT_EQ(info.frequency_min, 174000000u);
  EXPECT_EQ(info.frequency_max, 862000000u);
  EXPECT_STREQ(info.name, "softdvb DVB-T 0");
}

TEST(Frontend_open, calls_that_do_not_exist) {
  const Fd fd(open_frontend());
  for (const bool locked : {false, true}) {
    SCOPED_TRACE(locked);
    if (locked) {
      ASSERT_EQ(tune(fd, FREQ), 0);
      usleep(400000);
      ASSERT_EQ(status_of(fd), 0x1F);
    }
    EXPECT_EQ(result(ioctl(fd, FE_SET_TONE, SEC_TONE_ON)), -ENOTSUPP_OF_KERNEL);
    EXPECT_EQ(result(ioctl(fd, FE_SET_VOLTAGE, SEC_VOLTAGE_13)), -ENOTSUPP_OF_KERNEL);
    EXPECT_EQ(result(ioctl(fd, 0x1234, nullptr)), -ENOTSUPP_OF_KERNEL);
    EXPECT_EQ(result(ioctl(fd, DMX_START)), -ENOTSUPP_OF_KERNEL);
    uint32_t count = 0;
    EXPECT_EQ(result(ioctl(fd, FE_READ_UNCORRECTED_BLOCKS, &count)), -ENOTSUPP_OF_KERNEL);
    EXPECT_EQ(read_size(fd), -EINVAL);
    EXPECT_EQ(result(ioctl(fd, FE_GET_INFO, nullptr)), -EFAULT);
  }
}

TEST(Frontend_open, not_tuned) {
  EXPECT_THAT(
      "status = 0, event = EAGAIN, frontend: ready, tuning = 0" + AUTOMATIC + ", strength = 0, snr = 0, ber = ffffffff",
      plays());
}

TEST(Frontend_tune, refuses_frequencies_out_of_range_and_keeps_the_old_tuning) {
  EXPECT_THAT(LOCK +
                  "tune 0 = EINVAL, tune 173999999 = EINVAL, tune 862000001 = EINVAL, status = 1f, "
                  "tuning = 506000000" +
                  FOUND + ", event = EAGAIN, tune 174000000, tune 862000000",
              plays());
}

TEST(Frontend_tune, takes_everything_but_the_frequency_unchecked) {
  const Fd fd(open_frontend());
  dvb_frontend_parameters p = automatic(FREQ);
  const std::array<int32_t, 7> wild{99, 99, 99, 99, 99, 99, 99};
  static_assert(sizeof p.u.ofdm == sizeof wild);
  std::memcpy(&p.u.ofdm, wild.data(), sizeof wild);
  EXPECT_EQ(ioctl(fd, FE_SET_FRONTEND, &p), 0);
  dvb_frontend_parameters taken{};
  EXPECT_EQ(ioctl(fd, FE_GET_FRONTEND, &taken), 0);
  EXPECT_EQ(taken.u.ofdm.bandwidth, BANDWIDTH_8_MHZ);
  EXPECT_EQ(taken.frequency, FREQ);
}

TEST(Frontend_tune, locks_after_a_while) {
  EXPECT_THAT("tune 506000000, status = 0", plays_at_times());
  const std::string later =
      ", wait 100, status = 1f, tuning = 506000000" + FOUND + ", strength = c8c8, snr = fafa, ber = 0";
  EXPECT_THAT("tune 506000000, tuning = 506000000" + AUTOMATIC + later, plays_at_times());
}

TEST(Frontend_tune, tells_the_real_frequency_when_locked) {
  // In events it is as asked for.
  EXPECT_THAT("tune 506166000, tuning = 506166000" + AUTOMATIC + ", wait 400, tuning = 506000000" + FOUND +
                  ", event tuning = 0 506166000" + AUTOMATIC + ", event tuning = 1f 506166000" + FOUND,
              plays_at_times());
}

// How much is seen of it depends on how busy the machine is; what is seen comes in this order.
TEST(Frontend_tune, goes_from_nothing_over_a_carrier_to_the_lock) {
  const Fd fd(open_frontend());
  bool seen_carrier = false;
  for (int i = 0; i < 50 && !seen_carrier; ++i) {
    ASSERT_EQ(tune(fd, FREQ), 0);
    int last = 0;
    while (last != 0x1F) {
      const int status = status_of(fd);
      ASSERT_TRUE(status == 0 || status == (FE_HAS_SIGNAL | FE_HAS_CARRIER) || status == 0x1F) << status;
      ASSERT_GE(status, last);
      seen_carrier = seen_carrier || status == 0x03;
      last = status;
    }
  }
  EXPECT_TRUE(seen_carrier);
}

TEST(Frontend_tune, does_not_lock_where_nothing_is_on_the_air) {
  EXPECT_THAT("tune 600000000, wait 1000, status = 0, event = 0, event = EAGAIN, tuning = 600000000" + AUTOMATIC,
              plays());
}

TEST(Frontend_tune, finds_a_signal_that_comes_up_later) {
  EXPECT_THAT(
      "signal 514000000 0, tune 514000000, wait 1000, status = 0, event = 0, event = EAGAIN, "
      "signal 514000000 0x1f, status = 1f, wait 600, event = 1f",
      plays());
}

TEST(Frontend_tune, never_shows_the_old_lock_on_the_new_frequency) {
  EXPECT_THAT(LOCK + "tune 600000000, status = 0", plays());
}

TEST(Frontend_tune, dvb_t_does_not_lock_on_dvb_t2_nor_the_other_way_round) {
  const Fd fd(open_frontend());
  ASSERT_EQ(tune(fd, T2_FREQ), 0);
  usleep(400000);
  EXPECT_EQ(status_of(fd), 0);
  for (const uint32_t freq : {FREQ, T2_FREQ}) {
    ASSERT_EQ(
        set_properties(fd, {{DTV_CLEAR, 0}, {DTV_DELIVERY_SYSTEM, SYS_DVBT2}, {DTV_FREQUENCY, freq}, {DTV_TUNE, 0}}),
        0);
    usleep(400000);
    EXPECT_EQ(status_of(fd), freq == T2_FREQ ? 0x1F : 0);
  }
}

TEST(Frontend_event, the_first_one_has_status_0_and_the_lock_follows) {
  EXPECT_THAT("tune 506000000, frontend: ready = data, event tuning = 0 506000000" + AUTOMATIC +
                  ", frontend: ready, event = EAGAIN, frontend: await, event tuning = 1f 506000000" + FOUND,
              plays_at_times());
}

TEST(Frontend_event, the_lock_follows_at_the_next_look) {
  expect_lasts(0.1, 3.0, [] { EXPECT_THAT("tune 506000000, event = 0, frontend: await, event = 1f", plays()); });
}

TEST(Frontend_event, the_lock_is_a_status_before_it_is_an_event) {
  Session session;
  std::string event;
  for (int i = 0; i < 50 && event != "event = EAGAIN"; ++i) {
    EXPECT_EQ(session.play("tune 506000000, event"), "tune 506000000, event = 0");
    while (session.play("status") != "status = 1f") {
    }
    event = session.play("event");
  }
  EXPECT_EQ(event, "event = EAGAIN");
  EXPECT_EQ(session.play("frontend: await, event"), "frontend: await, event = 1f");
}

TEST(Frontend_event, tuning_empties_the_queue) {
  EXPECT_THAT(
      "tune 506000000, tune 514000000, tune 506000000, tune 514000000, tune 506000000, event = 0, "
      "event = EAGAIN",
      plays());
}

TEST(Frontend_event, the_same_frequency_again_is_a_full_retune) {
  EXPECT_THAT(LOCK + LOCK + "status = 1f", plays());
}

TEST(Frontend_event, a_lost_lock_shows_late_as_event_and_at_once_as_status) {
  EXPECT_THAT(LOCK +
                  "signal 506000000 0, status = 0, event = EAGAIN, wait 3500, event = 0, "
                  "signal 506000000 0x1f, wait 500, event = 1f, event = EAGAIN",
              plays());
}

TEST(Frontend_event, seven_fit_and_the_newest_stay) {
  std::string changes;
  for (int i = 0; i < 5; ++i)
    changes += "signal 506000000 0x3, wait 3300, signal 506000000 0x1f, wait 3300, ";
  EXPECT_THAT("signal 506000000 0x1f, tune 506000000, wait 400, " + changes +
                  "event = EOVERFLOW, event = 1f, event = 3, event = 1f, event = 3, event = 1f, event = 3, "
                  "event = 1f, event = EAGAIN",
              plays());
}

// A thread that waits for an event on a frontend that blocks.
class Frontend_waiting : public testing::Test {
 protected:
  const Fd fd{open_frontend(O_RDWR)};
  std::atomic<int> outcome{INT_MAX};
  std::thread waiter{[this] {
    dvb_frontend_event event{};
    outcome = ioctl(fd, FE_GET_EVENT, &event) == 0 ? static_cast<int>(event.status) : -errno;
  }};
};

TEST_F(Frontend_waiting, does_not_hold_up_tuning) {
  usleep(200000);
  EXPECT_EQ(outcome, INT_MAX);
  EXPECT_EQ(tune(fd, FREQ), 0);
  waiter.join();
  EXPECT_EQ(outcome, 0);
}

TEST_F(Frontend_waiting, ends_with_a_signal) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  sigaction(SIGUSR1, &action, nullptr);
  for (int i = 0; i < 500 && outcome == INT_MAX; ++i) {
    usleep(100000);
    pthread_kill(waiter.native_handle(), SIGUSR1);
  }
  waiter.join();
  EXPECT_EQ(outcome, -EINTR);
}

TEST(Frontend_close, reopened_at_once_it_is_still_locked_without_events) {
  EXPECT_THAT(LOCK + "frontend: close, status = 1f, wait 4000, status = 1f, event = EAGAIN", plays());
}

TEST(Frontend_close, reopened_late_it_is_asleep_but_knows_the_frequency) {
  EXPECT_THAT(LOCK + "frontend: close, wait 2000, status = 0, tuning = 506000000" + AUTOMATIC +
                  ", wait 2000, status = 0, event = EAGAIN",
              plays());
}

class Frontend_property : public testing::Test {
 protected:
  const Fd fd{open_frontend()};
};

TEST_F(Frontend_property, lists_what_it_is) {
  const auto found = properties_of(fd, {DTV_API_VERSION, DTV_ENUM_DELSYS});
  EXPECT_GE(found[0].u.data, 0x0500u);
  EXPECT_EQ(found[1].u.buffer.len, 1u);
  EXPECT_EQ(found[1].u.buffer.data[0], SYS_DVBT);
}

TEST_F(Frontend_property, tunes_and_tells_what_was_found) {
  ASSERT_EQ(set_properties(fd, {{DTV_CLEAR, 0},
                                {DTV_DELIVERY_SYSTEM, SYS_DVBT},
                                {DTV_FREQUENCY, FREQ},
                                {DTV_BANDWIDTH_HZ, 8000000},
                                {DTV_MODULATION, QAM_AUTO},
                                {DTV_CODE_RATE_HP, FEC_AUTO},
                                {DTV_INVERSION, INVERSION_AUTO},
                                {DTV_TUNE, 0}}),
            0);
  usleep(400000);
  EXPECT_EQ(status_of(fd), 0x1F);
  const auto found = properties_of(fd, {DTV_FREQUENCY, DTV_MODULATION, DTV_STAT_SIGNAL_STRENGTH});
  EXPECT_EQ(found[0].u.data, FREQ);
  EXPECT_EQ(found[1].u.data, uint32_t{QAM_64});
  EXPECT_EQ(found[2].u.st.stat[0].scale, FE_SCALE_RELATIVE);
  EXPECT_EQ(found[2].u.st.stat[0].uvalue, 0xC8C8u);
}

TEST_F(Frontend_property, each_parameter_is_told_as_it_was_set) {
  const Properties wanted{{DTV_DELIVERY_SYSTEM, SYS_DVBT},
                          {DTV_FREQUENCY, FREQ},
                          {DTV_MODULATION, QAM_16},
                          {DTV_BANDWIDTH_HZ, 7000000},
                          {DTV_INVERSION, INVERSION_ON},
                          {DTV_INNER_FEC, FEC_5_6},
                          {DTV_CODE_RATE_HP, FEC_3_4},
                          {DTV_CODE_RATE_LP, FEC_1_2},
                          {DTV_GUARD_INTERVAL, GUARD_INTERVAL_1_16},
                          {DTV_TRANSMISSION_MODE, TRANSMISSION_MODE_2K},
                          {DTV_HIERARCHY, HIERARCHY_2},
                          {DTV_STREAM_ID, 5}};
  Properties all = wanted;
  all.insert(all.begin(), {DTV_CLEAR, 0});
  all.emplace_back(DTV_TUNE, 0);
  ASSERT_EQ(set_properties(fd, all), 0);
  std::vector<uint32_t> commands;
  for (const auto& property : wanted)
    commands.push_back(property.first);
  for (const int wait_ms : {0, 400}) {
    usleep(static_cast<useconds_t>(wait_ms) * 1000);
    Properties found;
    for (const dtv_property& property : properties_of(fd, commands))
      found.emplace_back(property.cmd, property.u.data);
    EXPECT_EQ(found, wanted) << "after " << wait_ms;
  }
  EXPECT_EQ(status_of(fd), 0x1F);
}

TEST_F(Frontend_property, statistics_are_there_with_a_lock_only) {
  const auto scales = [&] {
    std::vector<uint32_t> commands(8);
    std::iota(commands.begin(), commands.end(), DTV_STAT_SIGNAL_STRENGTH);
    std::string text;
    for (const dtv_property& p : properties_of(fd, commands))
      text += std::to_string(p.u.st.len) + ":" + std::to_string(p.u.st.stat[0].scale) + " ";
    return text;
  };
  EXPECT_EQ(scales(), "1:0 1:0 1:0 1:0 1:0 1:0 1:0 1:0 ");
  ASSERT_EQ(tune(fd, FREQ), 0);
  usleep(400000);
  // Relative, relative, counters; the driver of these tests has no count of wrong blocks.
  EXPECT_EQ(scales(), "1:2 1:2 1:3 1:3 1:3 1:3 1:0 1:3 ");
}

TEST_F(Frontend_property, bad_lists_are_refused) {
  dtv_properties all{0, nullptr};
  EXPECT_EQ(result(ioctl(fd, FE_SET_PROPERTY, &all)), -EINVAL);
  all.num = 65;
  EXPECT_EQ(result(ioctl(fd, FE_GET_PROPERTY, &all)), -EINVAL);
  all.num = 1;
  EXPECT_EQ(result(ioctl(fd, FE_GET_PROPERTY, &all)), -EFAULT);
}

// Tuning and the demultiplexer.

TEST(Frontend_stream, nothing_arrives_before_the_lock) {
  EXPECT_THAT("filter 256, wait 300, read = EAGAIN, tune 506000000, await, read = 40#0", plays());
}

TEST(Frontend_stream, plays_at_the_pace_of_its_clock) {
  std::string sections;
  for (int i = 0; i < 20; ++i)
    sections += ", await, read = 40#" + std::to_string(i);
  // 19 intervals of 100 ms and the lock. Nothing is on the air at 600 MHz.
  expect_lasts(1.8, 4.0, [&] { EXPECT_THAT("tune 600000000, filter 256, tune 506000000" + sections, plays()); });
}

TEST(Frontend_stream, a_retune_flushes_nothing) {
  const Fd fd(open_frontend());
  const Fd demux(listening());
  ASSERT_EQ(tune(fd, FREQ), 0);
  ASSERT_TRUE(readable_within(demux, 5000));
  ASSERT_EQ(tune(fd, 600000000), 0);
  usleep(500000);
  EXPECT_EQ(read_bytes(demux), section_of(40, 0));
  while (read_size(demux) > 0) {
  }
  usleep(500000);
  EXPECT_EQ(read_size(demux), -EAGAIN);
}

TEST(Frontend_stream, a_section_is_completed_across_a_retune) {
  constexpr int ELSEWHERE = 0x700;  // not in the stream
  const Bytes all = Ts_writer().section(ELSEWHERE, section_of(300, 7)).bytes;
  Session session;
  EXPECT_EQ(session.play("filter 1792, tune 514000000, wait 200"), "filter 1792, tune 514000000, wait 200");
  support::softdvb_inject(0, Bytes(all.begin(), all.begin() + 188));
  EXPECT_EQ(session.play("tune 506000000, wait 400, status"), "tune 506000000, wait 400, status = 1f");
  support::softdvb_inject(0, Bytes(all.begin() + 188, all.end()));
  EXPECT_EQ(session.play("read"), "read = 300#7");
}

TEST(Frontend_stream, filters_run_with_the_frontend_closed) {
  EXPECT_THAT("frontend: open, frontend: close, filter 256, send 100#1, read = 100#1", plays());
}
