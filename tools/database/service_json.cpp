// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/database/service_json.h"

#include "tools/database/channel_id.h"
#include "tools/database/delivery_words.h"
#include "tools/database/stream_words.h"

namespace {

nlohmann::ordered_json or_null(const std::string& text) {
  return text.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(text);
}

nlohmann::ordered_json or_null(int number, int unknown) {
  return number == unknown ? nlohmann::ordered_json() : nlohmann::ordered_json(number);
}

nlohmann::ordered_json to_json(const Delivery& delivery) {
  return {{"system", or_null(delivery_system_name(delivery.system))},
          {"frequency", delivery.freq},
          {"bandwidth", or_null(delivery.bandwidth_hz, 0)},
          {"modulation", or_null(modulation_name(delivery.modulation))},
          {"plp", or_null(delivery.pipe, -1)}};
}

// Keys stay in the order of writing, so that two lists can be compared line by line. What is unknown is null and not
// left out, so that programs can rely on the key; only what hardly any stream has, its scrambling, is left out, and
// what only databases have that streams are described in.
nlohmann::ordered_json to_json(const Stream& stream) {
  nlohmann::ordered_json out{{"pid", stream.pid}, {"kind", stream.kind}};
  out["codec"] = or_null(stream.codec);
  out["stream_type"] = stream.stream_type;
  out["languages"] = stream.languages;
  if (stream.ca_system != 0) {
    out["ca_system"] = stream.ca_system;
    out["ca_pid"] = stream.ca_pid;
  }
  if (stream.described) {
    out["profile"] = or_null(stream.profile);
    out["component_tag"] =
        stream.component_tag < 0 ? nlohmann::ordered_json() : nlohmann::ordered_json(stream.component_tag);
    out["roles"] = nlohmann::ordered_json::array();
    for (const Language_role& role : stream.roles) {
      out["roles"].push_back({{"language", role.language},
                              {"role", or_null(role.role)},
                              {"page", role.page == 0 ? nlohmann::ordered_json() : nlohmann::ordered_json(role.page)}});
    }
  }
  return out;
}

}  // namespace

// The numbers of the standard stand beside the words made of them: the words are for people and may change.
nlohmann::ordered_json to_json(const Service& service) {
  nlohmann::ordered_json out;
  out["channel"] = service.channel;
  out["id"] = channel_id(service);
  out["lcn"] = service.lcn == NO_LCN ? nlohmann::ordered_json() : nlohmann::ordered_json(service.lcn);
  out["name"] = service.name;
  if (!service.names.empty()) {
    out["names"] = service.names;
  }
  out["type"] = type_text(service);
  out["service_type"] = service.type;
  out["provider"] = service.provider;
  out["network"] = service.network;
  out["frequency"] = service.freq;
  out["delivery"] = to_json(service.delivery);
  out["service_id"] = service.program_number;
  out["transport_stream_id"] = service.transport_stream_id;
  out["network_id"] = service.network_id;
  out["original_network_id"] = service.original_network_id;
  out["pmt_pid"] = service.pmt_pid;
  out["pcr_pid"] = service.pcr_pid;
  out["scrambled"] = service.scrambled;
  out["ca_systems"] = ca_numbers(service);
  if (!service.ca.empty()) {
    out["ca"] = nlohmann::ordered_json::array();
    for (const Service_ca& ca : service.ca) {
      out["ca"].push_back({{"system", ca.system},
                           {"name", or_null(ca_name(ca.system))},
                           {"pid", ca.pid},
                           {"stream", ca.stream == 0 ? nlohmann::ordered_json() : nlohmann::ordered_json(ca.stream)}});
    }
  }
  out["visible"] = service.visible;
  out["state"] = state_text(service);
  out["streams"] = nlohmann::ordered_json::array();
  for (const Stream& stream : service.streams) {
    out["streams"].push_back(to_json(stream));
  }
  return out;
}

nlohmann::ordered_json channels_json(const std::vector<Service>& services) {
  nlohmann::ordered_json out{{"format", "kelvo-channels"}, {"version", CHANNELS_JSON_VERSION}};
  out["channels"] = nlohmann::ordered_json::array();
  for (const Service& service : services) {
    out["channels"].push_back(to_json(service));
  }
  return out;
}
