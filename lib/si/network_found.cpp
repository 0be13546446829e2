// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The frequencies that a NIT announces. Read from the section's bytes, because not every implementation of the classes
// knows these descriptors.
#include "si/network_found.h"

#include <linux/dvb/frontend.h>

#include <algorithm>
#include <cstddef>
#include <iterator>

#include <climits>

#include "base/ids.h"
#include "si/byte_reader.h"

namespace {

constexpr size_t TERRESTRIAL_SIZE = 11;
constexpr size_t MOST_DELIVERIES = 16;  // of one transport stream
constexpr int HZ_OF_A_STEP = 10;
constexpr unsigned CODING_TERRESTRIAL = 3;

int bandwidth_of_t(unsigned code) {
  constexpr int HZ[] = {8000000, 7000000, 6000000, 5000000};
  return code < std::size(HZ) ? HZ[code] : 0;
}

int bandwidth_of_t2(unsigned code) {
  constexpr int HZ[] = {8000000, 7000000, 6000000, 5000000, 10000000, 1712000};
  return code < std::size(HZ) ? HZ[code] : 0;
}

// 0 for what stands for no frequency, or is none that anybody broadcasts on.
int hz(uint32_t tens_of_hz) {
  return tens_of_hz <= uint32_t{INT_MAX} / HZ_OF_A_STEP ? static_cast<int>(tens_of_hz) * HZ_OF_A_STEP : 0;
}

// The transposers that follow a cell: an extension of its id and a frequency each.
template <typename Each>
void for_each_transposer(Byte_reader& bytes, Each each) {
  if (bytes.empty())
    return;
  Byte_reader transposers(bytes.take_up_to(bytes.number(1)));
  while (transposers.has(5)) {
    (void)transposers.take(1);
    each(transposers.number(4));
  }
}

}  // namespace

void Network_found::pat(int ts_id) {
  if (transport_stream_id_ == -1)
    transport_stream_id_ = ts_id;
}

void Network_found::sdt(int orig_network_id, int ts_id) {
  original_network_id_ = orig_network_id;
  transport_stream_id_ = ts_id;
}

void Network_found::nit(std::span<const uint8_t> section) {
  for_each_stream_of_nit(section, [&](int orig_network_id, int ts_id, std::span<const uint8_t> descriptors) {
    Stream its{};
    its.ts_id = ts_id;
    its.orig_network_id = orig_network_id;
    stream(its, descriptors);
  });
}

// How it is sent is said before or behind its further frequencies.
void Network_found::stream(Stream& its, std::span<const uint8_t> descriptors) {
  for_each_descriptor(descriptors, [&](unsigned tag, std::span<const uint8_t> body) {
    if (tag == tag::TERRESTRIAL_DELIVERY_SYSTEM)
      terrestrial(its, body);
    else if (tag == tag::EXTENSION && !body.empty() && body[0] == extension_tag::T2_DELIVERY_SYSTEM)
      t2(its, body.subspan(1));
  });
  if (its.deliveries.empty())
    its.deliveries.push_back({0, 0, -1});
  for_each_descriptor(descriptors, [&](unsigned tag, std::span<const uint8_t> body) {
    if (tag == tag::FREQUENCY_LIST || tag == tag::CELL_FREQUENCY_LINK)
      other_frequencies(its, tag, body);
  });
}

// terrestrial_delivery_system_descriptor (6.2.13.4)
void Network_found::terrestrial(Stream& its, std::span<const uint8_t> body) {
  if (body.size() < TERRESTRIAL_SIZE || its.deliveries.size() == MOST_DELIVERIES)
    return;
  Byte_reader bytes(body);
  const uint32_t frequency = bytes.number(4);
  its.deliveries.push_back({SYS_DVBT, bandwidth_of_t(bytes.number(1) >> 5), -1});
  add(its, frequency, its.deliveries.back());
}

// T2_delivery_system_descriptor (6.4.6.3), from plp_id on. Where frequencies are sent in slices, each counts.
void Network_found::t2(Stream& its, std::span<const uint8_t> body) {
  Byte_reader bytes(body);
  if (!bytes.has(3) || its.deliveries.size() == MOST_DELIVERIES)
    return;
  const int pipe = static_cast<int>(bytes.number(1));
  const int system_id = bytes.id();
  int bandwidth_hz = 0;
  const auto frequency = [&](uint32_t tens_of_hz) {
    if (hz(tens_of_hz) != 0)
      t2_frequency({system_id, hz(tens_of_hz), bandwidth_hz});
  };
  const T2_pipe found{system_id, its.orig_network_id, its.ts_id, pipe};
  if (t2_pipes_.size() < MOST_ANNOUNCED && std::find(t2_pipes_.begin(), t2_pipes_.end(), found) == t2_pipes_.end()) {
    t2_pipes_.push_back(found);
    for (const T2_frequency& known : t2_frequencies_)
      if (known.system_id == system_id)
        add({its.orig_network_id, its.ts_id, SYS_DVBT2, known.freq, known.bandwidth_hz, pipe});
  }
  if (bytes.has(2)) {
    bandwidth_hz = bandwidth_of_t2(bytes.number(1) >> 2 & 0x0F);
    const bool in_slices = (bytes.number(1) & 1) != 0;
    while (bytes.has(3)) {
      (void)bytes.take(2);  // cell_id
      const size_t frequencies = in_slices ? bytes.number(1) / 4 : 1;
      for (size_t i = 0; i < frequencies && bytes.has(4); ++i)
        frequency(bytes.number(4));
      for_each_transposer(bytes, frequency);
    }
  }
  its.deliveries.push_back({SYS_DVBT2, bandwidth_hz, pipe});
}

// All pipes of a system are on all its frequencies, whichever of their descriptors lists them.
void Network_found::t2_frequency(const T2_frequency& found) {
  if (t2_frequencies_.size() == MOST_ANNOUNCED ||
      std::find(t2_frequencies_.begin(), t2_frequencies_.end(), found) != t2_frequencies_.end())
    return;
  t2_frequencies_.push_back(found);
  for (const T2_pipe& known : t2_pipes_)
    if (known.system_id == found.system_id)
      add({known.orig_network_id, known.ts_id, SYS_DVBT2, found.freq, found.bandwidth_hz, known.pipe});
}

// frequency_list_descriptor (6.2.17) and cell_frequency_link_descriptor (6.2.6)
void Network_found::other_frequencies(const Stream& its, unsigned tag, std::span<const uint8_t> body) {
  Byte_reader bytes(body);
  const auto frequency = [&](uint32_t tens_of_hz) {
    for (const Delivery& delivery : its.deliveries)
      add(its, tens_of_hz, delivery);
  };
  if (tag == tag::FREQUENCY_LIST) {
    if (bytes.empty() || (bytes.number(1) & 3) != CODING_TERRESTRIAL)
      return;
    while (bytes.has(4))
      frequency(bytes.number(4));
    return;
  }
  while (bytes.has(6)) {
    (void)bytes.take(2);  // cell_id
    frequency(bytes.number(4));
    for_each_transposer(bytes, frequency);
  }
}

void Network_found::add(const Stream& its, uint32_t tens_of_hz, const Delivery& delivery) {
  if (const int freq = hz(tens_of_hz))
    add({its.orig_network_id, its.ts_id, delivery.system, freq, delivery.bandwidth_hz, delivery.pipe});
}

void Network_found::add(const Announced_multiplex& multiplex) {
  const auto same = [&](const Announced_multiplex& known) {
    return known.freq == multiplex.freq && known.pipe == multiplex.pipe && known.system == multiplex.system &&
           known.transport_stream_id == multiplex.transport_stream_id &&
           known.original_network_id == multiplex.original_network_id;
  };
  if (announced_.size() < MOST_ANNOUNCED && std::none_of(announced_.begin(), announced_.end(), same))
    announced_.push_back(multiplex);
}

bool Sections_seen::arrived(int version, int number, int last) {
  if (version != version_ || last != last_) {
    *this = {};
    version_ = version;
    last_ = last;
  }
  const auto bit = static_cast<size_t>(number & 0xFF);
  if (seen_[bit]) {
    ++repeats_;
    return false;
  }
  seen_[bit] = true;
  repeats_ = 0;
  return true;
}

bool Sections_seen::complete() const {
  const size_t come = seen_.count();
  return come > static_cast<size_t>(last_) || (come != 0 && repeats_ >= REPEATS * come);
}
