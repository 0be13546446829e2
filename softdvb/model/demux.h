// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <linux/dvb/dmx.h>

#include <array>
#include <map>
#include <vector>

#include "softdvb/model/byte_queue.h"
#include "softdvb/model/handles.h"
#include "softdvb/model/section_feed.h"

// One open demultiplexer handle: a section filter or a packet filter with its queue (Linux's dmxdev), and the feeds
// that turn packets into sections for all section filters of one PID.
namespace softdvb {

enum class Filter_state { ALLOCATED, SET, GO, DONE, TIMED_OUT };

class Demux_handle : public Handle {
 public:
  enum class Type { NONE, SECTION, PACKETS };

  // `slot`: place in Adapter::demux_owner.
  Demux_handle(int adapter_index, int open_flags, int slot);

  // REQUIRES call_lock, without Device_lock. Negative results are -errno.
  ssize_t read(void* to, size_t n);
  int request(unsigned long request, void* argument);

  // REQUIRES Device_lock from here on.
  short ready() override;
  void closed() override;

  Type type() const { return type_; }
  int pid() const { return pid_; }
  bool running() const { return state_ >= Filter_state::GO; }
  bool checks_crc() const { return (section_.flags & DMX_CHECK_CRC) != 0; }
  // A filter that is done or timed out is running but takes nothing, as in the kernel: it keeps its feed until a stop.
  bool takes_sections() const { return type_ == Type::SECTION && state_ == Filter_state::GO; }
  bool takes_packets() const { return type_ == Type::PACKETS && state_ == Filter_state::GO; }
  // How often a packet of the PID comes: once for each time that a packet filter has it.
  int copies_of(int pid) const;
  bool matches(const uint8_t* section) const;
  int packet_output() const { return static_cast<int>(pes_.output); }

  // False when a patient player would wait before it gives the filter up to `n` bytes from `pid`.
  bool has_room(int pid, size_t n) const;
  void deliver_section(const uint8_t* section, size_t n, size_t cut_to);
  void deliver_packet(const uint8_t* packet);
  void check_timeout(uint64_t now_ns);
  uint64_t deadline_ns() const { return deadline_ns_; }  // of the filter's time-out, 0: none
  void overflow();                                       // as if a section had not fitted

 private:
  int start();
  void stop();
  int set_filter(const dmx_sct_filter_params& p);
  int set_packet_filter(const dmx_pes_filter_params& p);
  int set_buffer_size(size_t n);
  int add_pid(int pid);
  int remove_pid(int pid);
  int start_feed(int pid);
  void stop_feeds();
  void feed_dvr(int pid);  // -1: no more
  bool cut_reached();

  int slot_;
  Type type_ = Type::NONE;
  Filter_state state_ = Filter_state::ALLOCATED;
  int pid_ = 0;            // of a section filter
  std::vector<int> pids_;  // of a packet filter, a feed each
  bool has_type_ = false;  // it is the source of its stream of a decoder
  dmx_sct_filter_params section_{};
  dmx_pes_filter_params pes_{};
  // Whether any bit asks for a difference; found once, because every section of the PID is matched.
  bool has_negative_ = false;
  // The kernel's size for a filter that did not ask for another: two of the longest sections do not fit.
  Byte_queue queue_{8192};
  uint64_t deadline_ns_ = 0;
  uint8_t header_[3] = {};
  int header_missing_ = 3;  // bytes of the next section's header still to read
  int body_left_ = 0;       // bytes of the section that is being read
};

// dvr0: the packets of all packet filters with output DMX_OUT_TS_TAP, of this process and others.
class Dvr_handle : public Handle {
 public:
  Dvr_handle(int adapter_index, int open_flags);
  ssize_t read(void* to, size_t n);
  int request(unsigned long request, void* argument);
  short ready() override;
  void closed() override;
  void overflow();
  void deliver_packet(const uint8_t* packet) { queue_.add(packet, TS_PACKET); }
  bool has_room(size_t n) const { return queue_.patient_room(n); }

 private:
  // The size that the kernel gives this device.
  Byte_queue queue_{size_t{10} * 1024 * TS_PACKET};
};

// The feeds of one adapter in this process. REQUIRES Device_lock for everything.
class Demux {
 public:
  // The filter started first on a PID decides about the CRC check of all.
  void filter_started(const Demux_handle& filter);
  void filter_stopped(const Demux_handle& filter);
  void pids_changed();
  void reader_opened() { change_readers(1); }
  void reader_closed() { change_readers(-1); }
  // Gives one packet to everything that wants it. Returns the number of deliveries.
  int packet(Adapter& adapter, int adapter_index, const uint8_t* p, uint64_t now_ns);
  bool has_room(int adapter_index, int pid);
  bool idle() const { return feeds_.empty() && packet_filters_ == 0 && readers_ == 0; }

 private:
  struct Feed {
    Feed(int pid, bool check_crc) : sections(pid, check_crc) {}
    Section_feed sections;
    int users = 0;
  };
  void change_readers(int by) {
    readers_ += by;
    wanted_valid_ = false;
  }
  bool wants(int adapter_index, int pid);
  void find_wanted(const Adapter& adapter);
  int deliver(int adapter_index, int pid, const uint8_t* section, size_t n, size_t cut_to);
  int deliver_packet(int adapter_index, int pid, const uint8_t* p);

  std::map<int, Feed> feeds_;
  int packet_filters_ = 0;
  int readers_ = 0;  // of dvr0, in this process
  // The table is made at the next packet, so starting many filters in a row makes it once.
  bool wanted_valid_ = false;
  uint32_t dvr_changes_ = 0;  // that it was made for
  std::array<bool, 8192> wanted_{};
  std::array<bool, 8192> recorded_{};  // goes to dvr0
};

Demux& demux_of(int adapter_index);

}  // namespace softdvb
