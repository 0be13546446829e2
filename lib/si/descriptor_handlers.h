// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/descriptor.h>

#include "si/descriptors.h"

// What each descriptor does, one function each. A handler fills site.found, or hands what it found to site.rows at once
// where the database's messages belong between its own. Objects of another class than their tag stands for, and those
// whose inner lengths do not add up, do nothing.
namespace descriptor_handlers {

// The descriptor as the class that its tag stands for; null when it is another.
template <typename D>
const D* as(const Descriptor& descriptor) {
  return dynamic_cast<const D*>(&descriptor);
}

void ignore(const Descriptor& descriptor, Site& site);

// descriptors_stream.cpp: those that are only traced, and those of elementary streams and programmes
void video_stream(const Descriptor& descriptor, Site& site);
void audio_stream(const Descriptor& descriptor, Site& site);
void data_stream_alignment(const Descriptor& descriptor, Site& site);
void multiplex_buffer_utilization(const Descriptor& descriptor, Site& site);
void maximum_bitrate(const Descriptor& descriptor, Site& site);
void component(const Descriptor& descriptor, Site& site);
void stream_identifier(const Descriptor& descriptor, Site& site);
void ca(const Descriptor& descriptor, Site& site);
void language(const Descriptor& descriptor, Site& site);
void teletext(const Descriptor& descriptor, Site& site);
void subtitling(const Descriptor& descriptor, Site& site);
void ac3(const Descriptor& descriptor, Site& site);

// descriptors_service.cpp
void service(const Descriptor& descriptor, Site& site);
void service_elsewhere(const Descriptor& descriptor, Site& site);
void service_names(const Descriptor& descriptor, Site& site);
void service_names_elsewhere(const Descriptor& descriptor, Site& site);

// descriptors_network.cpp
void network_name(const Descriptor& descriptor, Site& site);
void network_name_elsewhere(const Descriptor& descriptor, Site& site);
void network_names(const Descriptor& descriptor, Site& site);
void channel_numbers(const Descriptor& descriptor, Site& site);
void channel_numbers_elsewhere(const Descriptor& descriptor, Site& site);
void terrestrial_delivery(const Descriptor& descriptor, Site& site);

// descriptors_event.cpp
void short_event(const Descriptor& descriptor, Site& site);
void extended_event(const Descriptor& descriptor, Site& site);
void content(const Descriptor& descriptor, Site& site);
void parental_rating(const Descriptor& descriptor, Site& site);

// descriptors_time.cpp
void local_time_offset(const Descriptor& descriptor, Site& site);

}  // namespace descriptor_handlers
