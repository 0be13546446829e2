// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <numeric>

#include "softdvb/device_support.h"

// Run with adapter 0 on 506 MHz, 514 MHz (no signal until told) and 522 MHz (DVB-T2), limits 174 to 862 MHz.
using namespace device;

static constexpr int ENOTSUPP_OF_KERNEL = 524;
static constexpr uint32_t FREQ = 506000000;
static constexpr uint32_t OTHER_FREQ = 514000000;
static constexpr uint32_t T2_FREQ = 522000000;

template <typename T>
static long reading(int fd, unsigned long request) {
  T value = 0x55;
  return ioctl(fd, request, &value) == 0 ? static_cast<long>(value) : -errno;
}

static dvb_frontend_parameters parameters_of(int fd) {
  dvb_frontend_parameters p{};
  EXPECT_EQ(ioctl(fd, FE_GET_FRONTEND, &p), 0);
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

class Frontend : public testing::Test {
 protected:
  Fd fd{open_frontend()};

  int tune(uint32_t freq) { return device::tune(fd, freq); }
  void tune_and_lock(uint32_t freq) {
    ASSERT_EQ(tune(freq), 0);
    usleep(400000);
    ASSERT_EQ(status_of(fd), 0x1F);
    EXPECT_EQ(event_status(fd), 0);
    EXPECT_EQ(event_status(fd), 0x1F);
    EXPECT_EQ(event_status(fd), -EAGAIN);
  }
};

using Frontend_open = Frontend;
using Frontend_tune = Frontend;
using Frontend_event = Frontend;
using Frontend_close = Frontend;
using Frontend_property = Frontend;

TEST_F(Frontend_open, has_one_writer_and_many_readers) {
  EXPECT_EQ(result(open_frontend(O_RDWR)), -EBUSY);
  EXPECT_EQ(result(open_frontend(O_RDWR | O_NONBLOCK)), -EBUSY);
  EXPECT_EQ(result(open_frontend(O_WRONLY)), -EBUSY);
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
  EXPECT_EQ(result(open_frontend()), -EBUSY);
  EXPECT_EQ(status_of(copy), 0);
}

TEST_F(Frontend_open, readers_may_look_but_not_change) {
  const Fd reader(open_frontend(O_RDONLY | O_NONBLOCK));
  const dvb_frontend_parameters p = automatic(FREQ);
  EXPECT_EQ(result(ioctl(reader, FE_SET_FRONTEND, &p)), -EPERM);
  EXPECT_EQ(event_status(reader), -EPERM);
  dvb_frontend_info info{};
  EXPECT_EQ(ioctl(reader, FE_GET_INFO, &info), 0);
  EXPECT_EQ(parameters_of(reader).frequency, 0);
  tune_and_lock(FREQ);
  EXPECT_EQ(status_of(reader), 0x1F);
  EXPECT_EQ(reading<uint16_t>(reader, FE_READ_SIGNAL_STRENGTH), 0xC8C8);
}

TEST_F(Frontend_open, without_a_writer_there_are_no_readings) {
  fd.reset();
  const Fd reader(open_frontend(O_RDONLY));
  EXPECT_EQ(status_of(reader), 0);
  EXPECT_EQ(reading<uint16_t>(reader, FE_READ_SIGNAL_STRENGTH), -EAGAIN);
  EXPECT_EQ(reading<uint16_t>(reader, FE_READ_SNR), -EAGAIN);
  EXPECT_EQ(reading<uint32_t>(reader, FE_READ_BER), -EAGAIN);
  EXPECT_EQ(reading<uint32_t>(reader, FE_READ_UNCORRECTED_BLOCKS), -ENOTSUPP_OF_KERNEL);
}

TEST_F(Frontend_open, tells_its_kind_and_limits) {
  dvb_frontend_info info{};
  ASSERT_EQ(ioctl(fd, FE_GET_INFO, &info), 0);
  EXPECT_EQ(info.type, FE_OFDM);
  EXPECT_EQ(info.frequency_min, 174000000u);
  EXPECT_EQ(info.frequency_max, 862000000u);
  EXPECT_STREQ(info.name, "softdvb DVB-T 0");
}

TEST_F(Frontend_open, calls_that_do_not_exist) {
  EXPECT_EQ(result(ioctl(fd, FE_SET_TONE, SEC_TONE_ON)), -ENOTSUPP_OF_KERNEL);
  EXPECT_EQ(result(ioctl(fd, FE_SET_VOLTAGE, SEC_VOLTAGE_13)), -ENOTSUPP_OF_KERNEL);
  EXPECT_EQ(result(ioctl(fd, 0x1234, nullptr)), -ENOTSUPP_OF_KERNEL);
  EXPECT_EQ(result(ioctl(fd, DMX_START)), -ENOTSUPP_OF_KERNEL);
  // The driver of these tests has no such counter, locked or not.
  EXPECT_EQ(reading<uint32_t>(fd, FE_READ_UNCORRECTED_BLOCKS), -ENOTSUPP_OF_KERNEL);
  EXPECT_EQ(read_size(fd), -EINVAL);
  EXPECT_EQ(result(ioctl(fd, FE_GET_INFO, nullptr)), -EFAULT);
  tune_and_lock(FREQ);
  EXPECT_EQ(reading<uint32_t>(fd, FE_READ_UNCORRECTED_BLOCKS), -ENOTSUPP_OF_KERNEL);
  EXPECT_EQ(result(ioctl(fd, FE_SET_TONE, SEC_TONE_ON)), -ENOTSUPP_OF_KERNEL);
}

TEST_F(Frontend_open, not_tuned) {
  EXPECT_EQ(status_of(fd), 0);
  EXPECT_EQ(event_status(fd), -EAGAIN);
  EXPECT_EQ(ready(fd), 0);
  const dvb_frontend_parameters p = parameters_of(fd);
  EXPECT_EQ(p.frequency, 0u);
  EXPECT_EQ(p.u.ofdm.bandwidth, BANDWIDTH_AUTO);
  EXPECT_EQ(p.u.ofdm.code_rate_HP, FEC_AUTO);
  EXPECT_EQ(p.u.ofdm.code_rate_LP, FEC_AUTO);
  EXPECT_EQ(p.u.ofdm.constellation, QAM_AUTO);
  EXPECT_EQ(p.u.ofdm.transmission_mode, TRANSMISSION_MODE_AUTO);
  EXPECT_EQ(p.u.ofdm.guard_interval, GUARD_INTERVAL_AUTO);
  EXPECT_EQ(p.u.ofdm.hierarchy_information, HIERARCHY_AUTO);
  EXPECT_EQ(reading<uint16_t>(fd, FE_READ_SIGNAL_STRENGTH), 0);
  EXPECT_EQ(reading<uint16_t>(fd, FE_READ_SNR), 0);
  EXPECT_EQ(reading<uint32_t>(fd, FE_READ_BER), static_cast<long>(0xFFFFFFFFu));
}

TEST_F(Frontend_tune, refuses_frequencies_out_of_range_and_keeps_the_old_tuning) {
  tune_and_lock(FREQ);
  for (const uint32_t freq : {0u, 173999999u, 862000001u})
    EXPECT_EQ(tune(freq), -EINVAL) << freq;
  EXPECT_EQ(status_of(fd), 0x1F);
  EXPECT_EQ(parameters_of(fd).frequency, FREQ);
  EXPECT_EQ(event_status(fd), -EAGAIN);
  EXPECT_EQ(tune(174000000), 0);
  EXPECT_EQ(tune(862000000), 0);
}

TEST_F(Frontend_tune, takes_everything_but_the_frequency_unchecked) {
  dvb_frontend_parameters p = automatic(FREQ);
  const std::array<int32_t, 7> wild{99, 99, 99, 99, 99, 99, 99};
  static_assert(sizeof p.u.ofdm == sizeof wild);
  std::memcpy(&p.u.ofdm, wild.data(), sizeof wild);
  EXPECT_EQ(ioctl(fd, FE_SET_FRONTEND, &p), 0);
  const dvb_frontend_parameters taken = parameters_of(fd);
  EXPECT_EQ(taken.u.ofdm.bandwidth, BANDWIDTH_8_MHZ);
  EXPECT_EQ(taken.frequency, FREQ);
}

TEST_F(Frontend_tune, locks_after_a_while) {
  ASSERT_EQ(tune(FREQ), 0);
  EXPECT_NE(status_of(fd), 0x1F);
  EXPECT_EQ(parameters_of(fd).frequency, FREQ);
  EXPECT_EQ(parameters_of(fd).u.ofdm.constellation, QAM_AUTO);
  usleep(100000);
  EXPECT_EQ(status_of(fd), 0x1F);
  const dvb_frontend_parameters p = parameters_of(fd);
  EXPECT_EQ(p.frequency, FREQ);
  EXPECT_EQ(p.u.ofdm.bandwidth, BANDWIDTH_8_MHZ);
  EXPECT_EQ(p.u.ofdm.constellation, QAM_64);
  EXPECT_EQ(p.u.ofdm.transmission_mode, TRANSMISSION_MODE_8K);
  EXPECT_EQ(p.u.ofdm.hierarchy_information, HIERARCHY_NONE);
  EXPECT_EQ(reading<uint16_t>(fd, FE_READ_SIGNAL_STRENGTH), 0xC8C8);
  EXPECT_EQ(reading<uint16_t>(fd, FE_READ_SNR), 0xFAFA);
  EXPECT_EQ(reading<uint32_t>(fd, FE_READ_BER), 0);
}

TEST_F(Frontend_tune, tells_the_real_frequency_when_locked) {
  ASSERT_EQ(tune(FREQ + 166000), 0);
  EXPECT_EQ(parameters_of(fd).frequency, FREQ + 166000);
  usleep(400000);
  EXPECT_EQ(parameters_of(fd).frequency, FREQ);
  dvb_frontend_parameters p{};
  EXPECT_EQ(event_status(fd, &p), 0);
  EXPECT_EQ(p.frequency, FREQ + 166000);
  EXPECT_EQ(event_status(fd, &p), 0x1F);
  EXPECT_EQ(p.frequency, FREQ + 166000) << "as asked for, in events";
  EXPECT_EQ(p.u.ofdm.constellation, QAM_64);
}

// How much is seen of it depends on how busy the machine is; what is seen comes in this order.
TEST_F(Frontend_tune, goes_from_nothing_over_a_carrier_to_the_lock) {
  bool seen_carrier = false;
  for (int i = 0; i < 50 && !seen_carrier; ++i) {
    ASSERT_EQ(tune(FREQ), 0);
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
  ASSERT_EQ(tune(600000000), 0);
  usleep(1000000);
  EXPECT_EQ(status_of(fd), 0);
  EXPECT_EQ(event_status(fd), 0);
  EXPECT_EQ(event_status(fd), -EAGAIN);
  EXPECT_EQ(parameters_of(fd).frequency, 600000000u);
}

TEST_F(Frontend_tune, finds_a_signal_that_comes_up_later) {
  support::softdvb_control("adapter 0 status 514000000 = 0");
  ASSERT_EQ(tune(OTHER_FREQ), 0);
  usleep(1000000);
  EXPECT_EQ(status_of(fd), 0);
  EXPECT_EQ(event_status(fd), 0);
  EXPECT_EQ(event_status(fd), -EAGAIN);
  support::softdvb_control("adapter 0 status 514000000 = 0x1f");
  EXPECT_EQ(status_of(fd), 0x1F);
  usleep(600000);
  EXPECT_EQ(event_status(fd), 0x1F);
}

TEST_F(Frontend_tune, never_shows_the_old_lock_on_the_new_frequency) {
  tune_and_lock(FREQ);
  ASSERT_EQ(tune(600000000), 0);
  EXPECT_EQ(status_of(fd), 0);
}

TEST_F(Frontend_tune, dvb_t_does_not_lock_on_dvb_t2_nor_the_other_way_round) {
  ASSERT_EQ(tune(T2_FREQ), 0);
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

TEST_F(Frontend_event, the_first_one_has_status_0_and_the_lock_follows) {
  ASSERT_EQ(tune(FREQ), 0);
  EXPECT_EQ(ready(fd), READABLE);
  dvb_frontend_parameters p{};
  EXPECT_EQ(event_status(fd, &p), 0);
  EXPECT_EQ(p.frequency, FREQ);
  EXPECT_EQ(p.u.ofdm.constellation, QAM_AUTO);
  EXPECT_EQ(ready(fd), 0);
  EXPECT_EQ(event_status(fd), -EAGAIN);
  EXPECT_TRUE(readable_within(fd, 5000));
  EXPECT_EQ(event_status(fd, &p), 0x1F);
  EXPECT_EQ(p.u.ofdm.constellation, QAM_64);
  EXPECT_EQ(p.frequency, FREQ);
}

TEST_F(Frontend_event, the_lock_follows_at_the_next_look) {
  expect_lasts(0.1, 3.0, [&] {
    ASSERT_EQ(tune(FREQ), 0);
    EXPECT_EQ(event_status(fd), 0);
    EXPECT_TRUE(readable_within(fd, 5000));
    EXPECT_EQ(event_status(fd), 0x1F);
  });
}

TEST_F(Frontend_event, the_lock_is_a_status_before_it_is_an_event) {
  int event = 0x1F;
  for (int i = 0; i < 50 && event != -EAGAIN; ++i) {
    ASSERT_EQ(tune(FREQ), 0);
    EXPECT_EQ(event_status(fd), 0);
    while (status_of(fd) != 0x1F) {
    }
    event = event_status(fd);
  }
  EXPECT_EQ(event, -EAGAIN);
  EXPECT_TRUE(readable_within(fd, 5000));
  EXPECT_EQ(event_status(fd), 0x1F);
}

TEST_F(Frontend_event, tuning_empties_the_queue) {
  for (int i = 0; i < 5; ++i)
    ASSERT_EQ(tune(i % 2 == 0 ? FREQ : OTHER_FREQ), 0);
  EXPECT_EQ(event_status(fd), 0);
  EXPECT_EQ(event_status(fd), -EAGAIN);
}

TEST_F(Frontend_event, the_same_frequency_again_is_a_full_retune) {
  tune_and_lock(FREQ);
  tune_and_lock(FREQ);
}

TEST_F(Frontend_event, a_lost_lock_shows_late_as_event_and_at_once_as_status) {
  tune_and_lock(FREQ);
  support::softdvb_control("adapter 0 status 506000000 = 0");
  EXPECT_EQ(status_of(fd), 0);
  EXPECT_EQ(event_status(fd), -EAGAIN);
  usleep(3500000);
  EXPECT_EQ(event_status(fd), 0);
  support::softdvb_control("adapter 0 status 506000000 = 0x1f");
  usleep(500000);
  EXPECT_EQ(event_status(fd), 0x1F);
  EXPECT_EQ(event_status(fd), -EAGAIN);
}

TEST_F(Frontend_event, seven_fit_and_the_newest_stay) {
  support::softdvb_control("adapter 0 status 506000000 = 0x1f");
  ASSERT_EQ(tune(FREQ), 0);
  usleep(400000);
  for (int i = 0; i < 10; ++i) {
    support::softdvb_control(i % 2 == 0 ? "adapter 0 status 506000000 = 0x3" : "adapter 0 status 506000000 = 0x1f");
    usleep(3300000);
  }
  EXPECT_EQ(event_status(fd), -EOVERFLOW);
  for (int i = 0; i < 7; ++i)
    EXPECT_EQ(event_status(fd), i % 2 == 0 ? 0x1F : 0x03) << i;
  EXPECT_EQ(event_status(fd), -EAGAIN);
}

TEST_F(Frontend_event, waiting_for_one_does_not_hold_up_tuning) {
  fd.reset();
  const Fd blocking(open_frontend(O_RDWR));
  std::atomic<int> status{-1};
  std::thread waiter([&] { status = event_status(blocking); });
  usleep(200000);
  EXPECT_EQ(status, -1);
  const dvb_frontend_parameters p = automatic(FREQ);
  EXPECT_EQ(ioctl(blocking, FE_SET_FRONTEND, &p), 0);
  waiter.join();
  EXPECT_EQ(status, 0);
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
  EXPECT_EQ(status, -EINTR);
}

TEST_F(Frontend_close, reopened_at_once_it_is_still_locked_without_events) {
  tune_and_lock(FREQ);
  fd.reset();
  const Fd again(open_frontend());
  EXPECT_EQ(status_of(again), 0x1F);
  usleep(4000000);
  EXPECT_EQ(status_of(again), 0x1F);
  EXPECT_EQ(event_status(again), -EAGAIN);
}

TEST_F(Frontend_close, reopened_late_it_is_asleep_but_knows_the_frequency) {
  tune_and_lock(FREQ);
  fd.reset();
  usleep(2000000);
  const Fd again(open_frontend());
  EXPECT_EQ(status_of(again), 0);
  EXPECT_EQ(parameters_of(again).frequency, FREQ);
  usleep(2000000);
  EXPECT_EQ(status_of(again), 0);
  EXPECT_EQ(event_status(again), -EAGAIN);
}

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
  tune_and_lock(FREQ);
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

using Frontend_stream = Frontend;

static int extension_of(const Bytes& section) {
  return section.size() < 5 ? -1 : section[3] << 8 | section[4];
}

TEST_F(Frontend_stream, nothing_arrives_before_the_lock) {
  const Fd demux(listening());
  usleep(300000);
  EXPECT_EQ(read_size(demux), -EAGAIN);
  ASSERT_EQ(tune(FREQ), 0);
  EXPECT_TRUE(readable_within(demux, 5000));
  EXPECT_EQ(extension_of(read_bytes(demux)), 0);
}

TEST_F(Frontend_stream, plays_at_the_pace_of_its_clock) {
  // 19 intervals of 100 ms and the lock.
  expect_lasts(1.8, 4.0, [&] {
    ASSERT_EQ(tune(600000000), 0);  // where nothing is on the air
    const Fd demux(listening());
    ASSERT_EQ(tune(FREQ), 0);
    for (int i = 0; i < 20; ++i) {
      ASSERT_TRUE(readable_within(demux, 5000)) << i;
      ASSERT_EQ(extension_of(read_bytes(demux)), i);
    }
  });
}

TEST_F(Frontend_stream, a_retune_flushes_nothing) {
  const Fd demux(listening());
  ASSERT_EQ(tune(FREQ), 0);
  ASSERT_TRUE(readable_within(demux, 5000));
  ASSERT_EQ(tune(600000000), 0);
  usleep(500000);
  EXPECT_EQ(extension_of(read_bytes(demux)), 0);
  while (read_size(demux) > 0) {
  }
  usleep(500000);
  EXPECT_EQ(read_size(demux), -EAGAIN);
}

TEST_F(Frontend_stream, a_section_is_completed_across_a_retune) {
  constexpr int ELSEWHERE = 0x700;  // not in the stream
  const Fd demux(listening(ELSEWHERE));
  ASSERT_EQ(tune(OTHER_FREQ), 0);
  usleep(200000);
  Ts_writer ts;
  ts.section(ELSEWHERE, section_of(300, 7));
  const Bytes all = ts.bytes;
  support::softdvb_inject(0, Bytes(all.begin(), all.begin() + 188));
  ASSERT_EQ(tune(FREQ), 0);
  usleep(400000);
  EXPECT_EQ(status_of(fd), 0x1F);
  support::softdvb_inject(0, Bytes(all.begin() + 188, all.end()));
  EXPECT_EQ(read_bytes(demux), section_of(300, 7));
}

TEST_F(Frontend_stream, filters_run_with_the_frontend_closed) {
  fd.reset();
  const Fd demux(listening());
  send_section(section_of(100));
  EXPECT_EQ(read_size(demux), 100);
}
