// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/cli/csv.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "tools/channels/list_format.h"
#include "tools/database/channel_id.h"
#include "tools/database/delivery_words.h"
#include "tools/database/stream_words.h"

// RFC 4180, with a line of names above.
namespace {

std::string known(int number, int unknown) {
  return number == unknown ? "" : std::to_string(number);
}

}  // namespace

List_text write_csv(const std::vector<Service>& services, const List_options& /*options*/) {
  std::string out = csv_line({"number",
                              "name",
                              "type",
                              "provider",
                              "network",
                              "system",
                              "frequency",
                              "bandwidth",
                              "modulation",
                              "plp",
                              "service_id",
                              "transport_stream_id",
                              "original_network_id",
                              "network_id",
                              "pmt_pid",
                              "pcr_pid",
                              "scrambled",
                              "ca_systems",
                              "visible",
                              "state",
                              "streams",
                              "id",
                              "channel"});
  for (const Service& service : services) {
    const Delivery& delivery = service.delivery;
    out += csv_line({known(service.lcn, NO_LCN),
                     service.name,
                     type_text(service),
                     service.provider,
                     service.network,
                     delivery_system_name(delivery.system),
                     std::to_string(delivery.freq),
                     known(delivery.bandwidth_hz, 0),
                     modulation_name(delivery.modulation),
                     known(delivery.pipe, -1),
                     std::to_string(service.program_number),
                     std::to_string(service.transport_stream_id),
                     std::to_string(service.original_network_id),
                     std::to_string(service.network_id),
                     std::to_string(service.pmt_pid),
                     std::to_string(service.pcr_pid),
                     service.scrambled ? "yes" : "no",
                     fmt::format("{}", fmt::join(ca_numbers(service), " ")),
                     service.visible ? "yes" : "no",
                     state_text(service),
                     streams_text(service),
                     channel_id(service),
                     std::to_string(service.channel)});
  }
  return {out, {}};
}
