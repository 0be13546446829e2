// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <map>

#include "softdvb/mux/text.h"

namespace softdvb_mux {

struct Descriptor {
  uint8_t tag = 0;
  Bytes data;  // without tag and length
};
using Descriptors = std::vector<Descriptor>;

size_t size_of(const Descriptors& loop);

// Each reads one key's value of a description and appends the descriptors that it stands for.
// libdvbpsi encodes what it can; the others name their clause of EN 300 468.

// `descriptors`: whole descriptors in hexadecimal ("5f04 00000028") or {"tag": 0x5F, "hex": "00000028"}.
void add_raw(const Json_node& owner, const char* key, Descriptors* loop);
void add_private_data_specifier(const Json_node& owner, Descriptors* loop);
void add_ca(const Json_node& owner, Descriptors* loop);

// NIT
void add_network_names(const Json_node& network, const Text_defaults& defaults, Descriptors* loop);
void add_terrestrial_delivery(const Json_node& delivery, Descriptors* loop);
void add_frequency_list(const Json_node& owner, Descriptors* loop);
struct Listed_service {
  uint16_t service_id = 0;
  uint8_t type = 1;
  bool has_lcn = false;
  uint16_t lcn = 0;
  bool visible = true;
};
void add_service_list(const std::vector<Listed_service>& services, Descriptors* loop);
void add_lcn(const std::vector<Listed_service>& services, Descriptors* loop);
Listed_service read_listed_service(const Json_node& node);
void read_lcn(const Json_node& node, Listed_service* service);

// SDT
void add_service(const Json_node& service, uint8_t type, const Text_defaults& defaults, Descriptors* loop);

// PMT, elementary streams
void add_languages(const Json_node& stream, Descriptors* loop);
void add_ac3(const Json_node& stream, bool ac3, bool eac3, Descriptors* loop);
void add_teletext(const Json_node& stream, Descriptors* loop);
void add_subtitles(const Json_node& stream, Descriptors* loop);
void add_stream_identifier(const Json_node& stream, Descriptors* loop);

// EIT
void add_short_events(const Json_node& event, const Text_defaults& defaults, Descriptors* loop);
void add_extended_events(const Json_node& event, const Text_defaults& defaults, Descriptors* loop);
void add_components(const Json_node& event, const Text_defaults& defaults, Descriptors* loop);
void add_content(const Json_node& event, Descriptors* loop);
void add_rating(const Json_node& event, Descriptors* loop);

// TOT
void add_time_offsets(const Json_node& time, int64_t now, Descriptors* loop);

// Seconds since 1970 as 40 bits: Modified Julian Date and six BCD digits (EN 300 468, annex C).
uint64_t mjd_bcd(int64_t epoch);
// Seconds as six BCD digits, hours first.
uint32_t bcd_duration(int64_t seconds);

}  // namespace softdvb_mux
