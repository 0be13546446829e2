// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// A program with a section filter on PID 0x100. Arguments act in their order: adapter=N, tune=HZ, sleep=MS, late=MS
// (before the filter is started), buffer=BYTES, slow=MS (before each read), play=PACKETS, then wait=MS (reads until
// nothing comes for so long) or count=N (reads so many). It prints the extension of each section, "/N" behind one that
// is only N bytes long; clock: at last the seconds it all took on standard error.

#include "softdvb/device_support.h"

using namespace device;

struct Listener {
  int adapter = 0;
  int frontend = -1;
  int demux = -1;
  int slow_ms = 0;
  bool started = false;

  std::string path(const char* name) const { return "/dev/dvb/adapter" + std::to_string(adapter) + "/" + name; }

  void tune(uint32_t hz) {
    frontend = open(path("frontend0").c_str(), O_RDWR | O_NONBLOCK);
    dvb_frontend_parameters p = automatic(hz);
    p.u.ofdm.bandwidth = BANDWIDTH_8_MHZ;
    if (ioctl(frontend, FE_SET_FRONTEND, &p) != 0)
      std::perror("FE_SET_FRONTEND");
  }

  // Opens the demultiplexer, and starts its filter once.
  void open_filter() {
    if (demux < 0)
      demux = open(path("demux0").c_str(), O_RDONLY | O_NONBLOCK);
  }
  void start() {
    open_filter();
    if (!started && set_filter(demux, all_of(PID, DMX_IMMEDIATE_START | DMX_CHECK_CRC)) != 0)
      std::perror("DMX_SET_FILTER");
    started = true;
  }

  // True when a section, or the part of one that there is, was printed.
  bool read_one(int wait_ms) {
    pollfd p{demux, POLLIN, 0};
    if (poll(&p, 1, wait_ms) <= 0)
      return false;
    usleep(static_cast<useconds_t>(slow_ms) * 1000);
    const Bytes s = read_bytes(demux);
    if (s.size() < 5)
      return false;
    std::cout << (s[3] << 8 | s[4]) << (s.size() == 40 ? " " : "/" + std::to_string(s.size()) + " ");
    return true;
  }
};

int main(int argc, char** argv) {
  const double begin = now_s();
  Listener listener;
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    const size_t at = word.find('=');
    const std::string key = word.substr(0, at);
    const int value = at == std::string::npos ? 0 : std::atoi(word.c_str() + at + 1);
    if (key == "adapter") {
      listener.adapter = value;
    } else if (key == "tune") {
      listener.tune(static_cast<uint32_t>(value));
      // The filter is there from the beginning unless it is to be late, or to have another buffer.
      const std::string next = i + 1 < argc ? argv[i + 1] : "";
      if (next.rfind("late", 0) != 0 && next.rfind("buffer", 0) != 0)
        listener.start();
    } else if (key == "sleep" || key == "late") {
      usleep(static_cast<useconds_t>(value) * 1000);
      if (key == "late")
        listener.start();
    } else if (key == "buffer") {
      listener.open_filter();
      ioctl(listener.demux, DMX_SET_BUFFER_SIZE, value);
      listener.start();
    } else if (key == "slow") {
      listener.slow_ms = value;
    } else if (key == "play") {
      usleep(60000);  // until there is a lock
      support::softdvb_play(listener.adapter, static_cast<unsigned long>(value));
    } else if (key == "wait") {
      listener.start();
      while (listener.read_one(value)) {
      }
    } else if (key == "count") {
      listener.start();
      for (int n = 0; n < value && listener.read_one(5000); ++n) {
      }
    } else if (key == "clock") {
      std::fprintf(stderr, "%f\n", now_s() - begin);
    } else {
      return 2;
    }
  }
  return 0;
}
