// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <algorithm>
#include <map>

#include "support/support.h"

namespace support {

// Makes transport packets of 188 bytes (ISO/IEC 13818-1, 2.4.3.2). The operations append; `bytes` is the stream so far.
class Ts_writer {
 public:
  Bytes bytes;

  // One packet with exactly this payload; what is missing to 184 bytes is filled with 0xFF, or with an adaptation
  // field where `stuff_ahead` asks for it.
  Ts_writer& packet(int pid, bool unit_start, Bytes payload, bool stuff_ahead = false) {
    payload.resize(std::min<size_t>(payload.size(), 184));
    const size_t missing = 184 - payload.size();
    Bytes p = header(pid, unit_start, stuff_ahead && missing > 0 ? 3 : 1);
    if (stuff_ahead && missing > 0) {
      p.push_back(static_cast<uint8_t>(missing - 1));
      if (missing > 1)
        p.push_back(0);
      p.resize(4 + missing, 0xFF);
    }
    p.insert(p.end(), payload.begin(), payload.end());
    p.resize(188, 0xFF);
    bytes.insert(bytes.end(), p.begin(), p.end());
    ++counter_[pid];
    return *this;
  }

  // A section in packets of its own, `room` payload bytes in each.
  Ts_writer& section(int pid, const Bytes& section, size_t room = 184) { return packed(pid, {section}, room); }

  // Sections back to back: each begins where the one before ends, with the pointer field where one is due.
  Ts_writer& packed(int pid, const std::vector<Bytes>& sections, size_t room = 184) {
    Bytes all;
    std::vector<size_t> starts;
    for (const Bytes& s : sections) {
      starts.push_back(all.size());
      all.insert(all.end(), s.begin(), s.end());
    }
    for (size_t at = 0; at < all.size();) {
      const auto start = std::lower_bound(starts.begin(), starts.end(), at);
      const bool has_start = start != starts.end() && *start < at + room - 1;
      const size_t n = std::min(all.size() - at, has_start ? room - 1 : room);
      Bytes payload;
      if (has_start)
        payload.push_back(static_cast<uint8_t>(*start - at));
      const auto from = all.begin() + static_cast<std::ptrdiff_t>(at);
      payload.insert(payload.end(), from, from + static_cast<std::ptrdiff_t>(n));
      packet(pid, has_start, payload, room < 184);
      at += n;
    }
    return *this;
  }

  // The last packet once more, counter and all.
  Ts_writer& repeat_last() {
    const Bytes last(bytes.end() - 188, bytes.end());
    bytes.insert(bytes.end(), last.begin(), last.end());
    return *this;
  }

  // Adaptation field only; the counter does not advance. With a clock reference when `pcr_27mhz` is not negative.
  Ts_writer& adaptation_only(int pid, int64_t pcr_27mhz = -1) {
    --counter_[pid];
    Bytes p = header(pid, false, 2);
    ++counter_[pid];
    p.push_back(183);
    p.push_back(pcr_27mhz >= 0 ? 0x10 : 0);
    if (pcr_27mhz >= 0) {
      const uint64_t base = static_cast<uint64_t>(pcr_27mhz) / 300;
      const unsigned extension = static_cast<unsigned>(pcr_27mhz % 300);
      for (int shift = 25; shift >= 1; shift -= 8)
        p.push_back(static_cast<uint8_t>(base >> shift));
      p.push_back(static_cast<uint8_t>((base & 1) << 7 | 0x7E | extension >> 8));
      p.push_back(static_cast<uint8_t>(extension));
    }
    p.resize(188, 0xFF);
    bytes.insert(bytes.end(), p.begin(), p.end());
    return *this;
  }

  Ts_writer& skip_counter(int pid, unsigned by = 1) {
    counter_[pid] += by;
    return *this;
  }
  Ts_writer& null_packets(size_t n) {
    for (size_t i = 0; i < n; ++i)
      packet(0x1FFF, false, {});
    return *this;
  }
  // Bits ORed into byte `at` of the last packet: 1, 0x80 is the transport error indicator; 3, 0xC0 scrambling.
  Ts_writer& set_bits(size_t at, uint8_t bits) {
    bytes[bytes.size() - 188 + at] |= bits;
    return *this;
  }
  // Only the last packet is kept away.
  Ts_writer& drop_last() {
    bytes.resize(bytes.size() - 188);
    return *this;
  }

 private:
  Bytes header(int pid, bool unit_start, unsigned adaptation_control) {
    return {0x47, static_cast<uint8_t>((unit_start ? 0x40 : 0) | (pid >> 8 & 0x1F)), static_cast<uint8_t>(pid),
            static_cast<uint8_t>(adaptation_control << 4 | (counter_[pid] & 0x0F))};
  }

  std::map<int, unsigned> counter_;
};

}  // namespace support
