// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "si/channel_numbers.h"

#include <algorithm>
#include <cctype>

#include "base/ids.h"
#include "si/byte_reader.h"

namespace {

constexpr unsigned NORDIG = 0x29;
constexpr unsigned UNITED_KINGDOM = 0x233A;

constexpr unsigned BITS = 10;
constexpr unsigned BITS_OF_NORDIG = 14;

// What stands in the last `bits` of two bytes; NONE for what is no number.
int number_of(uint32_t two_bytes, unsigned bits) {
  const uint32_t all_ones = (1U << bits) - 1;
  const uint32_t number = two_bytes & all_ones;
  return number == 0 || (bits == BITS_OF_NORDIG && number == all_ones) ? Channel_number::NONE
                                                                       : static_cast<int>(number);
}

bool is_visible(uint32_t two_bytes) {
  return (two_bytes & 0x8000) != 0;
}

std::string lower(std::span<const uint8_t> letters) {
  std::string text;
  for (const uint8_t letter : letters)
    text += static_cast<char>(std::tolower(letter));
  return text;
}

}  // namespace

struct Channel_numbers::Stream {
  int ts_id;
  int orig_network_id;
  bool other;
};

void Channel_numbers::begin(const std::string& country) {
  country_ = lower({reinterpret_cast<const uint8_t*>(country.data()), country.size()});
  entries_.clear();
  networks_.clear();
}

void Channel_numbers::nit(std::span<const uint8_t> section, bool other) {
  for_each_stream_of_nit(section, [&](int orig_network_id, int ts_id, std::span<const uint8_t> descriptors) {
    if (!other && networks_.size() < MOST)
      networks_.emplace(ts_id, orig_network_id);
    stream({ts_id, orig_network_id, other}, descriptors);
  });
}

void Channel_numbers::stream(const Stream& its, std::span<const uint8_t> descriptors) {
  uint32_t specifier = 0;
  for_each_descriptor(descriptors, [&](unsigned tag, std::span<const uint8_t> body) {
    const bool uk = specifier == UNITED_KINGDOM;
    if (tag == tag::PRIVATE_DATA_SPECIFIER)
      specifier = body.size() >= 4 ? Byte_reader(body).number(4) : 0;
    else if (tag == tag::LOGICAL_CHANNEL)
      numbers(its, body, specifier == NORDIG ? BITS_OF_NORDIG : BITS, !uk);
    else if (tag == tag::LOGICAL_CHANNEL_LISTS && specifier == NORDIG)
      lists(its, body);
    else if (tag == tag::HD_LOGICAL_CHANNEL && specifier != NORDIG && !uk)
      hd_numbers(its, body);
    else if (tag == tag::SERVICE_ATTRIBUTE && uk)
      attributes(its, body);
  });
}

Channel_numbers::Entry* Channel_numbers::entry(const Stream& its, int service_id) {
  const Key key{its.orig_network_id, its.ts_id, service_id};
  const auto known = entries_.find(key);
  if (known != entries_.end() && !known->second.number.other && its.other)
    return nullptr;
  // What another network said gives way to the network's own.
  if (known != entries_.end() && known->second.number.other == its.other)
    return &known->second;
  if (known == entries_.end() && entries_.size() == MOST)
    return nullptr;
  Entry& made = entries_[key];
  made = {};
  made.number.original_network_id = its.orig_network_id;
  made.number.transport_stream_id = its.ts_id;
  made.number.service_id = service_id;
  made.number.other = its.other;
  return &made;
}

void Channel_numbers::numbers(const Stream& its, std::span<const uint8_t> body, unsigned bits, bool has_flag) {
  Byte_reader bytes(body);
  while (bytes.has(4)) {
    Entry* its_entry = entry(its, bytes.id());
    const uint32_t value = bytes.number(2);
    if (its_entry == nullptr || its_entry->rank > RANK_SIMPLE)
      continue;
    its_entry->rank = RANK_SIMPLE;
    its_entry->number.number = number_of(value, bits);
    its_entry->number.visible = !has_flag || is_visible(value);
  }
}

void Channel_numbers::hd_numbers(const Stream& its, std::span<const uint8_t> body) {
  Byte_reader bytes(body);
  while (bytes.has(4)) {
    Entry* its_entry = entry(its, bytes.id());
    const uint32_t value = bytes.number(2);
    if (its_entry == nullptr)
      continue;
    its_entry->number.hd_number = number_of(value, BITS);
    // A service that has no other number is as visible as this one says.
    if (its_entry->rank == RANK_NONE)
      its_entry->number.visible = is_visible(value);
  }
}

// One list: its id, its name, the country, and the services.
void Channel_numbers::lists(const Stream& its, std::span<const uint8_t> body) {
  Byte_reader bytes(body);
  while (bytes.has(2)) {
    const int list_id = static_cast<int>(bytes.number(1));
    const auto name = bytes.take_up_to(bytes.number(1));
    if (!bytes.has(4))
      return;
    const std::string country = lower(bytes.take(3));
    Byte_reader services(bytes.take_up_to(bytes.number(1)));
    const int rank = country_.empty() || country == country_ ? RANK_COUNTRY_LIST : RANK_LIST;
    while (services.has(4)) {
      Entry* its_entry = entry(its, services.id());
      const uint32_t value = services.number(2);
      if (its_entry == nullptr || its_entry->rank > rank || (its_entry->rank == rank && its_entry->list_id < list_id))
        continue;
      its_entry->rank = rank;
      its_entry->list_id = list_id;
      its_entry->number.number = number_of(value, BITS);
      its_entry->number.visible = is_visible(value);
      its_entry->number.list.assign(name.begin(), name.end());
    }
  }
}

void Channel_numbers::attributes(const Stream& its, std::span<const uint8_t> body) {
  Byte_reader bytes(body);
  while (bytes.has(3)) {
    Entry* its_entry = entry(its, bytes.id());
    const bool visible = (bytes.number(1) & 1) != 0;
    if (its_entry != nullptr)
      its_entry->unseen = !visible;
  }
}

int Channel_numbers::original_network_of(int transport_stream_id) const {
  const auto known = networks_.find(transport_stream_id);
  return known == networks_.end() ? -1 : known->second;
}

std::vector<Channel_number> Channel_numbers::all() const {
  std::vector<Channel_number> found;
  for (const auto& [key, its_entry] : entries_) {
    found.push_back(its_entry.number);
    found.back().visible = its_entry.number.visible && !its_entry.unseen;
  }
  return found;
}
