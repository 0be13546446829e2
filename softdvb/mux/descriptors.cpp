// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/mux/descriptors.h"

#include <algorithm>
#include <cstring>

#include <fmt/format.h>

#include "base/ids.h"
#include "softdvb/mux/dvbpsi_glue.h"

extern "C" {
#include <dvbpsi/dr_09.h>
#include <dvbpsi/dr_0a.h>
#include <dvbpsi/dr_40.h>
#include <dvbpsi/dr_48.h>
#include <dvbpsi/dr_52.h>
#include <dvbpsi/dr_56.h>
#include <dvbpsi/dr_5a.h>
#include <dvbpsi/dr_83.h>
}

namespace softdvb_mux {

namespace {

void append(Bytes* to, const Bytes& from) {
  to->insert(to->end(), from.begin(), from.end());
}

void append_u32(Bytes* to, uint64_t value) {
  for (int shift = 24; shift >= 0; shift -= 8)
    to->push_back(static_cast<uint8_t>(value >> shift));
}

void append_language(Bytes* to, const std::string& language) {
  to->insert(to->end(), language.begin(), language.end());
}

// The length is one byte; more would silently become another descriptor.
void add_checked(const Json_node& where, uint8_t tag, Bytes data, Descriptors* loop) {
  if (data.size() > 255)
    where.fail(fmt::format("the descriptor 0x{:02X} would take {} bytes, at most 255 are allowed", tag, data.size()));
  loop->push_back({tag, std::move(data)});
}

void limit(const Json_node& where, size_t count, size_t most) {
  if (count > most)
    where.fail(fmt::format("{} entries, at most {} fit into the descriptor", count, most));
}

// As many as an LCN descriptor holds; the service list keeps the same limit.
constexpr size_t SERVICES_A_DESCRIPTOR = 63;

const std::vector<std::pair<const char*, unsigned>> SERVICE_TYPES = {
    {"tv", 0x01},          {"radio", 0x02},      {"teletext", 0x03},   {"radio-avc", 0x0A}, {"data", 0x0C},
    {"tv-hd-mpeg2", 0x11}, {"tv-sd-h264", 0x16}, {"tv-hd-h264", 0x19}, {"tv-hevc", 0x1F}};

}  // namespace

size_t size_of(const Descriptors& loop) {
  size_t size = 0;
  for (const Descriptor& descriptor : loop)
    size += 2 + descriptor.data.size();
  return size;
}

void add_raw(const Json_node& owner, const char* key, Descriptors* loop) {
  for (const Json_node& node : owner.list(key)) {
    if (node.value().is_object()) {
      node.allow_only({"tag", "hex"});
      const auto tag = static_cast<uint8_t>(node.get("tag").number(0, 255));
      add_checked(node, tag, node.get("hex").hex(), loop);
      continue;
    }
    // Copied from an analyser, with tag and length in front, which is the handiest form.
    Bytes whole = node.hex();
    if (whole.size() < 2 || whole.size() != size_t{2} + whole[1])
      node.fail(
          "the second byte of a descriptor must be the number of bytes after it, or use {\"tag\": .., \"hex\": ..}");
    const uint8_t tag = whole[0];
    whole.erase(whole.begin(), whole.begin() + 2);
    loop->push_back({tag, std::move(whole)});
  }
}

// EN 300 468, 6.2.31
void add_private_data_specifier(const Json_node& owner, Descriptors* loop) {
  if (!owner.has("private_data_specifier"))
    return;
  Bytes data;
  append_u32(&data, owner.get("private_data_specifier").number(0, 0xFFFFFFFF));
  loop->push_back({tag::PRIVATE_DATA_SPECIFIER, data});
}

void add_ca(const Json_node& owner, Descriptors* loop) {
  for (const Json_node& node : owner.list("ca")) {
    node.allow_only({"system_id", "pid", "private"});
    dvbpsi_ca_dr_t ca = {};
    ca.i_ca_system_id = static_cast<uint16_t>(node.get("system_id").number(0, 0xFFFF));
    ca.i_ca_pid = static_cast<uint16_t>(node.get("pid").number(0, pid::LAST));
    if (node.has("private")) {
      const Bytes data = node.get("private").hex();
      // libdvbpsi's records have arrays of fixed size.
      limit(node.get("private"), data.size(), sizeof ca.i_private_data);
      ca.i_private_length = static_cast<uint8_t>(data.size());
      std::copy(data.begin(), data.end(), ca.i_private_data);
    }
    loop->push_back(taken(dvbpsi_GenCADr(&ca, false)));
  }
}

void add_network_names(const Json_node& network, const Text_defaults& defaults, Descriptors* loop) {
  if (network.has("name")) {
    const Bytes name = read_text(network.get("name"), defaults, 255);
    dvbpsi_network_name_dr_t record = {};
    record.i_name_length = static_cast<uint8_t>(name.size());
    std::copy(name.begin(), name.end(), record.i_name_byte);
    loop->push_back(taken(dvbpsi_GenNetworkNameDr(&record, false)));
  }
  if (!network.has("names"))
    return;
  // EN 300 468, 6.2.24
  Bytes data;
  for (const Json_node& node : network.list("names")) {
    node.allow_only({"language", "charset", "name"});
    const Text_defaults mine = defaults.inside(node);
    const Bytes name = read_text(node.get("name"), mine, 251);
    append_language(&data, mine.language);
    data.push_back(static_cast<uint8_t>(name.size()));
    append(&data, name);
  }
  add_checked(network.get("names"), tag::MULTILINGUAL_NETWORK_NAME, data, loop);
}

void add_terrestrial_delivery(const Json_node& delivery, Descriptors* loop) {
  delivery.allow_only({"frequency", "bandwidth", "priority", "time_slicing", "mpe_fec", "constellation", "hierarchy",
                       "code_rate_hp", "code_rate_lp", "guard_interval", "mode", "other_frequency"});
  // Values of EN 300 468, 6.2.13.4; "priority": high is the bit 1, time slicing and MPE-FEC in use are the bit 0.
  dvbpsi_terr_deliv_sys_dr_t record = {};
  const uint64_t hz = delivery.get("frequency").number(0, 42949672950);
  // Rounded silently the value would not be found again in what a receiver stored.
  if (hz % 10 != 0)
    delivery.get("frequency").fail("the frequency is broadcast in steps of 10 Hz, use a multiple of 10");
  record.i_centre_frequency = static_cast<uint32_t>(hz / 10);
  if (delivery.has("bandwidth")) {
    const uint64_t mhz = delivery.get("bandwidth").number(5, 8);
    record.i_bandwidth = static_cast<uint8_t>(8 - mhz);
  }
  record.i_priority = delivery.flag_or("priority", true) ? 1 : 0;
  record.i_time_slice_indicator = delivery.flag_or("time_slicing", false) ? 0 : 1;
  record.i_mpe_fec_indicator = delivery.flag_or("mpe_fec", false) ? 0 : 1;
  record.i_constellation =
      static_cast<uint8_t>(delivery.choice_or("constellation", {{"QPSK", 0}, {"16-QAM", 1}, {"64-QAM", 2}}, 2));
  record.i_hierarchy_information = static_cast<uint8_t>(delivery.choice_or("hierarchy",
                                                                           {{"none", 0},
                                                                            {"1", 1},
                                                                            {"2", 2},
                                                                            {"4", 3},
                                                                            {"none-in-depth", 4},
                                                                            {"1-in-depth", 5},
                                                                            {"2-in-depth", 6},
                                                                            {"4-in-depth", 7}},
                                                                           0));
  const auto rate = [&](const char* key) {
    return static_cast<uint8_t>(
        delivery.choice_or(key, {{"1/2", 0}, {"2/3", 1}, {"3/4", 2}, {"5/6", 3}, {"7/8", 4}}, key[10] == 'h' ? 1 : 0));
  };
  record.i_code_rate_hp_stream = rate("code_rate_hp");
  record.i_code_rate_lp_stream = rate("code_rate_lp");
  record.i_guard_interval =
      static_cast<uint8_t>(delivery.choice_or("guard_interval", {{"1/32", 0}, {"1/16", 1}, {"1/8", 2}, {"1/4", 3}}, 2));
  record.i_transmission_mode = static_cast<uint8_t>(delivery.choice_or("mode", {{"2k", 0}, {"8k", 1}, {"4k", 2}}, 1));
  record.i_other_frequency_flag = delivery.flag_or("other_frequency", false) ? 1 : 0;
  loop->push_back(taken(dvbpsi_GenTerrDelivSysDr(&record, false)));
}

// EN 300 468, 6.2.17; coding_type 3 is terrestrial, in units of 10 Hz.
void add_frequency_list(const Json_node& owner, Descriptors* loop) {
  if (!owner.has("frequencies"))
    return;
  // Six reserved bits, then the coding.
  Bytes data = {0xFF};
  for (const Json_node& node : owner.list("frequencies")) {
    const uint64_t hz = node.number(0, 42949672950);
    if (hz % 10 != 0)
      node.fail("the frequency is broadcast in steps of 10 Hz, use a multiple of 10");
    append_u32(&data, hz / 10);
  }
  add_checked(owner.get("frequencies"), tag::FREQUENCY_LIST, data, loop);
}

// EN 300 468, 6.2.35. libdvbpsi's generator gives it the tag of another descriptor.
void add_service_list(const std::vector<Listed_service>& services, Descriptors* loop) {
  for (size_t first = 0; first < services.size(); first += SERVICES_A_DESCRIPTOR) {
    Bytes data;
    for (size_t i = first; i < services.size() && i < first + SERVICES_A_DESCRIPTOR; ++i) {
      data.push_back(static_cast<uint8_t>(services[i].service_id >> 8));
      data.push_back(static_cast<uint8_t>(services[i].service_id));
      data.push_back(services[i].type);
    }
    loop->push_back({tag::SERVICE_LIST, data});
  }
}

void add_lcn(const std::vector<Listed_service>& services, Descriptors* loop) {
  std::vector<Listed_service> numbered;
  std::copy_if(services.begin(), services.end(), std::back_inserter(numbered),
               // Services without a number are left to the receiver, which gives them one.
               [](const Listed_service& service) { return service.has_lcn; });
  // What does not fit goes into another descriptor, as broadcasters do it.
  for (size_t first = 0; first < numbered.size(); first += SERVICES_A_DESCRIPTOR) {
    dvbpsi_lcn_dr_t record = {};
    for (size_t i = first; i < numbered.size() && i < first + SERVICES_A_DESCRIPTOR; ++i) {
      auto& entry = record.p_entries[record.i_number_of_entries++];
      entry.i_service_id = numbered[i].service_id;
      entry.b_visible_service_flag = numbered[i].visible ? 1 : 0;
      entry.i_logical_channel_number = numbered[i].lcn;
    }
    loop->push_back(taken(dvbpsi_GenLCNDr(&record, false)));
    // libdvbpsi leaves the five reserved bits 0; broadcasters send them as 1.
    for (size_t i = 2; i < loop->back().data.size(); i += 4)
      loop->back().data[i] |= 0x7C;
  }
}

void read_lcn(const Json_node& node, Listed_service* service) {
  service->has_lcn = true;
  if (node.value().is_object()) {
    node.allow_only({"number", "visible"});
    service->lcn = static_cast<uint16_t>(node.get("number").number(0, 1023));
    service->visible = node.flag_or("visible", true);
  } else {
    service->lcn = static_cast<uint16_t>(node.number(0, 1023));
  }
}

Listed_service read_listed_service(const Json_node& node) {
  Listed_service service;
  service.service_id = static_cast<uint16_t>(node.get("service_id").number(0, 0xFFFF));
  if (node.has("type"))
    service.type = static_cast<uint8_t>(node.get("type").choice_or_number(SERVICE_TYPES, 255));
  if (node.has("lcn"))
    read_lcn(node.get("lcn"), &service);
  return service;
}

void add_service(const Json_node& service, uint8_t type, const Text_defaults& defaults, Descriptors* loop) {
  if (service.has("name") || service.has("provider")) {
    const Bytes none;
    const Bytes provider = service.has("provider") ? read_text(service.get("provider"), defaults, 252) : none;
    const Bytes name = service.has("name") ? read_text(service.get("name"), defaults, 252) : none;
    // Type and two lengths take the other three bytes of the descriptor.
    if (provider.size() + name.size() > 252)
      service.fail("name and provider together take more than 252 bytes");
    dvbpsi_service_dr_t record = {};
    record.i_service_type = type;
    record.i_service_provider_name_length = static_cast<uint8_t>(provider.size());
    std::copy(provider.begin(), provider.end(), record.i_service_provider_name);
    record.i_service_name_length = static_cast<uint8_t>(name.size());
    std::copy(name.begin(), name.end(), record.i_service_name);
    loop->push_back(taken(dvbpsi_GenServiceDr(&record, false)));
  }
  if (!service.has("names"))
    return;
  // EN 300 468, 6.2.25
  Bytes data;
  for (const Json_node& node : service.list("names")) {
    node.allow_only({"language", "charset", "name", "provider"});
    const Text_defaults mine = defaults.inside(node);
    const Bytes none;
    append_language(&data, mine.language);
    for (const char* key : {"provider", "name"}) {
      const Bytes text = node.has(key) ? read_text(node.get(key), mine, 250) : none;
      data.push_back(static_cast<uint8_t>(text.size()));
      append(&data, text);
    }
  }
  add_checked(service.get("names"), tag::MULTILINGUAL_SERVICE_NAME, data, loop);
}

void add_languages(const Json_node& stream, Descriptors* loop) {
  if (!stream.has("languages"))
    return;
  const auto nodes = stream.list("languages");
  // Four bytes each.
  limit(stream.get("languages"), nodes.size(), 63);
  dvbpsi_iso639_dr_t record = {};
  for (const Json_node& node : nodes) {
    auto& entry = record.code[record.i_code_count++];
    std::string language;
    if (node.value().is_object()) {
      node.allow_only({"language", "audio_type"});
      language = node.get("language").three_letters();
      entry.i_audio_type = static_cast<uint8_t>(node.number_or("audio_type", 0, 255, 0));
    } else {
      language = node.three_letters();
    }
    std::memcpy(entry.iso_639_code, language.data(), 3);
  }
  loop->push_back(taken(dvbpsi_GenISO639Dr(&record, false)));
}

// EN 300 468, D.3 (AC-3, 0x6A) and D.5 (enhanced AC-3, 0x7A): the first four flags say which fields follow.
void add_ac3(const Json_node& stream, bool ac3, bool eac3, Descriptors* loop) {
  for (const auto& [key, tag, wanted] :
       {std::tuple{"ac3", tag::AC3, ac3}, std::tuple{"eac3", tag::ENHANCED_AC3, eac3}}) {
    if (!stream.has(key)) {
      if (wanted)
        loop->push_back({static_cast<uint8_t>(tag), {0x00}});
      continue;
    }
    const Json_node node = stream.get(key);
    node.allow_only({"component_type", "bsid", "mainid", "asvc"});
    Bytes data = {0x00};
    unsigned flag = 0x80;
    for (const char* field : {"component_type", "bsid", "mainid", "asvc"}) {
      if (node.has(field)) {
        data[0] = static_cast<uint8_t>(data[0] | flag);
        data.push_back(static_cast<uint8_t>(node.get(field).number(0, 255)));
      }
      flag >>= 1;
    }
    loop->push_back({static_cast<uint8_t>(tag), data});
  }
}

void add_teletext(const Json_node& stream, Descriptors* loop) {
  if (!stream.has("teletext"))
    return;
  const auto nodes = stream.list("teletext");
  // Five bytes each.
  limit(stream.get("teletext"), nodes.size(), 51);
  dvbpsi_teletext_dr_t record = {};
  for (const Json_node& node : nodes) {
    node.allow_only({"language", "type", "magazine", "page"});
    auto& entry = record.p_pages[record.i_pages_number++];
    std::memcpy(entry.i_iso6392_language_code, node.get("language").three_letters().data(), 3);
    entry.i_teletext_type = static_cast<uint8_t>(node.number_or("type", 0, 31, 1));
    entry.i_teletext_magazine_number = static_cast<uint8_t>(node.number_or("magazine", 0, 7, 1));
    entry.i_teletext_page_number = static_cast<uint8_t>(node.number_or("page", 0, 255, 0));
  }
  loop->push_back(taken(dvbpsi_GenTeletextDr(&record, false)));
}

// EN 300 468, 6.2.41. libdvbpsi's generator mixes the bytes of a composition page above 255.
void add_subtitles(const Json_node& stream, Descriptors* loop) {
  if (!stream.has("subtitles"))
    return;
  Bytes data;
  for (const Json_node& node : stream.list("subtitles")) {
    node.allow_only({"language", "type", "composition_page", "ancillary_page"});
    append_language(&data, node.get("language").three_letters());
    data.push_back(static_cast<uint8_t>(node.number_or("type", 0, 255, 0x10)));
    for (const char* key : {"composition_page", "ancillary_page"}) {
      const uint64_t page = node.number_or(key, 0, 0xFFFF, 1);
      data.push_back(static_cast<uint8_t>(page >> 8));
      data.push_back(static_cast<uint8_t>(page));
    }
  }
  add_checked(stream.get("subtitles"), tag::SUBTITLING, data, loop);
}

void add_stream_identifier(const Json_node& stream, Descriptors* loop) {
  if (!stream.has("component_tag"))
    return;
  dvbpsi_stream_identifier_dr_t record = {};
  record.i_component_tag = static_cast<uint8_t>(stream.get("component_tag").number(0, 255));
  loop->push_back(taken(dvbpsi_GenStreamIdentifierDr(&record, false)));
}

}  // namespace softdvb_mux
