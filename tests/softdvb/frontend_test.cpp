#include <signal.h>

#include <array>
#include <atomic>
#include <cstring>
#include <iterator>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "softdvb/device_support.h"

// Run with adapter 0 on 506 MHz, 514 MHz (no signal until told) and 522 MHz (DVB-T2), limits 174 to 862 MHz.
using namespace device;

static constexpr int ENOTSUPP_OF_KERNEL = 524;
static constexpr uint32_t FREQ = 506000000;
static constexpr uint32_t OTHER_FREQ = 514000000;
static constexpr uint32_t T2_FREQ = 522000000;

static dvb_frontend_parameters automatic(uint32_t freq) {
  dvb_frontend_parameters p{};
  p.frequency = freq;
  p.inversion = INVERSION_AUTO;
  p.u.ofdm = {BANDWIDTH_AUTO,      FEC_AUTO,      FEC_AUTO, QAM_AUTO, TRANSMISSION_MODE_AUTO,
              GUARD_INTERVAL_AUTO, HIERARCHY_AUTO};
  return p;
}

static int status_of(int fd) {
  fe_status_t status = FE_NONE;
  return ioctl(fd, FE_READ_STATUS, &status) == 0 ? static_cast<int>(status) : -errno;
}

template <typename T>
static long reading(int fd, unsigned long request) {
  T value = 0x55;
  return ioctl(fd, request, &value) == 0 ? static_cast<long>(value) : -errno;
}

static dvb_frontend_parameters parameters_of(int fd) {
  dvb_frontend_parameters p{};
  EXPECT_EQ(0, ioctl(fd, FE_GET_FRONTEND, &p));
  return p;
}

// The next event, or -errno.
static int event_status(int fd, dvb_frontend_parameters* p = nullptr) {
  dvb_frontend_event event{};
  if (ioctl(fd, FE_GET_EVENT, &event) != 0)
    return -errno;
  if (p != nullptr)
    *p = event.parameters;
  return static_cast<int>(event.status);
}

class Frontend : public testing::Test {
 protected:
  Fd fd{open_frontend()};

  int tune(uint32_t freq) {
    const dvb_frontend_parameters p = automatic(freq);
    return static_cast<int>(result(ioctl(fd, FE_SET_FRONTEND, &p)));
  }
  void tune_and_lock(uint32_t freq) {
    ASSERT_EQ(0, tune(freq));
    usleep(400000);
    ASSERT_EQ(0x1F, status_of(fd));
    EXPECT_EQ(0, event_status(fd));
    EXPECT_EQ(0x1F, event_status(fd));
    EXPECT_EQ(-EAGAIN, event_status(fd));
  }
};

using Frontend_open = Frontend;
using Frontend_tune = Frontend;
using Frontend_event = Frontend;
using Frontend_close = Frontend;
using Frontend_property = Frontend;

TEST_F(Frontend_open, has_one_writer_and_many_readers) {
  EXPECT_EQ(-EBUSY, result(open_frontend(O_RDWR)));
  EXPECT_EQ(-EBUSY, result(open_frontend(O_RDWR | O_NONBLOCK)));
  EXPECT_EQ(-EBUSY, result(open_frontend(O_WRONLY)));
  const Fd a(open_frontend(O_RDONLY));
  const Fd b(open_frontend(O_RDONLY | O_NONBLOCK));
  EXPECT_GE(a, 0);
  EXPECT_GE(b, 0);
  fd.reset();
  const Fd again(open_frontend());
  EXPECT_GE(again, 0);
}

TEST_F(Frontend_open, a_copy_of_the_writer_keeps_the_place) {
  const Fd copy(dup(fd));
  fd.reset();
  EXPECT_EQ(-EBUSY, result(open_frontend()));
  EXPECT_EQ(0, status_of(copy));
}

TEST_F(Frontend_open, readers_may_look_but_not_change) {
  const Fd reader(open_frontend(O_RDONLY | O_NONBLOCK));
  const dvb_frontend_parameters p = automatic(FREQ);
  EXPECT_EQ(-EPERM, result(ioctl(reader, FE_SET_FRONTEND, &p)));
  EXPECT_EQ(-EPERM, event_status(reader));
  dvb_frontend_info info{};
  EXPECT_EQ(0, ioctl(reader, FE_GET_INFO, &info));
  EXPECT_EQ(0, parameters_of(reader).frequency);
  tune_and_lock(FREQ);
  EXPECT_EQ(0x1F, status_of(reader));
  EXPECT_EQ(0xC8C8, reading<uint16_t>(reader, FE_READ_SIGNAL_STRENGTH));
}

TEST_F(Frontend_open, without_a_writer_there_are_no_readings) {
  fd.reset();
  const Fd reader(open_frontend(O_RDONLY));
  EXPECT_EQ(0, status_of(reader));
  EXPECT_EQ(-EAGAIN, reading<uint16_t>(reader, FE_READ_SIGNAL_STRENGTH));
  EXPECT_EQ(-EAGAIN, reading<uint16_t>(reader, FE_READ_SNR));
  EXPECT_EQ(-EAGAIN, reading<uint32_t>(reader, FE_READ_BER));
  EXPECT_EQ(-ENOTSUPP_OF_KERNEL, reading<uint32_t>(reader, FE_READ_UNCORRECTED_BLOCKS));
}

TEST_F(Frontend_open, tells_its_kind_and_limits) {
  dvb_frontend_info info{};
  ASSERT_EQ(0, ioctl(fd, FE_GET_INFO, &info));
  EXPECT_EQ(FE_OFDM, info.type);
  EXPECT_EQ(174000000u, info.frequency_min);
  EXPECT_EQ(862000000u, info.frequency_max);
  EXPECT_STREQ("softdvb DVB-T 0", info.name);
}

TEST_F(Frontend_open, calls_that_do_not_exist) {
  EXPECT_EQ(-ENOTSUPP_OF_KERNEL, result(ioctl(fd, FE_SET_TONE, SEC_TONE_ON)));
  EXPECT_EQ(-ENOTSUPP_OF_KERNEL, result(ioctl(fd, FE_SET_VOLTAGE, SEC_VOLTAGE_13)));
  EXPECT_EQ(-ENOTSUPP_OF_KERNEL, result(ioctl(fd, 0x1234, nullptr)));
  EXPECT_EQ(-ENOTSUPP_OF_KERNEL, result(ioctl(fd, DMX_START)));
  // The driver of these tests has no such counter, locked or not.
  EXPECT_EQ(-ENOTSUPP_OF_KERNEL, reading<uint32_t>(fd, FE_READ_UNCORRECTED_BLOCKS));
  EXPECT_EQ(-EINVAL, read_size(fd));
  EXPECT_EQ(-EFAULT, result(ioctl(fd, FE_GET_INFO, nullptr)));
  tune_and_lock(FREQ);
  EXPECT_EQ(-ENOTSUPP_OF_KERNEL, reading<uint32_t>(fd, FE_READ_UNCORRECTED_BLOCKS));
  EXPECT_EQ(-ENOTSUPP_OF_KERNEL, result(ioctl(fd, FE_SET_TONE, SEC_TONE_ON)));
}

TEST_F(Frontend_open, not_tuned) {
  EXPECT_EQ(0, status_of(fd));
  EXPECT_EQ(-EAGAIN, event_status(fd));
  EXPECT_EQ(0, ready(fd));
  const dvb_frontend_parameters p = parameters_of(fd);
  EXPECT_EQ(0u, p.frequency);
  EXPECT_EQ(BANDWIDTH_AUTO, p.u.ofdm.bandwidth);
  EXPECT_EQ(FEC_AUTO, p.u.ofdm.code_rate_HP);
  EXPECT_EQ(FEC_AUTO, p.u.ofdm.code_rate_LP);
  EXPECT_EQ(QAM_AUTO, p.u.ofdm.constellation);
  EXPECT_EQ(TRANSMISSION_MODE_AUTO, p.u.ofdm.transmission_mode);
  EXPECT_EQ(GUARD_INTERVAL_AUTO, p.u.ofdm.guard_interval);
  EXPECT_EQ(HIERARCHY_AUTO, p.u.ofdm.hierarchy_information);
  EXPECT_EQ(0, reading<uint16_t>(fd, FE_READ_SIGNAL_STRENGTH));
  EXPECT_EQ(0, reading<uint16_t>(fd, FE_READ_SNR));
  EXPECT_EQ(static_cast<long>(0xFFFFFFFFu), reading<uint32_t>(fd, FE_READ_BER));
}

TEST_F(Frontend_tune, refuses_frequencies_out_of_range_and_keeps_the_old_tuning) {
  tune_and_lock(FREQ);
  for (const uint32_t freq : {0u, 173999999u, 862000001u})
    EXPECT_EQ(-EINVAL, tune(freq)) << freq;
  EXPECT_EQ(0x1F, status_of(fd));
  EXPECT_EQ(FREQ, parameters_of(fd).frequency);
  EXPECT_EQ(-EAGAIN, event_status(fd));
  EXPECT_EQ(0, tune(174000000));
  EXPECT_EQ(0, tune(862000000));
}

TEST_F(Frontend_tune, takes_everything_but_the_frequency_unchecked) {
  dvb_frontend_parameters p = automatic(FREQ);
  const std::array<int32_t, 7> wild{99, 99, 99, 99, 99, 99, 99};
  static_assert(sizeof p.u.ofdm == sizeof wild);
  std::memcpy(&p.u.ofdm, wild.data(), sizeof wild);
  EXPECT_EQ(0, ioctl(fd, FE_SET_FRONTEND, &p));
  const dvb_frontend_parameters taken = parameters_of(fd);
  EXPECT_EQ(BANDWIDTH_8_MHZ, taken.u.ofdm.bandwidth);
  EXPECT_EQ(FREQ, taken.frequency);
}

TEST_F(Frontend_tune, locks_after_a_while) {
  ASSERT_EQ(0, tune(FREQ));
  EXPECT_NE(0x1F, status_of(fd));
  EXPECT_EQ(FREQ, parameters_of(fd).frequency);
  EXPECT_EQ(QAM_AUTO, parameters_of(fd).u.ofdm.constellation);
  usleep(100000);
  EXPECT_EQ(0x1F, status_of(fd));
  const dvb_frontend_parameters p = parameters_of(fd);
  EXPECT_EQ(FREQ, p.frequency);
  EXPECT_EQ(BANDWIDTH_8_MHZ, p.u.ofdm.bandwidth);
  EXPECT_EQ(QAM_64, p.u.ofdm.constellation);
  EXPECT_EQ(TRANSMISSION_MODE_8K, p.u.ofdm.transmission_mode);
  EXPECT_EQ(HIERARCHY_NONE, p.u.ofdm.hierarchy_information);
  EXPECT_EQ(0xC8C8, reading<uint16_t>(fd, FE_READ_SIGNAL_STRENGTH));
  EXPECT_EQ(0xFAFA, reading<uint16_t>(fd, FE_READ_SNR));
  EXPECT_EQ(0, reading<uint32_t>(fd, FE_READ_BER));
}

TEST_F(Frontend_tune, tells_the_real_frequency_when_locked) {
  ASSERT_EQ(0, tune(FREQ + 166000));
  EXPECT_EQ(FREQ + 166000, parameters_of(fd).frequency);
  usleep(400000);
  EXPECT_EQ(FREQ, parameters_of(fd).frequency);
  dvb_frontend_parameters p{};
  EXPECT_EQ(0, event_status(fd, &p));
  EXPECT_EQ(FREQ + 166000, p.frequency);
  EXPECT_EQ(0x1F, event_status(fd, &p));
  EXPECT_EQ(FREQ + 166000, p.frequency) << "as asked for, in events";
  EXPECT_EQ(QAM_64, p.u.ofdm.constellation);
}

// How much is seen of it depends on how busy the machine is; what is seen comes in this order.
TEST_F(Frontend_tune, goes_from_nothing_over_a_carrier_to_the_lock) {
  bool seen_carrier = false;
  for (int i = 0; i < 50 && !seen_carrier; ++i) {
    ASSERT_EQ(0, tune(FREQ));
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

TEST_F(Frontend_tune, does_not_lock_where_nothing_is_on_the_air) {
  ASSERT_EQ(0, tune(600000000));
  usleep(1000000);
  EXPECT_EQ(0, status_of(fd));
  EXPECT_EQ(0, event_status(fd));
  EXPECT_EQ(-EAGAIN, event_status(fd));
  EXPECT_EQ(600000000u, parameters_of(fd).frequency);
}

TEST_F(Frontend_tune, finds_a_signal_that_comes_up_later) {
  support::softdvb_control("adapter 0 status 514000000 = 0");
  ASSERT_EQ(0, tune(OTHER_FREQ));
  usleep(1000000);
  EXPECT_EQ(0, status_of(fd));
  EXPECT_EQ(0, event_status(fd));
  EXPECT_EQ(-EAGAIN, event_status(fd));
  support::softdvb_control("adapter 0 status 514000000 = 0x1f");
  EXPECT_EQ(0x1F, status_of(fd));
  usleep(600000);
  EXPECT_EQ(0x1F, event_status(fd));
}

TEST_F(Frontend_tune, never_shows_the_old_lock_on_the_new_frequency) {
  tune_and_lock(FREQ);
  ASSERT_EQ(0, tune(600000000));
  EXPECT_EQ(0, status_of(fd));
}

TEST_F(Frontend_tune, dvb_t_does_not_lock_on_dvb_t2_nor_the_other_way_round) {
  ASSERT_EQ(0, tune(T2_FREQ));
  usleep(400000);
  EXPECT_EQ(0, status_of(fd));
  for (const uint32_t freq : {FREQ, T2_FREQ}) {
    dtv_property list[4]{};
    list[0].cmd = DTV_CLEAR;
    list[1].cmd = DTV_DELIVERY_SYSTEM;
    list[1].u.data = SYS_DVBT2;
    list[2].cmd = DTV_FREQUENCY;
    list[2].u.data = freq;
    list[3].cmd = DTV_TUNE;
    dtv_properties all{4, list};
    ASSERT_EQ(0, ioctl(fd, FE_SET_PROPERTY, &all));
    usleep(400000);
    EXPECT_EQ(freq == T2_FREQ ? 0x1F : 0, status_of(fd));
  }
}

TEST_F(Frontend_event, the_first_one_has_status_0_and_the_lock_follows) {
  ASSERT_EQ(0, tune(FREQ));
  EXPECT_EQ(READABLE, ready(fd));
  dvb_frontend_parameters p{};
  EXPECT_EQ(0, event_status(fd, &p));
  EXPECT_EQ(FREQ, p.frequency);
  EXPECT_EQ(QAM_AUTO, p.u.ofdm.constellation);
  EXPECT_EQ(0, ready(fd));
  EXPECT_EQ(-EAGAIN, event_status(fd));
  const double begin = now_s();
  pollfd wait{fd, POLLIN, 0};
  EXPECT_EQ(1, poll(&wait, 1, 5000));
  const double passed = now_s() - begin;
  EXPECT_GT(passed, 0.1);
  EXPECT_LT(passed, 3.0);
  EXPECT_EQ(0x1F, event_status(fd, &p));
  EXPECT_EQ(QAM_64, p.u.ofdm.constellation);
  EXPECT_EQ(FREQ, p.frequency);
}

TEST_F(Frontend_event, the_lock_is_a_status_before_it_is_an_event) {
  int event = 0x1F;
  for (int i = 0; i < 50 && event != -EAGAIN; ++i) {
    ASSERT_EQ(0, tune(FREQ));
    EXPECT_EQ(0, event_status(fd));
    while (status_of(fd) != 0x1F) {
    }
    event = event_status(fd);
  }
  EXPECT_EQ(-EAGAIN, event);
  pollfd wait{fd, POLLIN, 0};
  EXPECT_EQ(1, poll(&wait, 1, 5000));
  EXPECT_EQ(0x1F, event_status(fd));
}

TEST_F(Frontend_event, tuning_empties_the_queue) {
  for (int i = 0; i < 5; ++i)
    ASSERT_EQ(0, tune(i % 2 == 0 ? FREQ : OTHER_FREQ));
  EXPECT_EQ(0, event_status(fd));
  EXPECT_EQ(-EAGAIN, event_status(fd));
}

TEST_F(Frontend_event, the_same_frequency_again_is_a_full_retune) {
  tune_and_lock(FREQ);
  tune_and_lock(FREQ);
}

TEST_F(Frontend_event, a_lost_lock_shows_late_as_event_and_at_once_as_status) {
  tune_and_lock(FREQ);
  support::softdvb_control("adapter 0 status 506000000 = 0");
  EXPECT_EQ(0, status_of(fd));
  EXPECT_EQ(-EAGAIN, event_status(fd));
  usleep(3500000);
  EXPECT_EQ(0, event_status(fd));
  support::softdvb_control("adapter 0 status 506000000 = 0x1f");
  usleep(500000);
  EXPECT_EQ(0x1F, event_status(fd));
  EXPECT_EQ(-EAGAIN, event_status(fd));
}

TEST_F(Frontend_event, seven_fit_and_the_newest_stay) {
  support::softdvb_control("adapter 0 status 506000000 = 0x1f");
  ASSERT_EQ(0, tune(FREQ));
  usleep(400000);
  for (int i = 0; i < 10; ++i) {
    support::softdvb_control(i % 2 == 0 ? "adapter 0 status 506000000 = 0x3" : "adapter 0 status 506000000 = 0x1f");
    usleep(3300000);
  }
  EXPECT_EQ(-EOVERFLOW, event_status(fd));
  for (int i = 0; i < 7; ++i)
    EXPECT_EQ(i % 2 == 0 ? 0x1F : 0x03, event_status(fd)) << i;
  EXPECT_EQ(-EAGAIN, event_status(fd));
}

TEST_F(Frontend_event, waiting_for_one_does_not_hold_up_tuning) {
  fd.reset();
  const Fd blocking(open_frontend(O_RDWR));
  std::atomic<int> status{-1};
  std::thread waiter([&] { status = event_status(blocking); });
  usleep(200000);
  EXPECT_EQ(-1, status);
  const dvb_frontend_parameters p = automatic(FREQ);
  EXPECT_EQ(0, ioctl(blocking, FE_SET_FRONTEND, &p));
  waiter.join();
  EXPECT_EQ(0, status);
}

TEST_F(Frontend_event, waiting_for_one_ends_with_a_signal) {
  fd.reset();
  const Fd blocking(open_frontend(O_RDWR));
  struct sigaction action {};
  action.sa_handler = [](int) {};
  sigaction(SIGUSR1, &action, nullptr);
  std::atomic<int> status{0};
  std::thread waiter([&] { status = event_status(blocking); });
  for (int i = 0; i < 500 && status == 0; ++i) {
    usleep(100000);
    pthread_kill(waiter.native_handle(), SIGUSR1);
  }
  waiter.join();
  EXPECT_EQ(-EINTR, status);
}

TEST_F(Frontend_close, reopened_at_once_it_is_still_locked_without_events) {
  tune_and_lock(FREQ);
  fd.reset();
  const Fd again(open_frontend());
  EXPECT_EQ(0x1F, status_of(again));
  usleep(4000000);
  EXPECT_EQ(0x1F, status_of(again));
  EXPECT_EQ(-EAGAIN, event_status(again));
}

TEST_F(Frontend_close, reopened_late_it_is_asleep_but_knows_the_frequency) {
  tune_and_lock(FREQ);
  fd.reset();
  usleep(2000000);
  const Fd again(open_frontend());
  EXPECT_EQ(0, status_of(again));
  EXPECT_EQ(FREQ, parameters_of(again).frequency);
  usleep(2000000);
  EXPECT_EQ(0, status_of(again));
  EXPECT_EQ(-EAGAIN, event_status(again));
}

TEST_F(Frontend_property, lists_what_it_is) {
  dtv_property list[2]{};
  list[0].cmd = DTV_API_VERSION;
  list[1].cmd = DTV_ENUM_DELSYS;
  dtv_properties all{2, list};
  ASSERT_EQ(0, ioctl(fd, FE_GET_PROPERTY, &all));
  EXPECT_GE(list[0].u.data, 0x0500u);
  EXPECT_EQ(1u, list[1].u.buffer.len);
  EXPECT_EQ(SYS_DVBT, list[1].u.buffer.data[0]);
}

TEST_F(Frontend_property, tunes_and_tells_what_was_found) {
  dtv_property list[8]{};
  const uint32_t wanted[8][2] = {{DTV_CLEAR, 0},
                                 {DTV_DELIVERY_SYSTEM, SYS_DVBT},
                                 {DTV_FREQUENCY, FREQ},
                                 {DTV_BANDWIDTH_HZ, 8000000},
                                 {DTV_MODULATION, QAM_AUTO},
                                 {DTV_CODE_RATE_HP, FEC_AUTO},
                                 {DTV_INVERSION, INVERSION_AUTO},
                                 {DTV_TUNE, 0}};
  for (int i = 0; i < 8; ++i) {
    list[i].cmd = wanted[i][0];
    list[i].u.data = wanted[i][1];
  }
  dtv_properties all{8, list};
  ASSERT_EQ(0, ioctl(fd, FE_SET_PROPERTY, &all));
  usleep(400000);
  EXPECT_EQ(0x1F, status_of(fd));
  dtv_property found[3]{};
  found[0].cmd = DTV_FREQUENCY;
  found[1].cmd = DTV_MODULATION;
  found[2].cmd = DTV_STAT_SIGNAL_STRENGTH;
  dtv_properties answers{3, found};
  ASSERT_EQ(0, ioctl(fd, FE_GET_PROPERTY, &answers));
  EXPECT_EQ(FREQ, found[0].u.data);
  EXPECT_EQ(uint32_t{QAM_64}, found[1].u.data);
  EXPECT_EQ(FE_SCALE_RELATIVE, found[2].u.st.stat[0].scale);
  EXPECT_EQ(0xC8C8u, found[2].u.st.stat[0].uvalue);
}

TEST_F(Frontend_property, each_parameter_is_told_as_it_was_set) {
  const uint32_t wanted[][2] = {{DTV_DELIVERY_SYSTEM, SYS_DVBT},
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
  constexpr uint32_t COUNT = std::size(wanted);
  dtv_property list[COUNT + 2]{};
  list[0].cmd = DTV_CLEAR;
  for (uint32_t i = 0; i < COUNT; ++i) {
    list[i + 1].cmd = wanted[i][0];
    list[i + 1].u.data = wanted[i][1];
  }
  list[COUNT + 1].cmd = DTV_TUNE;
  dtv_properties all{COUNT + 2, list};
  ASSERT_EQ(0, ioctl(fd, FE_SET_PROPERTY, &all));
  for (const int wait_ms : {0, 400}) {
    usleep(static_cast<useconds_t>(wait_ms) * 1000);
    dtv_property found[COUNT]{};
    for (uint32_t i = 0; i < COUNT; ++i)
      found[i].cmd = wanted[i][0];
    dtv_properties answers{COUNT, found};
    ASSERT_EQ(0, ioctl(fd, FE_GET_PROPERTY, &answers));
    for (uint32_t i = 0; i < COUNT; ++i)
      EXPECT_EQ(wanted[i][1], found[i].u.data) << "command " << wanted[i][0] << " after " << wait_ms;
  }
  EXPECT_EQ(0x1F, status_of(fd));
}

TEST_F(Frontend_property, statistics_are_there_with_a_lock_only) {
  const auto scales = [&] {
    dtv_property list[8]{};
    for (uint32_t i = 0; i < 8; ++i)
      list[i].cmd = DTV_STAT_SIGNAL_STRENGTH + i;
    dtv_properties all{8, list};
    EXPECT_EQ(0, ioctl(fd, FE_GET_PROPERTY, &all));
    std::string text;
    for (const dtv_property& p : list)
      text += std::to_string(p.u.st.len) + ":" + std::to_string(p.u.st.stat[0].scale) + " ";
    return text;
  };
  EXPECT_EQ("1:0 1:0 1:0 1:0 1:0 1:0 1:0 1:0 ", scales());
  tune_and_lock(FREQ);
  // Relative, relative, counters; the driver of these tests has no count of wrong blocks.
  EXPECT_EQ("1:2 1:2 1:3 1:3 1:3 1:3 1:0 1:3 ", scales());
}

TEST_F(Frontend_property, bad_lists_are_refused) {
  dtv_properties all{0, nullptr};
  EXPECT_EQ(-EINVAL, result(ioctl(fd, FE_SET_PROPERTY, &all)));
  all.num = 65;
  EXPECT_EQ(-EINVAL, result(ioctl(fd, FE_GET_PROPERTY, &all)));
  all.num = 1;
  EXPECT_EQ(-EFAULT, result(ioctl(fd, FE_GET_PROPERTY, &all)));
}

// Tuning and the demultiplexer.

using Frontend_stream = Frontend;

static int extension_of(const Bytes& section) {
  return section.size() < 5 ? -1 : section[3] << 8 | section[4];
}

TEST_F(Frontend_stream, nothing_arrives_before_the_lock) {
  const Fd demux(open_demux());
  ASSERT_EQ(0, set_filter(demux, all_of(PID)));
  usleep(300000);
  EXPECT_EQ(-EAGAIN, read_size(demux));
  ASSERT_EQ(0, tune(FREQ));
  pollfd wait{demux, POLLIN, 0};
  EXPECT_EQ(1, poll(&wait, 1, 5000));
  EXPECT_EQ(0, extension_of(read_bytes(demux)));
}

TEST_F(Frontend_stream, plays_at_the_pace_of_its_clock) {
  const Fd demux(open_demux());
  ASSERT_EQ(0, set_filter(demux, all_of(PID)));
  ASSERT_EQ(0, tune(FREQ));
  const double begin = now_s();
  for (int i = 0; i < 20; ++i) {
    pollfd wait{demux, POLLIN, 0};
    ASSERT_EQ(1, poll(&wait, 1, 5000)) << i;
    ASSERT_EQ(i, extension_of(read_bytes(demux)));
  }
  // 19 intervals of 100 ms and the lock.
  const double passed = now_s() - begin;
  EXPECT_GT(passed, 1.8);
  EXPECT_LT(passed, 4.0);
}

TEST_F(Frontend_stream, a_retune_flushes_nothing) {
  const Fd demux(open_demux());
  ASSERT_EQ(0, set_filter(demux, all_of(PID)));
  ASSERT_EQ(0, tune(FREQ));
  pollfd wait{demux, POLLIN, 0};
  ASSERT_EQ(1, poll(&wait, 1, 5000));
  ASSERT_EQ(0, tune(600000000));
  usleep(500000);
  EXPECT_EQ(0, extension_of(read_bytes(demux)));
  while (read_size(demux) > 0) {
  }
  usleep(500000);
  EXPECT_EQ(-EAGAIN, read_size(demux));
}

TEST_F(Frontend_stream, a_section_is_completed_across_a_retune) {
  constexpr int ELSEWHERE = 0x700;  // not in the stream
  const Fd demux(open_demux());
  ASSERT_EQ(0, set_filter(demux, all_of(ELSEWHERE)));
  ASSERT_EQ(0, tune(OTHER_FREQ));
  usleep(200000);
  Ts_writer ts;
  ts.section(ELSEWHERE, section_of(300, 7));
  const Bytes all = ts.bytes;
  support::softdvb_inject(0, Bytes(all.begin(), all.begin() + 188));
  ASSERT_EQ(0, tune(FREQ));
  usleep(400000);
  EXPECT_EQ(0x1F, status_of(fd));
  support::softdvb_inject(0, Bytes(all.begin() + 188, all.end()));
  EXPECT_EQ(section_of(300, 7), read_bytes(demux));
}

TEST_F(Frontend_stream, filters_run_with_the_frontend_closed) {
  fd.reset();
  const Fd demux(open_demux());
  ASSERT_EQ(0, set_filter(demux, all_of(PID)));
  send_section(section_of(100));
  EXPECT_EQ(100, read_size(demux));
}
