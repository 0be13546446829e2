// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Delivery systems and frequencies of a NIT (EN 300 468, 5.2.1).
#include "si/announcements.h"

#include <linux/dvb/frontend.h>

#include <algorithm>

#include <climits>

#include "base/ids.h"

namespace {

// No network has so many. What is done with them grows with their square.
constexpr size_t MOST_ENTRIES = 256;

// Bytes from the air, taken off the front; zeroes, and `ok` false, when there are not so many.
class Bytes {
 public:
  Bytes(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  bool ok() const { return ok_; }
  size_t left() const { return size_; }
  bool empty() const { return size_ == 0 || !ok_; }
  const uint8_t* data() const { return data_; }

  unsigned take(size_t count) {
    uint64_t value = 0;
    if (!has(count))
      return 0;
    for (size_t i = 0; i < count; ++i)
      value = value << 8 | data_[i];
    skip(count);
    return static_cast<unsigned>(value);
  }
  // The next `count` bytes as a loop of their own, or what is left of them.
  Bytes loop(size_t count) {
    const Bytes out(data_, std::min(count, size_));
    skip(out.size_);
    return out;
  }
  void skip(size_t count) {
    if (!has(count))
      return;
    data_ += count;
    size_ -= count;
  }

 private:
  bool has(size_t count) {
    ok_ = ok_ && count <= size_;
    return ok_;
  }

  const uint8_t* data_;
  size_t size_;
  bool ok_ = true;
};

// Hz, of a field in steps of 10 Hz; 0 for what no frontend takes.
int hertz(unsigned value) {
  return value <= INT_MAX / 10 ? static_cast<int>(value) * 10 : 0;
}

void add(std::vector<int>* freqs, unsigned value) {
  const int freq = hertz(value);
  if (freq > 0 && std::find(freqs->begin(), freqs->end(), freq) == freqs->end())
    freqs->push_back(freq);
}

int bandwidth_of(unsigned code, const std::vector<int>& table) {
  return code < table.size() ? table[code] : 0;
}

// Cells of a transposer each: cell_id_extension and a frequency.
void read_subcells(Bytes subcells, std::vector<int>* freqs) {
  while (!subcells.empty()) {
    subcells.skip(1);
    add(freqs, subcells.take(4));
  }
}

// cell_frequency_link_descriptor (0x6D, 6.2.6)
void read_cells(Bytes bytes, std::vector<int>* freqs) {
  while (!bytes.empty()) {
    bytes.skip(2);  // cell_id
    add(freqs, bytes.take(4));
    read_subcells(bytes.loop(bytes.take(1)), freqs);
  }
}

// frequency_list_descriptor (0x62, 6.2.17)
void read_frequency_list(Bytes bytes, std::vector<int>* freqs) {
  constexpr unsigned TERRESTRIAL = 3;
  if ((bytes.take(1) & 3) != TERRESTRIAL)
    return;
  while (!bytes.empty())
    add(freqs, bytes.take(4));
}

}  // namespace

void Announcements::clear() {
  original_network_id_ = -1;
  transport_stream_id_ = -1;
  entries_.clear();
}

void Announcements::read(const uint8_t* section, size_t size) {
  constexpr size_t HEADER = 8;
  constexpr size_t CRC = 4;
  if (size < HEADER + CRC)
    return;
  const int extension = section[3] << 8 | section[4];
  switch (section[0]) {
    case table::PAT:
      if (transport_stream_id_ < 0)
        transport_stream_id_ = extension;
      break;
    case table::SDT_ACTUAL:
      if (size < HEADER + 2 + CRC)
        break;
      transport_stream_id_ = extension;
      original_network_id_ = section[8] << 8 | section[9];
      break;
    case table::NIT_ACTUAL:
      read_nit(section + HEADER, size - HEADER - CRC);
      break;
    default:
      break;
  }
}

void Announcements::read_nit(const uint8_t* section, size_t size) {
  Bytes bytes(section, size);
  (void)bytes.loop(bytes.take(2) & 0x0FFF);  // the network's descriptors
  Bytes streams = bytes.loop(bytes.take(2) & 0x0FFF);
  while (!streams.empty() && entries_.size() < MOST_ENTRIES) {
    Entry entry;
    entry.base.transport_stream_id = static_cast<int>(streams.take(2));
    entry.base.original_network_id = static_cast<int>(streams.take(2));
    entry.base.pipe = -1;
    Bytes descriptors = streams.loop(streams.take(2) & 0x0FFF);
    if (!streams.ok())
      break;
    while (!descriptors.empty()) {
      const unsigned tag = descriptors.take(1);
      Bytes body = descriptors.loop(descriptors.take(1));
      if (!descriptors.ok())
        break;
      if (tag == static_cast<unsigned>(tag::TERRESTRIAL_DELIVERY_SYSTEM) && body.left() >= 5) {
        // terrestrial_delivery_system_descriptor (0x5A, 6.2.13.4)
        add(&entry.freqs, body.take(4));
        entry.known = true;
        entry.base.system = SYS_DVBT;
        entry.base.bandwidth_hz = bandwidth_of(body.take(1) >> 5, {8'000'000, 7'000'000, 6'000'000, 5'000'000});
      } else if (tag == static_cast<unsigned>(tag::FREQUENCY_LIST)) {
        read_frequency_list(body, &entry.freqs);
      } else if (tag == static_cast<unsigned>(tag::CELL_FREQUENCY_LINK)) {
        read_cells(body, &entry.freqs);
      } else if (tag == static_cast<unsigned>(tag::EXTENSION)) {
        read_descriptor(&entry, body.data(), body.left());
      }
    }
    if (entry.known)
      entries_.push_back(entry);
  }
}

// T2_delivery_system_descriptor (0x7F, 0x04, 6.4.6.3). Its short form stands for the pipes of a T2 system whose long
// form another transport stream of it has.
void Announcements::read_descriptor(Entry* entry, const uint8_t* data, size_t size) {
  constexpr unsigned T2_DELIVERY_SYSTEM = 0x04;
  Bytes bytes(data, size);
  if (bytes.take(1) != T2_DELIVERY_SYSTEM || bytes.left() < 3)
    return;
  entry->known = true;
  entry->base.system = SYS_DVBT2;
  entry->base.pipe = static_cast<int>(bytes.take(1));
  entry->t2_system = static_cast<int>(bytes.take(2));
  if (bytes.left() < 2)
    return;
  entry->base.bandwidth_hz =
      bandwidth_of(bytes.take(1) >> 2 & 0x0F, {8'000'000, 7'000'000, 6'000'000, 5'000'000, 10'000'000, 1'712'000});
  const bool several_at_a_time = (bytes.take(1) & 1) != 0;
  while (!bytes.empty()) {
    bytes.skip(2);  // cell_id
    if (several_at_a_time)
      (void)bytes.loop(bytes.take(1));
    else
      add(&entry->freqs, bytes.take(4));
    Bytes subcells = bytes.loop(bytes.take(1));
    if (!several_at_a_time)
      read_subcells(subcells, &entry->freqs);
  }
}

std::vector<Announced_multiplex> Announcements::multiplexes() const {
  std::vector<Announced_multiplex> out;
  const auto put = [&out](Announced_multiplex multiplex, int freq) {
    multiplex.freq = freq;
    const bool known = std::any_of(out.begin(), out.end(), [&](const Announced_multiplex& other) {
      return other.original_network_id == multiplex.original_network_id &&
             other.transport_stream_id == multiplex.transport_stream_id && other.system == multiplex.system &&
             other.freq == freq && other.pipe == multiplex.pipe;
    });
    if (!known && out.size() < MOST_ENTRIES)
      out.push_back(multiplex);
  };
  for (const Entry& entry : entries_) {
    for (const int freq : entry.freqs)
      put(entry.base, freq);
    if (entry.base.system != SYS_DVBT2 || !entry.freqs.empty())
      continue;
    for (const Entry& whole : entries_) {
      if (whole.t2_system != entry.t2_system || whole.base.original_network_id != entry.base.original_network_id)
        continue;
      Announced_multiplex multiplex = entry.base;
      multiplex.bandwidth_hz = whole.base.bandwidth_hz;
      for (const int freq : whole.freqs)
        put(multiplex, freq);
    }
  }
  return out;
}
