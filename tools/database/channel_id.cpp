// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/database/channel_id.h"

#include <fmt/format.h>

std::string channel_id(const Service& service) {
  if (service.transport_stream_id == 0 && service.original_network_id == 0) {
    return fmt::format("{}.{}hz.dvb.guide", service.program_number, service.freq);
  }
  return fmt::format("{}.{}.{}.dvb.guide", service.program_number, service.transport_stream_id,
                     service.original_network_id);
}
