// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <linux/dvb/dmx.h>
#include <sys/ioctl.h>

#include "support/support.h"
#include "support/test.h"

// A demultiplexer device for one test at a time: a named pipe, so that open, select and read are the system's, with the
// DMX_ ioctls on it answered and recorded here. What is written into it comes out of whichever handle is read first.
class Fake_demux {
 public:
  struct Call {
    int fd;
    unsigned long request;
    bool operator==(const Call&) const = default;
  };

  Fake_demux();
  ~Fake_demux();
  Fake_demux(const Fake_demux&) = delete;
  Fake_demux& operator=(const Fake_demux&) = delete;

  const char* path() const { return path_.c_str(); }

  // Makes one read return exactly these bytes, once earlier ones have been read. REQUIRES: a handle is open.
  void put(const support::Bytes& bytes);

  // The calls since the last take_calls(), in order.
  std::vector<Call> take_calls();
  int count(unsigned long request) const;
  const dmx_sct_filter_params& last_filter() const { return last_filter_; }
  unsigned long last_buffer() const { return last_buffer_; }

  static constexpr int ALWAYS = -1;

  // From now on this request (0: none) fails with `error`, so many times; and so do reads when it is not 0.
  void fail_ioctl(unsigned long request, int error, int times = ALWAYS);
  void fail_read(int error, int times = ALWAYS);
  // From now on poll answers with these bits, and at once; 0 for the system's own answer.
  void answer_poll(short bits) { poll_bits_ = bits; }
  int reads() const { return reads_; }

  // How the test program's ioctl and read come here. False: not a call on this device.
  static Fake_demux* current();
  bool is_mine(int fd) const;
  int on_ioctl(int fd, unsigned long request, const void* argument);
  bool on_read(int* error);
  short poll_bits() const { return poll_bits_; }

 private:
  support::Temp_dir dir_;
  std::string path_;
  int writer_ = -1;
  std::vector<Call> calls_;
  dmx_sct_filter_params last_filter_{};
  unsigned long last_buffer_ = 0;  // size
  unsigned long failing_request_ = 0;
  int ioctl_error_ = 0;
  int ioctl_failures_ = 0;
  int read_error_ = 0;
  int read_failures_ = 0;
  short poll_bits_ = 0;
  int reads_ = 0;
};
