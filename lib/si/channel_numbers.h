// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <tuple>
#include <vector>

// The logical channel number of one service, as a NIT gives it.
struct Channel_number {
  int original_network_id = 0;
  int transport_stream_id = 0;
  int service_id = 0;
  int number = NONE;     // of descriptor 0x83 or 0x87
  int hd_number = NONE;  // of descriptor 0x88
  bool visible = true;   // what the descriptor that decides says
  bool other = false;    // of a NIT of another network
  std::string list;      // NorDig's second version: the list's name as broadcast; else empty

  static constexpr int NONE = 65535;
};

// The channel numbers of all services that the NITs of a scan name, whatever their flavour; not installed. There is no
// public standard for all: who defined a descriptor is said by the private_data_specifier_descriptor before it in the
// loop (EN 300 468, 6.2.31).
//
//   none, EACEM (0x28), others   0x83: visible_service_flag and 10 bits; 0x88: the same for receivers of HD
//   NorDig (0x29)                0x83: visible_service_flag and 14 bits; 0x87: lists for countries, 10 bits; where
//                                services have both, 0x87 counts
//   United Kingdom (0x233A)      0x83: 10 bits; 0x86: numeric_selection_flag and visible_service_flag
//
// 0 and all bits one (10 bits: 0 alone) are no numbers. One thread at a time.
class Channel_numbers {
 public:
  // A scan begins. `country`, three letters or none, chooses among NorDig's lists; else the lowest list_id does.
  void begin(const std::string& country);

  // One whole NIT section of the actual or of another network. What another network says counts only for services that
  // the actual one does not number. Whatever the bytes hold, nothing behind them is looked at.
  void nit(std::span<const uint8_t> section, bool other);

  // The original network that the actual network's NIT gives this transport stream; -1 when it does not name it.
  int original_network_of(int transport_stream_id) const;

  // What was found, by ids, no more than MOST.
  std::vector<Channel_number> all() const;

  static constexpr size_t MOST = 4096;

 private:
  using Key = std::tuple<int, int, int>;
  // How much a number counts: the highest of several does, the last of equal ones.
  enum Rank { RANK_NONE, RANK_SIMPLE, RANK_LIST, RANK_COUNTRY_LIST };
  struct Entry {
    Channel_number number;
    int rank = RANK_NONE;
    int list_id = 256;
    bool unseen = false;  // a descriptor of its own says that it is not visible
  };
  struct Stream;

  void stream(const Stream& its, std::span<const uint8_t> descriptors);
  void numbers(const Stream& its, std::span<const uint8_t> body, unsigned bits, bool has_flag);
  void hd_numbers(const Stream& its, std::span<const uint8_t> body);
  void lists(const Stream& its, std::span<const uint8_t> body);
  void attributes(const Stream& its, std::span<const uint8_t> body);
  Entry* entry(const Stream& its, int service_id);

  std::string country_;
  std::map<Key, Entry> entries_;
  std::map<int, int> networks_;  // of the actual network's NIT, by transport stream
};
