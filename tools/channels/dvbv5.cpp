// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <linux/dvb/frontend.h>

#include <fmt/format.h>

#include "tools/channels/list_format.h"

// The channel file of libdvbv5: dvbv5-zap and what else stands on that library.
namespace {

std::string constellation(int modulation) {
  switch (modulation) {
    case QPSK:
      return "QPSK";
    case QAM_16:
      return "QAM/16";
    case QAM_64:
      return "QAM/64";
    case QAM_256:
      return "QAM/256";
    default:
      return "QAM/AUTO";
  }
}

std::string pids(const Service& service, const char* kind) {
  std::string out;
  for (const Stream& stream : service.streams) {
    if (stream.kind == kind) {
      out += fmt::format("{}{}", out.empty() ? "" : " ", stream.pid);
    }
  }
  return out;
}

void add(std::string* out, const char* key, const std::string& value) {
  if (!value.empty()) {
    *out += fmt::format("\t{} = {}\n", key, value);
  }
}

}  // namespace

List_text write_dvbv5(const std::vector<Service>& services, const List_options& /*options*/) {
  std::string out;
  for (const List_entry& channel : list_entries(services)) {
    const Service& service = *channel.service;
    const Delivery& delivery = service.delivery;
    const bool second = delivery.system == SYS_DVBT2;
    out += fmt::format("{}[{}]\n", out.empty() ? "" : "\n", channel.name);
    add(&out, "SERVICE_ID", std::to_string(service.program_number));
    add(&out, "NETWORK_ID", std::to_string(service.original_network_id));
    add(&out, "TRANSPORT_ID", std::to_string(service.transport_stream_id));
    if (service.lcn != NO_LCN) {
      add(&out, "VCHANNEL", std::to_string(service.lcn));
    }
    add(&out, "VIDEO_PID", pids(service, "video"));
    add(&out, "AUDIO_PID", pids(service, "audio"));
    add(&out, "DELIVERY_SYSTEM", second ? "DVBT2" : "DVBT");
    add(&out, "FREQUENCY", std::to_string(delivery.freq));
    add(&out, "BANDWIDTH_HZ", delivery.bandwidth_hz == 0 ? "AUTO" : std::to_string(delivery.bandwidth_hz));
    add(&out, "MODULATION", constellation(delivery.modulation));
    for (const char* key :
         {"CODE_RATE_HP", "CODE_RATE_LP", "GUARD_INTERVAL", "TRANSMISSION_MODE", "HIERARCHY", "INVERSION"}) {
      add(&out, key, "AUTO");
    }
    if (second && delivery.pipe >= 0) {
      add(&out, "STREAM_ID", std::to_string(delivery.pipe));
    }
  }
  return {out, {}};
}
