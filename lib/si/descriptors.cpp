// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The table of descriptors (ISO/IEC 13818-1, 2.6; EN 300 468, 6.2; private ones), and the dispatch over it.
#include "si/descriptors.h"

#include <array>
#include <cstddef>
#include <iterator>

#include "base/ids.h"
#include "base/log.h"
#include "si/descriptor_handlers.h"

namespace handlers = descriptor_handlers;

namespace {

constexpr unsigned NOT_NETWORK = loop::ANY & ~loop::NETWORK;
constexpr unsigned NOT_SERVICE = loop::ANY & ~loop::SERVICE;

// Most rows are for all loops, because what stands in the wrong one is traced as well; nobody takes what it leaves.
constexpr Descriptor_row ROWS[] = {
    {tag::VIDEO_STREAM, "video stream", loop::ANY, handlers::video_stream},
    {tag::AUDIO_STREAM, "audio stream", loop::ANY, handlers::audio_stream},
    {tag::HIERARCHY, "hierarchy", loop::ANY, handlers::ignore},
    {tag::REGISTRATION, "registration", loop::ANY, handlers::ignore},
    {tag::DATA_STREAM_ALIGNMENT, "data stream alignment", loop::ANY, handlers::data_stream_alignment},
    {tag::CA, "conditional access", loop::ANY, handlers::ca},
    {tag::ISO_639_LANGUAGE, "language", loop::ANY, handlers::language},
    {tag::SYSTEM_CLOCK, "system clock", loop::ANY, handlers::ignore},
    {tag::MULTIPLEX_BUFFER_UTILIZATION, "multiplex buffer utilization", loop::ANY,
     handlers::multiplex_buffer_utilization},
    {tag::MAXIMUM_BITRATE, "maximum bitrate", loop::ANY, handlers::maximum_bitrate},
    {tag::SMOOTHING_BUFFER, "smoothing buffer", loop::ANY, handlers::ignore},
    {tag::STD, "system target decoder", loop::ANY, handlers::ignore},
    {tag::AVC_VIDEO, "AVC video", loop::ANY, handlers::ignore},
    {tag::NETWORK_NAME, "network name", loop::NETWORK, handlers::network_name},
    {tag::NETWORK_NAME, "network name", NOT_NETWORK, handlers::network_name_elsewhere},
    {tag::SERVICE_LIST, "service list", loop::NETWORK, handlers::ignore},
    {tag::STUFFING, "stuffing", loop::ANY, handlers::ignore},
    {tag::VBI_DATA, "VBI data", loop::ANY, handlers::ignore},
    {tag::VBI_TELETEXT, "VBI teletext", loop::ANY, handlers::ignore},
    {tag::SERVICE, "service", loop::SERVICE, handlers::service},
    {tag::SERVICE, "service", NOT_SERVICE, handlers::service_elsewhere},
    {tag::LINKAGE, "linkage", loop::ANY, handlers::ignore},
    {tag::SHORT_EVENT, "short event", loop::ANY, handlers::short_event},
    {tag::EXTENDED_EVENT, "extended event", loop::ANY, handlers::extended_event},
    {tag::COMPONENT, "component", loop::ANY, handlers::component},
    {tag::STREAM_IDENTIFIER, "stream identifier", loop::ANY, handlers::stream_identifier},
    {tag::CA_IDENTIFIER, "CA identifier", loop::ANY, handlers::ignore},
    {tag::CONTENT, "content", loop::ANY, handlers::content},
    {tag::PARENTAL_RATING, "parental rating", loop::ANY, handlers::parental_rating},
    {tag::TELETEXT, "teletext", loop::ANY, handlers::teletext},
    {tag::LOCAL_TIME_OFFSET, "local time offset", loop::ANY, handlers::local_time_offset},
    {tag::SUBTITLING, "subtitling", loop::ANY, handlers::subtitling},
    {tag::TERRESTRIAL_DELIVERY_SYSTEM, "terrestrial delivery system", loop::ANY, handlers::terrestrial_delivery},
    {tag::MULTILINGUAL_NETWORK_NAME, "multilingual network name", loop::NETWORK, handlers::network_names},
    {tag::MULTILINGUAL_SERVICE_NAME, "multilingual service name", loop::SERVICE, handlers::service_names},
    {tag::MULTILINGUAL_SERVICE_NAME, "multilingual service name", NOT_SERVICE, handlers::service_names_elsewhere},
    {tag::PRIVATE_DATA_SPECIFIER, "private data specifier", loop::ANY, handlers::ignore},
    {tag::FREQUENCY_LIST, "frequency list", loop::NETWORK, handlers::ignore},
    {tag::DATA_BROADCAST, "data broadcast", loop::ANY, handlers::ignore},
    {tag::DATA_BROADCAST_ID, "data broadcast id", loop::ANY, handlers::ignore},
    {tag::AC3, "AC-3", loop::ANY, handlers::ac3},
    {tag::CELL_LIST, "cell list", loop::ANY, handlers::ignore},
    {tag::CELL_FREQUENCY_LINK, "cell frequency link", loop::ANY, handlers::ignore},
    {tag::ECM_REPETITION_RATE, "ECM repetition rate", loop::ANY, handlers::ignore},
    {tag::LOGICAL_CHANNEL, "logical channel", loop::NETWORK, handlers::channel_numbers},
    {tag::LOGICAL_CHANNEL, "logical channel", NOT_NETWORK, handlers::channel_numbers_elsewhere},
};

// For each tag its first row, or the end of the table.
constexpr auto FIRST_ROWS = [] {
  std::array<uint8_t, 256> first{};
  first.fill(std::size(ROWS));
  for (size_t i = std::size(ROWS); i-- > 0;)
    first[ROWS[i].tag] = static_cast<uint8_t>(i);
  return first;
}();

const Descriptor_row* row_of(unsigned tag, unsigned in_loop) {
  for (size_t i = FIRST_ROWS[tag & 0xFF]; i < std::size(ROWS) && ROWS[i].tag == tag; ++i)
    if ((ROWS[i].loops & in_loop) != 0)
      return &ROWS[i];
  return nullptr;
}

void report_unknown(unsigned tag) {
  if (tag < tag::FIRST_OF_SI)
    KLOG(VERB_PROGRESS, "*** Unknown Standard Descriptor");
  else if (tag < tag::FIRST_PRIVATE)
    KLOG(VERB_PROGRESS, "*** Unknown SI descriptor");
  else
    KLOG(VERB_PROGRESS, "*** Unknown User descriptor");
  KLOG(VERB_PROGRESS, "%02x\n", tag);
}

}  // namespace

void descriptor_handlers::ignore(const Descriptor&, Site&) {}

std::span<const Descriptor_row> descriptor_rows() {
  return ROWS;
}

void parse_descriptor(const Descriptor& descriptor, Site& site) {
  const unsigned tag = descriptor.getTag();
  const Descriptor_row* row = row_of(tag, site.loop);
  if (site.loop == loop::NETWORK)
    KLOG(VERB_TRACE, "Parsing descriptor %x, dec %d\n", tag, static_cast<int>(tag));
  // What a NIT has in common with other tables is announced twice there.
  if (row == nullptr || row->loops != loop::NETWORK)
    KLOG(VERB_TRACE, "Parsing descriptor %x, dec %d, oid %d\n", tag, static_cast<int>(tag), site.context);
  if (row == nullptr)
    report_unknown(tag);
  else
    row->handle(descriptor, site);
}
