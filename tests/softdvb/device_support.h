// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <linux/dvb/dmx.h>
#include <linux/dvb/frontend.h>
#include <poll.h>
#include <sys/ioctl.h>

#include "base/ids.h"
#include "support/softdvb.h"
#include "support/support.h"
#include "support/test.h"
#include "support/ts_writer.h"

// Short forms of the calls that the tests of the devices are made of.
namespace device {

using support::Bytes;
using support::Ts_writer;

inline constexpr int PID = 0x100;
inline constexpr short READABLE = POLLIN | POLLRDNORM | POLLPRI;

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() { reset(); }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  operator int() const { return fd_; }
  int reset() { return fd_ < 0 ? 0 : close(std::exchange(fd_, -1)); }

 private:
  int fd_;
};

inline int open_demux(int flags = O_RDONLY | O_NONBLOCK) {
  return open("/dev/dvb/adapter0/demux0", flags);
}
inline int open_frontend(int flags = O_RDWR | O_NONBLOCK, int number = 0) {
  return open(("/dev/dvb/adapter0/frontend" + std::to_string(number)).c_str(), flags);
}

// A section filter that lets everything of the PID through; the tests fill in the rest.
inline dmx_sct_filter_params all_of(int pid, unsigned flags = DMX_IMMEDIATE_START) {
  dmx_sct_filter_params p{};
  p.pid = static_cast<uint16_t>(pid);
  p.flags = flags;
  return p;
}

inline dmx_sct_filter_params table_of(int pid, int table, unsigned flags = DMX_IMMEDIATE_START) {
  dmx_sct_filter_params p = all_of(pid, flags);
  p.filter.filter[0] = static_cast<uint8_t>(table);
  p.filter.mask[0] = 0xFF;
  return p;
}

inline int set_filter(int fd, const dmx_sct_filter_params& p) {
  return ioctl(fd, DMX_SET_FILTER, &p);
}

// A descriptor that gets every section of the PID, to be owned by an Fd.
inline int listening(int pid = PID, unsigned flags = DMX_IMMEDIATE_START, int open_flags = O_RDONLY | O_NONBLOCK) {
  const int fd = open_demux(open_flags);
  EXPECT_EQ(set_filter(fd, all_of(pid, flags)), 0);
  return fd;
}

// Everything but the frequency is left to the driver.
inline dvb_frontend_parameters automatic(uint32_t freq) {
  dvb_frontend_parameters p{};
  p.frequency = freq;
  p.inversion = INVERSION_AUTO;
  p.u.ofdm = {BANDWIDTH_AUTO,      FEC_AUTO,      FEC_AUTO, QAM_AUTO, TRANSMISSION_MODE_AUTO,
              GUARD_INTERVAL_AUTO, HIERARCHY_AUTO};
  return p;
}

// Result of a call with -1 replaced by -errno.
inline long result(long value) {
  return value == -1 ? -errno : value;
}

inline int tune(int fd, uint32_t freq) {
  const dvb_frontend_parameters p = automatic(freq);
  return static_cast<int>(result(ioctl(fd, FE_SET_FRONTEND, &p)));
}

inline int status_of(int fd) {
  fe_status_t status = FE_NONE;
  return ioctl(fd, FE_READ_STATUS, &status) == 0 ? static_cast<int>(status) : -errno;
}

inline bool readable_within(int fd, int ms) {
  pollfd p{fd, POLLIN, 0};
  return poll(&p, 1, ms) == 1;
}

inline long read_size(int fd, size_t n = 8192) {
  Bytes buffer(n == 0 ? 1 : n);
  return result(read(fd, buffer.data(), n));
}

inline Bytes read_bytes(int fd, size_t n = 8192) {
  Bytes buffer(n);
  const ssize_t got = read(fd, buffer.data(), n);
  buffer.resize(got > 0 ? static_cast<size_t>(got) : 0);
  return buffer;
}

// All of poll's bits that are set now.
inline short ready(int fd) {
  pollfd p{fd, static_cast<short>(READABLE | POLLOUT | POLLWRNORM | POLLERR), 0};
  poll(&p, 1, 0);
  return p.revents;
}

// A long section of exactly `size` bytes (12 and more), told apart by `extension`.
inline Bytes section_of(size_t size, uint16_t extension = 1, uint8_t table = table::SDT_ACTUAL, uint8_t version = 0) {
  return support::long_section(table, extension, version, Bytes(size - 12, static_cast<uint8_t>(extension)));
}

// A section without the long header: `size` bytes altogether (3 and more).
inline Bytes short_section(uint8_t table, size_t size, uint8_t fill = 0) {
  Bytes s{table, static_cast<uint8_t>(0x70 | (size - 3) >> 8), static_cast<uint8_t>(size - 3)};
  s.resize(size, fill);
  return s;
}

// With a wrong CRC.
inline Bytes damaged(Bytes section) {
  section.back() = static_cast<uint8_t>(section.back() ^ 0x55);
  return section;
}

inline void send(const Ts_writer& ts) {
  support::softdvb_inject(0, ts.bytes);
}

inline void send_section(const Bytes& section, int pid = PID) {
  static Ts_writer ts;  // keeps the continuity counters
  ts.bytes.clear();
  ts.section(pid, section);
  send(ts);
}

inline double now_s() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

// Runs `wait` and checks that it lasts from `least` to `most` seconds. A busy machine can only make it longer, so it
// gets further tries when it took too long.
inline void expect_lasts(double least, double most, const std::function<void()>& wait) {
  double passed = most;
  for (int i = 0; i < 10 && passed >= most; ++i) {
    const double begin = now_s();
    wait();
    passed = now_s() - begin;
    EXPECT_GE(passed, least);
  }
  EXPECT_LT(passed, most);
}

}  // namespace device
