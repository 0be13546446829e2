// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <linux/dvb/frontend.h>

#include <fmt/format.h>

#include "tools/channels/list_format.h"
#include "tools/cli/text.h"

// channels.conf of tzap and of players that read the same.
namespace {

std::string bandwidth_name(int hz) {
  switch (hz) {
    case 6000000:
    case 7000000:
    case 8000000:
      return fmt::format("BANDWIDTH_{}_MHZ", hz / 1000000);
    default:
      return "BANDWIDTH_AUTO";
  }
}

std::string constellation_name(int modulation) {
  switch (modulation) {
    case QPSK:
      return "QPSK";
    case QAM_16:
      return "QAM_16";
    case QAM_64:
      return "QAM_64";
    default:
      return "QAM_AUTO";
  }
}

int first_pid(const Service& service, const char* kind) {
  for (const Stream& stream : service.streams) {
    if (stream.kind == kind) {
      return stream.pid;
    }
  }
  return 0;
}

}  // namespace

List_text write_zap(const std::vector<Service>& services, const List_options& /*options*/) {
  List_text out;
  size_t second = 0;
  for (const List_entry& channel : list_entries(services)) {
    const Service& service = *channel.service;
    if (service.delivery.system == SYS_DVBT2) {
      ++second;
      continue;
    }
    out.text += fmt::format(
        "{}:{}:INVERSION_AUTO:{}:FEC_AUTO:FEC_AUTO:{}:TRANSMISSION_MODE_AUTO:GUARD_INTERVAL_AUTO:HIERARCHY_AUTO:{}:{}:"
        "{}\n",
        channel.name, service.delivery.freq, bandwidth_name(service.delivery.bandwidth_hz),
        constellation_name(service.delivery.modulation), first_pid(service, "video"), first_pid(service, "audio"),
        service.program_number);
  }
  if (second > 0) {
    out.notes.push_back(
        fmt::format("{} left out: the format cannot say DVB-T2; vdr and dvbv5 can.", counted(second, "channel")));
  }
  return out;
}
