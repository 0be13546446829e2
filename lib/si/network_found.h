// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "si/announced_multiplex.h"

// What a scan has read of the multiplex's identity and of its network; not installed. One thread at a time.
class Network_found {
 public:
  // Of the multiplex itself; -1 until its tables have come.
  int original_network_id() const { return original_network_id_; }
  int transport_stream_id() const { return transport_stream_id_; }

  // Each once, in the order of the NIT; no more than MOST_ANNOUNCED.
  const std::vector<Announced_multiplex>& announced() const { return announced_; }

  // A PAT and an SDT of the multiplex say what it is; the SDT is believed before the PAT.
  void pat(int ts_id);
  void sdt(int orig_network_id, int ts_id);

  // One whole NIT section (EN 300 468, 5.2.1): the multiplexes of its transport stream loop. Whatever the bytes hold,
  // nothing behind them is looked at; what is cut off is left out.
  void nit(std::span<const uint8_t> section);

  // More do not fit into the terrestrial bands.
  static constexpr size_t MOST_ANNOUNCED = 1024;

 private:
  // How a transport stream is sent, as far as other descriptors leave it open.
  struct Delivery {
    int system;
    int bandwidth_hz;
    int pipe;
  };
  // A pipe of a T2 system whose frequencies stand with another one of the same system.
  struct T2_pipe {
    int system_id;
    int orig_network_id;
    int ts_id;
    int pipe;
    bool operator==(const T2_pipe&) const = default;
  };
  struct T2_frequency {
    int system_id;
    int freq;
    int bandwidth_hz;
    bool operator==(const T2_frequency&) const = default;
  };
  struct Stream {
    int orig_network_id;
    int ts_id;
    std::vector<Delivery> deliveries;
  };

  void stream(Stream& stream, std::span<const uint8_t> descriptors);
  void terrestrial(Stream& stream, std::span<const uint8_t> body);
  void t2(Stream& stream, std::span<const uint8_t> body);
  void t2_frequency(const T2_frequency& frequency);
  void other_frequencies(const Stream& stream, unsigned tag, std::span<const uint8_t> body);
  void add(const Stream& stream, uint32_t tens_of_hz, const Delivery& delivery);
  void add(const Announced_multiplex& multiplex);

  int original_network_id_ = -1;
  int transport_stream_id_ = -1;
  std::vector<Announced_multiplex> announced_;
  std::vector<T2_pipe> t2_pipes_;
  std::vector<T2_frequency> t2_frequencies_;
};

// Which sections of a table of several have come; not installed.
class Sections_seen {
 public:
  // Notes one. False when it has come before; one of another version begins anew.
  bool arrived(int version, int number, int last);

  // How many have come.
  size_t count() const { return seen_.count(); }

  // True when all have come, or when those that have come twice more since the last new one: no others are sent.
  bool complete() const;

 private:
  static constexpr size_t REPEATS = 2;

  int version_ = -1;
  int last_ = 0;
  std::bitset<256> seen_;
  size_t repeats_ = 0;  // sections that were not new since the last new one
};
