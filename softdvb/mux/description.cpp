// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/mux/description.h"

#include <algorithm>

#include <fmt/format.h>

#include "base/ids.h"
#include "softdvb/mux/time_text.h"

namespace softdvb_mux {

namespace {

// The stream is made in memory.
constexpr double MAX_STREAM_BYTES = 1 << 30;

constexpr std::array<const char*, TABLE_KINDS> TABLE_NAMES = {
    "pat",       "pmt",           "cat",          "nit_actual",          "nit_other",          "sdt_actual",
    "sdt_other", "eit_pf_actual", "eit_pf_other", "eit_schedule_actual", "eit_schedule_other", "tdt",
    "tot"};

// The order in which descriptors are added is the order in the table, and tests compare bytes.
Network read_network(const Json_node& node, const Text_defaults& outer, const Description& all, bool actual) {
  node.allow_only({"network_id", "charset", "language", "name", "names", "private_data_specifier", "descriptors",
                   "transport_streams"});
  const Text_defaults defaults = outer.inside(node);
  Network network;
  network.network_id = actual ? static_cast<uint16_t>(node.number_or("network_id", 0, 0xFFFF, all.original_network_id))
                              : static_cast<uint16_t>(node.get("network_id").number(0, 0xFFFF));
  add_network_names(node, defaults, &network.descriptors);
  add_private_data_specifier(node, &network.descriptors);
  add_raw(node, "descriptors", &network.descriptors);
  for (const Json_node& item : node.list("transport_streams")) {
    item.allow_only({"transport_stream_id", "original_network_id", "delivery", "services", "frequencies",
                     "private_data_specifier", "descriptors"});
    Nit_stream stream;
    stream.transport_stream_id = static_cast<uint16_t>(item.get("transport_stream_id").number(0, 0xFFFF));
    stream.original_network_id =
        static_cast<uint16_t>(item.number_or("original_network_id", 0, 0xFFFF, all.original_network_id));
    if (item.has("delivery"))
      add_terrestrial_delivery(item.get("delivery"), &stream.descriptors);
    std::vector<Listed_service> listed;
    // A list that is given wins, so that a NIT can say something else than the SDT.
    if (item.has("services")) {
      for (const Json_node& service : item.list("services")) {
        service.allow_only({"service_id", "type", "lcn"});
        listed.push_back(read_listed_service(service));
      }
      // Otherwise the services are those of the description, which need not be written twice.
    } else if (stream.original_network_id == all.original_network_id &&
               stream.transport_stream_id == all.transport_stream_id) {
      for (const Service& service : all.services)
        if (service.in_nit)
          listed.push_back(service.listed);
    } else {
      for (const Other_stream& other : all.other_streams)
        if (stream.original_network_id == other.original_network_id &&
            stream.transport_stream_id == other.transport_stream_id)
          for (const Service& service : other.services)
            listed.push_back(service.listed);
    }
    add_service_list(listed, &stream.descriptors);
    add_frequency_list(item, &stream.descriptors);
    // Before the numbers, whose tag means something else under each specifier.
    add_private_data_specifier(item, &stream.descriptors);
    add_lcn(listed, &stream.descriptors);
    add_raw(item, "descriptors", &stream.descriptors);
    network.streams.push_back(std::move(stream));
  }
  return network;
}

void read_intervals(const Json_node& top, Intervals* intervals) {
  if (!top.has("intervals"))
    return;
  const Json_node node = top.get("intervals");
  node.allow_only({"pat", "pmt", "cat", "nit_actual", "nit_other", "sdt_actual", "sdt_other", "eit_pf_actual",
                   "eit_pf_other", "eit_schedule_actual", "eit_schedule_other", "eit_schedule_actual_later",
                   "eit_schedule_other_later", "tdt", "tot", "pcr"});
  for (unsigned kind = 0; kind < TABLE_KINDS; ++kind)
    intervals->table[kind] = node.seconds_or(TABLE_NAMES[kind], 0.005, 86400, intervals->table[kind]);
  intervals->later_actual = node.seconds_or("eit_schedule_actual_later", 0.005, 86400, intervals->later_actual);
  intervals->later_other = node.seconds_or("eit_schedule_other_later", 0.005, 86400, intervals->later_other);
  intervals->pcr = node.seconds_or("pcr", 0.005, 10, intervals->pcr);
}

void read_cat(const Json_node& top, Description* all) {
  if (!top.has("cat"))
    return;
  const Json_node node = top.get("cat");
  node.allow_only({"ca", "descriptors"});
  all->cat.emplace();
  add_ca(node, &*all->cat);
  add_raw(node, "descriptors", &*all->cat);
}

void read_time_tables(const Json_node& top, Description* all) {
  all->wanted[TDT] = all->wanted[TOT] = true;
  if (!top.has("time"))
    return;
  const Json_node node = top.get("time");
  node.allow_only({"tdt", "tot", "offsets", "descriptors"});
  all->wanted[TDT] = node.flag_or("tdt", true);
  all->wanted[TOT] = node.flag_or("tot", true);
  add_time_offsets(node, all->now, &all->tot_descriptors);
  add_raw(node, "descriptors", &all->tot_descriptors);
}

void read_versions(const Json_node& top, Description* all) {
  all->version.fill(static_cast<uint8_t>(top.number_or("version", 0, 31, 0)));
  if (!top.has("versions"))
    return;
  const Json_node node = top.get("versions");
  node.allow_only({"pat", "cat", "nit_actual", "nit_other", "sdt_actual", "sdt_other", "eit_pf_actual", "eit_pf_other",
                   "eit_schedule_actual", "eit_schedule_other"});
  for (unsigned kind = 0; kind < TABLE_KINDS; ++kind)
    all->version[kind] = static_cast<uint8_t>(node.number_or(TABLE_NAMES[kind], 0, 31, all->version[kind]));
}

// The same id at different times is a service that comes back, which is allowed.
void check_twice(const Json_node& top, const Description& all) {
  const auto nodes = top.list("services");
  for (size_t i = 0; i < all.services.size(); ++i)
    for (size_t j = 0; j < i; ++j)
      if (all.services[i].service_id == all.services[j].service_id &&
          all.services[i].appears < all.services[j].vanishes && all.services[j].appears < all.services[i].vanishes)
        nodes[i].get("service_id").fail(fmt::format("{} is used twice at the same time", all.services[i].service_id));
}

nlohmann::json parse_json(const std::string& text) {
  try {
    // With comments, which a description of a test case needs.
    return nlohmann::json::parse(text, nullptr, true, true);
  } catch (const nlohmann::json::parse_error& error) {
    // The parser tells a byte; people count lines and columns.
    const size_t end = std::min(error.byte > 0 ? error.byte - 1 : 0, text.size());
    const auto line = 1 + std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(end), '\n');
    const size_t start = end == 0 ? std::string::npos : text.rfind('\n', end - 1);
    throw Description_error(fmt::format("line {}, column {}: this is no valid JSON", line,
                                        start == std::string::npos ? end + 1 : end - start));
  } catch (const nlohmann::json::out_of_range&) {
    throw Description_error("a number is too large for any use");
  }
}

}  // namespace

const char* name_of(Table_kind kind) {
  return TABLE_NAMES[kind];
}

// Below the limits of ETSI TR 101 211, 4.4, by what a section may have to wait for others.
Intervals default_intervals() {
  Intervals result;
  result.table = {0.08, 0.08, 0.4, 2, 8, 1, 8, 1.5, 8, 8, 48, 20, 20};
  result.later_actual = 24;
  result.later_other = 240;
  result.pcr = 0.035;
  return result;
}

// For tests, which would else wait for the tables of a real network.
Intervals fast_intervals() {
  Intervals result;
  result.table = {0.02, 0.02, 0.1, 0.1, 0.2, 0.1, 0.2, 0.1, 0.2, 1, 2, 0.5, 0.5};
  result.later_actual = 1;
  result.later_other = 2;
  result.pcr = 0.035;
  return result;
}

Description parse_description(const std::string& json, int64_t machine_now, std::optional<int64_t> fixed_now) {
  Description all;
  const nlohmann::json document = parse_json(json);
  const Json_node top(document, "");
  top.allow_only({"now",
                  "duration",
                  "bit_rate",
                  "fast",
                  "charset",
                  "language",
                  "transport_stream_id",
                  "original_network_id",
                  "version",
                  "versions",
                  "nit_pid",
                  "nit_in_pat",
                  "pat_programs_per_section",
                  "payload_rate",
                  "intervals",
                  "services",
                  "other_transport_streams",
                  "network",
                  "other_networks",
                  "cat",
                  "time",
                  "faults"});
  const Text_defaults defaults = Text_defaults().inside(top);
  all.now = machine_now;
  if (top.has("now") && top.get("now").string() != "machine" && !parse_utc(top.get("now").string(), &all.now))
    top.get("now").fail("\"machine\" or a time such as \"2026-03-01T18:00:00Z\" is allowed");
  // The command line wins, so that one description serves for any day.
  if (fixed_now)
    all.now = *fixed_now;
  all.duration = top.seconds_or("duration", 0.1, 86400, 30);
  all.bit_rate = top.number_or("bit_rate", 10000, 100000000, 2000000);
  if (all.duration * static_cast<double>(all.bit_rate) / 8 > MAX_STREAM_BYTES)
    throw Description_error(
        fmt::format("duration: {} seconds at {} bits a second are more than {:.0f} bytes, the most that is made",
                    all.duration, all.bit_rate, MAX_STREAM_BYTES));
  all.transport_stream_id = static_cast<uint16_t>(top.get("transport_stream_id").number(0, 0xFFFF));
  all.original_network_id = static_cast<uint16_t>(top.get("original_network_id").number(0, 0xFFFF));
  all.nit_pid = static_cast<uint16_t>(top.number_or("nit_pid", pid::NIT, pid::LAST - 1, pid::NIT));
  all.nit_in_pat = top.flag_or("nit_in_pat", true);
  all.programs_per_section = static_cast<unsigned>(top.number_or("pat_programs_per_section", 1, 253, 253));
  // The whole set first, then what the description says of single ones.
  all.intervals = top.flag_or("fast", false) ? fast_intervals() : default_intervals();
  read_versions(top, &all);
  read_intervals(top, &all.intervals);
  // After the ids and times that services refer to, and before the networks that list them.
  all.services = read_services(top, defaults, all, true);
  check_twice(top, all);
  for (const Json_node& node : top.list("other_transport_streams")) {
    node.allow_only({"transport_stream_id", "original_network_id", "charset", "language", "services"});
    Other_stream other;
    other.transport_stream_id = static_cast<uint16_t>(node.get("transport_stream_id").number(0, 0xFFFF));
    other.original_network_id =
        static_cast<uint16_t>(node.number_or("original_network_id", 0, 0xFFFF, all.original_network_id));
    other.services = read_services(node, defaults.inside(node), all, false);
    all.other_streams.push_back(std::move(other));
  }
  if (top.has("network"))
    all.network = read_network(top.get("network"), defaults, all, true);
  for (const Json_node& node : top.list("other_networks"))
    all.other_networks.push_back(read_network(node, defaults, all, false));
  read_cat(top, &all);
  read_time_tables(top, &all);
  all.faults = read_faults(top);
  return all;
}

}  // namespace softdvb_mux
