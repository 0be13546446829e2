// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <fmt/format.h>

#include "tools/channels/channel_url.h"
#include "tools/channels/list_format.h"
#include "tools/database/channel_id.h"

// M3U with the attributes that programs for television read. All that stands in quotes is made of numbers.
List_text write_m3u(const std::vector<Service>& services, const List_options& options) {
  List_text out{"#EXTM3U\n", {}};
  size_t without = 0;
  for (const List_entry& channel : list_entries(services)) {
    const Service& service = *channel.service;
    // Players take the name behind dvb:// as it is, without undoing any %XX.
    const std::optional<std::string> link =
        options.url.empty() ? "dvb://" + channel.name : channel_url(options.url, channel);
    if (!link) {
      ++without;
      continue;
    }
    out.text += fmt::format("#EXTINF:-1 tvg-id=\"{}\"", channel_id(service));
    if (service.lcn != NO_LCN) {
      out.text += fmt::format(" tvg-chno=\"{}\"", service.lcn);
    }
    out.text += is_radio(service) ? " group-title=\"Radio\" radio=\"true\"" : " group-title=\"TV\"";
    out.text += fmt::format(",{}\n{}\n", service.name.empty() ? channel.name : service.name, *link);
  }
  if (without > 0) {
    out.notes.push_back(without_number_note(without));
  }
  return out;
}
