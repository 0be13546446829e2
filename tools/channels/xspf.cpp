// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <linux/dvb/frontend.h>

#include <pugixml.hpp>
#include <sstream>

#include <fmt/format.h>

#include "tools/channels/channel_url.h"
#include "tools/channels/list_format.h"
#include "tools/database/channel_id.h"

// XSPF 1, https://xspf.org. Its links without a template are those of VLC, which is the player that reads it.
namespace {

void add(pugi::xml_node* to, const char* name, const std::string& text) {
  to->append_child(name).text().set(text.c_str());
}

bool is_second(const Delivery& delivery) {
  return delivery.system == SYS_DVBT2;
}

// What else VLC takes behind a colon there would be no URI.
std::string link_of(const Delivery& delivery) {
  return fmt::format("{}://frequency={}", is_second(delivery) ? "dvb-t2" : "dvb-t", delivery.freq);
}

void add_options(pugi::xml_node* track, const Service& service) {
  const Delivery& delivery = service.delivery;
  pugi::xml_node extension = track->append_child("extension");
  extension.append_attribute("application") = "http://www.videolan.org/vlc/playlist/0";
  const auto option = [&extension](const std::string& text) { add(&extension, "vlc:option", text); };
  if (delivery.bandwidth_hz != 0) {
    option(fmt::format("dvb-bandwidth={}", delivery.bandwidth_hz == 1712000 ? 2 : delivery.bandwidth_hz / 1000000));
  }
  if (is_second(delivery) && delivery.pipe >= 0) {
    option(fmt::format("dvb-plp-id={}", delivery.pipe));
  }
  option(fmt::format("program={}", service.program_number));
}

}  // namespace

List_text write_xspf(const std::vector<Service>& services, const List_options& options) {
  List_text out;
  pugi::xml_document document;
  pugi::xml_node head = document.append_child(pugi::node_declaration);
  head.append_attribute("version") = "1.0";
  head.append_attribute("encoding") = "UTF-8";
  pugi::xml_node list = document.append_child("playlist");
  list.append_attribute("version") = "1";
  list.append_attribute("xmlns") = "http://xspf.org/ns/0/";
  list.append_attribute("xmlns:vlc") = "http://www.videolan.org/vlc/playlist/ns/0/";
  pugi::xml_node tracks = list.append_child("trackList");
  size_t without = 0;
  for (const List_entry& channel : list_entries(services)) {
    const Service& service = *channel.service;
    const std::optional<std::string> link =
        options.url.empty() ? link_of(service.delivery) : channel_url(options.url, channel);
    if (!link) {
      ++without;
      continue;
    }
    pugi::xml_node track = tracks.append_child("track");
    add(&track, "location", *link);
    add(&track, "identifier", "urn:x-dvb:" + channel_id(service));
    add(&track, "title", service.name.empty() ? channel.name : service.name);
    if (service.lcn > 0 && service.lcn != NO_LCN) {
      add(&track, "trackNum", std::to_string(service.lcn));
    }
    if (options.url.empty()) {
      add_options(&track, service);
    }
  }
  std::ostringstream text;
  document.save(text, "  ", pugi::format_default, pugi::encoding_utf8);
  out.text = text.str();
  if (without > 0) {
    out.notes.push_back(without_number_note(without));
  }
  return out;
}
