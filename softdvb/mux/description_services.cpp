// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <algorithm>

#include <fmt/format.h>

#include "base/ids.h"
#include "softdvb/mux/description.h"
#include "softdvb/mux/time_text.h"

namespace softdvb_mux {

namespace {

constexpr uint8_t PES_VIDEO = 0xE0;
constexpr uint8_t PES_AUDIO = 0xC0;
constexpr uint8_t PES_PRIVATE_1 = 0xBD;

// ISO/IEC 13818-1, table 2-34; the DVB formats without a type of their own are private PES data (0x06) and told apart
// by their descriptor.
const std::vector<std::pair<const char*, unsigned>> STREAM_TYPES = {
    {"mpeg1-video", 0x01},      {"mpeg2-video", 0x02}, {"mpeg1-audio", 0x03}, {"mpeg2-audio", 0x04},
    {"private-sections", 0x05}, {"private-pes", 0x06}, {"ac3", 0x06},         {"eac3", 0x06},
    {"teletext", 0x06},         {"subtitles", 0x06},   {"dsm-cc", 0x0B},      {"aac", 0x0F},
    {"mpeg4-video", 0x10},      {"latm-aac", 0x11},    {"h264", 0x1B},        {"hevc", 0x24}};

// Each kind of stream has its own range of stream ids, and analysers complain of one that does not suit the type.
uint8_t pes_id_of(uint8_t type) {
  switch (type) {
    case 0x01:
    case 0x02:
    case 0x10:
    case 0x1B:
    case 0x24:
      return PES_VIDEO;
    case 0x03:
    case 0x04:
    case 0x0F:
    case 0x11:
      return PES_AUDIO;
    default:
      return PES_PRIVATE_1;
  }
}

Elementary_stream read_stream(const Json_node& node, uint16_t default_pid, double default_rate) {
  node.allow_only({"pid", "type", "languages", "ac3", "eac3", "teletext", "subtitles", "component_tag", "ca",
                   "descriptors", "payload_rate"});
  Elementary_stream stream;
  stream.pid = static_cast<uint16_t>(node.number_or("pid", pid::NIT, pid::LAST - 1, default_pid));
  if (stream.pid >= pid::LAST)
    node.fail("no PID is left after the PMT's, choose a \"pid\"");
  const Json_node type = node.get("type");
  stream.type = static_cast<uint8_t>(type.choice_or_number(STREAM_TYPES, 255));
  const std::string word = type.value().is_string() ? type.string() : "";
  // Without their pages these would be a plain private stream, so get() complains that the key is missing.
  for (const char* key : {"teletext", "subtitles"})
    if (word == key && !node.has(key))
      node.get(key);
  stream.pes_stream_id = pes_id_of(stream.type);
  add_stream_identifier(node, &stream.descriptors);
  add_languages(node, &stream.descriptors);
  add_ac3(node, word == "ac3", word == "eac3", &stream.descriptors);
  add_teletext(node, &stream.descriptors);
  add_subtitles(node, &stream.descriptors);
  add_ca(node, &stream.descriptors);
  add_raw(node, "descriptors", &stream.descriptors);
  // Sections are no PES packets: such a PID stays silent.
  const bool sections = stream.type == 0x05 || (stream.type >= 0x08 && stream.type <= 0x0E);
  stream.payload_rate = static_cast<double>(
      node.number_or("payload_rate", 0, 100000000, sections ? 0 : static_cast<uint64_t>(default_rate)));
  return stream;
}

void read_streams(const Json_node& owner, const Service& service, double default_rate, Pmt_content* pmt) {
  uint16_t pid = service.pmt_pid;
  for (const Json_node& node : owner.list("streams"))
    pmt->streams.push_back(read_stream(node, ++pid, default_rate));
  // As usual the first stream carries the clock; without any the value says that there is none.
  const uint16_t own = pmt->streams.empty() ? uint16_t{pid::LAST} : pmt->streams.front().pid;
  pmt->pcr_pid = static_cast<uint16_t>(owner.number_or("pcr_pid", 0, pid::LAST, own));
  add_ca(owner, &pmt->program_info);
  add_raw(owner, "pmt_descriptors", &pmt->program_info);
}

void read_pmts(const Json_node& node, double default_rate, Service* service) {
  Pmt_content first;
  first.version = static_cast<uint8_t>(node.number_or("pmt_version", 0, 31, 0));
  read_streams(node, *service, default_rate, &first);
  // Read all the same, so that mistakes in the streams are told.
  if (!node.flag_or("pmt", true))
    return;
  service->pmts.push_back(first);
  for (const Json_node& change : node.list("pmt_changes")) {
    change.allow_only({"at", "pmt_version", "streams", "pcr_pid", "ca", "pmt_descriptors"});
    // A change says only what is different.
    Pmt_content next = service->pmts.back();
    next.from = change.get("at").seconds(0, 86400);
    if (next.from <= service->pmts.back().from)
      change.get("at").fail("the changes must stand in the order of their times, the first later than 0");
    next.version = static_cast<uint8_t>(change.number_or("pmt_version", 0, 31, (next.version + 1u) & 31));
    if (change.has("streams")) {
      next.streams.clear();
      next.program_info.clear();
      read_streams(change, *service, default_rate, &next);
    }
    service->pmts.push_back(next);
  }
}

Service read_service(const Json_node& node, const Text_defaults& outer, const Description& all, bool actual,
                     uint16_t default_pmt_pid, double default_rate) {
  if (actual)
    node.allow_only(
        {"service_id",      "type",           "charset",     "language", "name",         "provider",   "names",
         "descriptors",     "running_status", "free_ca",     "eit_pf",   "eit_schedule", "lcn",        "in_pat",
         "in_sdt",          "in_nit",         "pmt",         "pmt_pid",  "pmt_version",  "pcr_pid",    "ca",
         "pmt_descriptors", "streams",        "pmt_changes", "events",   "schedule",     "appears_at", "vanishes_at"});
  else
    node.allow_only({"service_id", "type", "charset", "language", "name", "provider", "names", "descriptors",
                     "running_status", "free_ca", "eit_pf", "eit_schedule", "lcn", "events", "schedule"});
  const Text_defaults defaults = outer.inside(node);
  Service service;
  service.listed = read_listed_service(node);
  service.service_id = service.listed.service_id;
  service.type = service.listed.type;
  add_service(node, service.type, defaults, &service.sdt_descriptors);
  add_raw(node, "descriptors", &service.sdt_descriptors);
  service.running_status = static_cast<uint8_t>(node.number_or("running_status", 0, 7, 4));
  service.events = read_events(node, defaults, all.now);
  service.eit_pf = node.flag_or("eit_pf", !service.events.empty());
  service.eit_schedule = node.flag_or("eit_schedule", !service.events.empty());
  if (actual) {
    service.in_pat = node.flag_or("in_pat", true);
    service.in_sdt = node.flag_or("in_sdt", true);
    service.in_nit = node.flag_or("in_nit", true);
    service.pmt_pid = static_cast<uint16_t>(node.number_or("pmt_pid", pid::NIT, pid::LAST - 1, default_pmt_pid));
    read_pmts(node, default_rate, &service);
    service.appears = node.seconds_or("appears_at", 0, 86400, 0);
    service.vanishes = node.seconds_or("vanishes_at", 0, 86400, 1e9);
  }
  const bool scrambled =
      actual && (!node.list("ca").empty() || std::any_of(service.pmts.begin(), service.pmts.end(), [](const auto& pmt) {
        return std::any_of(pmt.streams.begin(), pmt.streams.end(), [](const auto& stream) {
          return std::any_of(stream.descriptors.begin(), stream.descriptors.end(),
                             [](const auto& descriptor) { return descriptor.tag == tag::CA; });
        });
      }));
  service.free_ca = node.flag_or("free_ca", scrambled);
  return service;
}

// Whether the id was given: the others get theirs when all given ones are known.
struct Numbered_event {
  Event event;
  bool numbered = false;
};

Event read_event(const Json_node& node, const Text_defaults& outer) {
  const Text_defaults defaults = outer.inside(node);
  Event event;
  event.duration = read_duration(node.get("duration"), 99 * 3600 + 59 * 60 + 59);
  if (node.has("running_status"))
    event.running_status = static_cast<uint8_t>(node.get("running_status").number(0, 7));
  event.free_ca = node.flag_or("free_ca", false);
  add_short_events(node, defaults, &event.descriptors);
  add_extended_events(node, defaults, &event.descriptors);
  add_components(node, defaults, &event.descriptors);
  add_content(node, &event.descriptors);
  add_rating(node, &event.descriptors);
  add_raw(node, "descriptors", &event.descriptors);
  if (size_of(event.descriptors) > 4000)
    node.fail(fmt::format("the descriptors of the event take {} bytes, at most 4000 fit into a section",
                          size_of(event.descriptors)));
  return event;
}

void read_schedule(const Json_node& node, const Text_defaults& outer, int64_t now,
                   std::vector<Numbered_event>* events) {
  node.allow_only({"from", "days", "charset", "language", "programmes"});
  const Text_defaults defaults = outer.inside(node);
  const int64_t today = now - ((now % 86400) + 86400) % 86400;
  int64_t at = node.has("from") ? read_time(node.get("from"), now) : today;
  const int64_t end = at + static_cast<int64_t>(node.number_or("days", 1, 64, 2)) * 86400;
  std::vector<Event> programmes;
  for (const Json_node& programme : node.get("programmes").items()) {
    programme.allow_only({"duration", "running_status", "free_ca", "charset", "language", "name", "text", "texts",
                          "extended", "components", "content", "rating", "descriptors"});
    programmes.push_back(read_event(programme, defaults));
    // Shorter ones would fill the guide with thousands of events.
    if (programmes.back().duration < 60)
      programme.get("duration").fail("at least one minute is needed in a schedule");
  }
  if (programmes.empty())
    node.get("programmes").fail("at least one programme is needed");
  // The last one may run over the end, as nothing is cut off.
  for (size_t i = 0; at < end; i = (i + 1) % programmes.size()) {
    events->push_back({programmes[i], false});
    events->back().event.start = at;
    at += programmes[i].duration;
  }
}

}  // namespace

std::vector<Event> read_events(const Json_node& service, const Text_defaults& defaults, int64_t now) {
  std::vector<Numbered_event> events;
  for (const Json_node& node : service.list("events")) {
    node.allow_only({"event_id", "start", "duration", "running_status", "free_ca", "charset", "language", "name",
                     "text", "texts", "extended", "components", "content", "rating", "descriptors"});
    events.push_back({read_event(node, defaults), node.has("event_id")});
    Event& event = events.back().event;
    event.event_id = static_cast<uint16_t>(node.number_or("event_id", 0, 0xFFFF, 0));
    if (node.get("start").value() != "undefined")
      event.start = read_time(node.get("start"), now);
  }
  if (service.has("schedule"))
    read_schedule(service.get("schedule"), defaults, now, &events);
  // By start, as they are broadcast; equal ones stay in the order of the description.
  std::stable_sort(events.begin(), events.end(), [](const auto& a, const auto& b) {
    return a.event.start.value_or(INT64_MIN) < b.event.start.value_or(INT64_MIN);
  });
  std::vector<Event> result;
  uint16_t next_id = 1;
  for (Numbered_event& numbered : events) {
    if (!numbered.numbered) {
      // Ids that were given elsewhere are left out, wherever they stand.
      while (std::any_of(events.begin(), events.end(),
                         [&](const auto& other) { return other.numbered && other.event.event_id == next_id; }))
        ++next_id;
      numbered.event.event_id = next_id++;
    }
    result.push_back(std::move(numbered.event));
  }
  return result;
}

std::vector<Service> read_services(const Json_node& owner, const Text_defaults& defaults, const Description& all,
                                   bool actual) {
  std::vector<Service> services;
  const auto rate = static_cast<double>(actual ? owner.number_or("payload_rate", 0, 100000000, 7520) : 0);
  for (const Json_node& node : owner.list("services")) {
    // 16 PIDs a service from 0x0100 on.
    const auto pmt_pid = static_cast<uint16_t>(0x100 + 16 * (services.size() % 480));
    services.push_back(read_service(node, defaults, all, actual, pmt_pid, rate));
  }
  return services;
}

std::vector<Fault> read_faults(const Json_node& owner) {
  std::vector<Fault> faults;
  for (const Json_node& node : owner.list("faults")) {
    node.allow_only({"fault",      "table",   "tables", "service_id", "transport_stream_id",
                     "network_id", "section", "from",   "to",         "first",
                     "every",      "change",  "loop",   "version",    "pid",
                     "bytes",      "packet",  "skip",   "offset",     "hex",
                     "crc"});
    Fault fault;
    fault.kind = static_cast<Fault_kind>(node.get("fault").choice({{"wrong_crc", WRONG_CRC},
                                                                   {"drop", DROP},
                                                                   {"missing", DROP},
                                                                   {"silence", DROP},
                                                                   {"cut", CUT},
                                                                   {"wrong_section_length", WRONG_SECTION_LENGTH},
                                                                   {"wrong_loop_length", WRONG_LOOP_LENGTH},
                                                                   {"wrong_version", WRONG_VERSION},
                                                                   {"wrong_bytes", WRONG_BYTES},
                                                                   {"current_next_0", CURRENT_NEXT_0},
                                                                   {"other_pid", OTHER_PID},
                                                                   {"duplicate", DUPLICATE_SECTION},
                                                                   {"duplicate_packet", DUPLICATE_PACKET},
                                                                   {"lose_packet", LOSE_PACKET},
                                                                   {"discontinuity", DISCONTINUITY},
                                                                   {"transport_error", TRANSPORT_ERROR}}));
    const auto select = [&](const Json_node& table) {
      const std::string word = table.string();
      bool known = word == "all";
      if (known)
        fault.tables.fill(true);
      for (unsigned kind = 0; kind < TABLE_KINDS; ++kind) {
        const std::string name = name_of(static_cast<Table_kind>(kind));
        if (word == name || (word == "eit" && name.compare(0, 3, "eit") == 0)) {
          fault.tables[kind] = true;
          known = true;
        }
      }
      if (!known)
        table.fail(
            fmt::format("\"{}\" is not allowed, one of \"all\", \"eit\", \"pat\", \"pmt\", \"cat\", \"nit_actual\", "
                        "\"nit_other\", \"sdt_actual\", \"sdt_other\", \"eit_pf_actual\", \"eit_pf_other\", "
                        "\"eit_schedule_actual\", \"eit_schedule_other\", \"tdt\", \"tot\" is",
                        word));
    };
    if (node.has("tables")) {
      for (const Json_node& table : node.list("tables"))
        select(table);
    } else {
      select(node.get("table"));
    }
    if (node.has("service_id"))
      fault.service_id = static_cast<uint16_t>(node.get("service_id").number(0, 0xFFFF));
    if (node.has("transport_stream_id"))
      fault.transport_stream_id = static_cast<uint16_t>(node.get("transport_stream_id").number(0, 0xFFFF));
    if (node.has("network_id"))
      fault.network_id = static_cast<uint16_t>(node.get("network_id").number(0, 0xFFFF));
    if (node.has("section"))
      fault.section = static_cast<uint8_t>(node.get("section").number(0, 255));
    fault.from = node.seconds_or("from", 0, 86400, 0);
    fault.to = node.seconds_or("to", 0, 86400, 1e9);
    // Without a limit all transmissions are meant.
    fault.first = node.number_or("first", 1, ~uint64_t{0}, ~uint64_t{0});
    fault.every = node.number_or("every", 1, 1000000, 1);
    if (node.has("change")) {
      if (!node.get("change").value().is_number_integer() || node.get("change").value().get<int64_t>() < -4095 ||
          node.get("change").value().get<int64_t>() > 4095)
        node.get("change").fail(node.get("change").value().dump() + " is not allowed, a number from -4095 to 4095 is");
      fault.change = node.get("change").value().get<int>();
    }
    fault.loop = node.choice_or("loop", {{"first", 0}, {"inner", 1}, {"descriptor", 2}}, 0);
    // Wrong lengths and bytes are to reach the parser, which a wrong CRC would keep them from.
    fault.right_crc = node.choice_or("crc", {{"stale", 0}, {"right", 1}},
                                     fault.kind == WRONG_LOOP_LENGTH || fault.kind == WRONG_BYTES ? 1 : 0) != 0;
    switch (fault.kind) {
      case WRONG_VERSION:
        fault.value = static_cast<unsigned>(node.get("version").number(0, 31));
        break;
      case OTHER_PID:
        fault.value = static_cast<unsigned>(node.get("pid").number(0, pid::LAST - 1));
        break;
      case CUT:
        fault.value = static_cast<unsigned>(node.get("bytes").number(1, 4096));
        break;
      case LOSE_PACKET:
        fault.value = static_cast<unsigned>(node.number_or("packet", 0, 30, 0));
        break;
      case DISCONTINUITY:
        fault.value = static_cast<unsigned>(node.number_or("skip", 1, 15, 1));
        break;
      case WRONG_BYTES:
        fault.offset = static_cast<size_t>(node.get("offset").number(0, 4095));
        fault.bytes = node.get("hex").hex();
        break;
      default:
        break;
    }
    faults.push_back(std::move(fault));
  }
  return faults;
}

}  // namespace softdvb_mux
