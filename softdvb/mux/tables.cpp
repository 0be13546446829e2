// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/mux/tables.h"

#include <algorithm>
#include <set>

#include <fmt/format.h>

#include "base/ids.h"
#include "softdvb/mux/sections.h"

extern "C" {
#include <dvbpsi/cat.h>
#include <dvbpsi/nit.h>
#include <dvbpsi/pat.h>
#include <dvbpsi/pmt.h>
#include <dvbpsi/sdt.h>
#include <dvbpsi/tot.h>
}

namespace softdvb_mux {

namespace {

constexpr size_t MAX_PSI_SECTION = 1024;

void complain(dvbpsi_t* handle, const dvbpsi_msg_level_t level, const char* message) {
  if (level == DVBPSI_MSG_ERROR && handle->p_sys != nullptr)
    *static_cast<std::string*>(handle->p_sys) = message;
}

// A service is gone at the moment at which it vanishes, and there at the one at which it appears.
bool on_air(const Service& service, double at) {
  return service.appears <= at && at < service.vanishes;
}

// The moments at which the list of services is another one, 0 first.
std::vector<double> changes_of(const std::vector<Service>& services, double duration) {
  std::set<double> moments = {0};
  for (const Service& service : services) {
    if (service.appears < duration)
      moments.insert(service.appears);
    if (service.vanishes < duration)
      moments.insert(service.vanishes);
  }
  return {moments.begin(), moments.end()};
}

// Versions have five bits and come round, which receivers have to cope with.
uint8_t stepped(uint8_t version, size_t steps) {
  return static_cast<uint8_t>((version + steps) & 31);
}

Table pat_of(const Description& all, Encoder* encoder) {
  Table table;
  table.kind = PAT;
  table.pid = pid::PAT;
  for (double at : changes_of(all.services, all.duration)) {
    // Each change is a table of its own with the next version, as a broadcaster would send it.
    const auto pat =
        owned(dvbpsi_pat_new(all.transport_stream_id, stepped(all.version[PAT], table.variants.size()), true),
              dvbpsi_pat_delete);
    if (all.nit_in_pat)
      dvbpsi_pat_program_add(pat.get(), 0, all.nit_pid);
    for (const Service& service : all.services)
      if (service.in_pat && on_air(service, at))
        dvbpsi_pat_program_add(pat.get(), service.service_id, service.pmt_pid);
    table.variants.push_back(
        {at, encoder->take(
                 dvbpsi_pat_sections_generate(encoder->handle(), pat.get(), static_cast<int>(all.programs_per_section)),
                 "the PAT")});
  }
  return table;
}

std::vector<Bytes> pmt_sections(const Service& service, const Pmt_content& content, Encoder* encoder) {
  // Checked here, because a PMT has one section, whatever libdvbpsi would make of a longer one.
  size_t size = 16 + size_of(content.program_info);
  for (const Elementary_stream& stream : content.streams)
    size += 5 + size_of(stream.descriptors);
  if (size > MAX_PSI_SECTION)
    throw Description_error(
        fmt::format("service {}: its PMT takes {} bytes, at most 1024 fit into the one section that "
                    "a PMT has",
                    service.service_id, size));
  const auto pmt = owned(dvbpsi_pmt_new(service.service_id, content.version, true, content.pcr_pid), dvbpsi_pmt_delete);
  add_all(content.program_info,
          [&](uint8_t tag, uint8_t length, uint8_t* data) { dvbpsi_pmt_descriptor_add(pmt.get(), tag, length, data); });
  for (const Elementary_stream& stream : content.streams) {
    dvbpsi_pmt_es_t* es = dvbpsi_pmt_es_add(pmt.get(), stream.type, stream.pid);
    add_all(stream.descriptors,
            [&](uint8_t tag, uint8_t length, uint8_t* data) { dvbpsi_pmt_es_descriptor_add(es, tag, length, data); });
  }
  std::vector<Bytes> sections = encoder->take(dvbpsi_pmt_sections_generate(encoder->handle(), pmt.get()), "a PMT");
  return sections;
}

void add_pmts(const Description& all, Encoder* encoder, std::vector<Table>* tables) {
  for (const Service& service : all.services) {
    Table table;
    table.kind = PMT;
    table.pid = service.pmt_pid;
    table.service_id = service.service_id;
    for (const Pmt_content& content : service.pmts)
      table.variants.push_back({std::max(content.from, service.appears), pmt_sections(service, content, encoder)});
    // A service without a PMT stands in the PAT all the same; that is a case that receivers must survive.
    if (table.variants.empty())
      continue;
    if (service.vanishes < all.duration)
      table.variants.push_back({service.vanishes, {}});
    tables->push_back(std::move(table));
  }
}

Table cat_of(const Description& all, Encoder* encoder) {
  Table table;
  table.kind = CAT;
  table.pid = pid::CAT;
  const auto cat = owned(dvbpsi_cat_new(all.version[CAT], true), dvbpsi_cat_delete);
  add_all(*all.cat,
          [&](uint8_t tag, uint8_t length, uint8_t* data) { dvbpsi_cat_descriptor_add(cat.get(), tag, length, data); });
  table.variants.push_back({0, encoder->take(dvbpsi_cat_sections_generate(encoder->handle(), cat.get()), "the CAT")});
  return table;
}

Table nit_of(const Description& all, const Network& network, bool actual, Encoder* encoder) {
  Table table;
  table.kind = actual ? NIT_ACTUAL : NIT_OTHER;
  table.pid = all.nit_pid;
  table.network_id = network.network_id;
  const uint8_t table_id = actual ? table::NIT_ACTUAL : table::NIT_OTHER;
  for (const Nit_stream& stream : network.streams)
    // The descriptors of one stream cannot be divided among sections.
    if (size_of(stream.descriptors) + 6 + 16 > MAX_PSI_SECTION)
      throw Description_error(
          fmt::format("network {}: the descriptors of transport stream {} take {} bytes, more than a "
                      "section of 1024 bytes holds",
                      network.network_id, stream.transport_stream_id, size_of(stream.descriptors)));
  if (size_of(network.descriptors) + 16 > MAX_PSI_SECTION)
    throw Description_error(
        fmt::format("network {}: its descriptors take {} bytes, more than a section of 1024 bytes "
                    "holds",
                    network.network_id, size_of(network.descriptors)));
  const auto nit =
      owned(dvbpsi_nit_new(table_id, network.network_id, network.network_id, all.version[table.kind], true),
            dvbpsi_nit_delete);
  add_all(network.descriptors,
          [&](uint8_t tag, uint8_t length, uint8_t* data) { dvbpsi_nit_descriptor_add(nit.get(), tag, length, data); });
  for (const Nit_stream& stream : network.streams) {
    dvbpsi_nit_ts_t* ts = dvbpsi_nit_ts_add(nit.get(), stream.transport_stream_id, stream.original_network_id);
    add_all(stream.descriptors,
            [&](uint8_t tag, uint8_t length, uint8_t* data) { dvbpsi_nit_ts_descriptor_add(ts, tag, length, data); });
  }
  table.variants.push_back(
      {0, encoder->take(dvbpsi_nit_sections_generate(encoder->handle(), nit.get(), table_id), "a NIT")});
  // libdvbpsi leaves the bit after the syntax indicator 0; EN 300 468, 5.2.1 and 5.1.1 reserve it as 1.
  for (Bytes& section : table.variants.back().sections) {
    section[1] |= 0x40;
    write_crc(&section);
  }
  return table;
}

Table sdt_of(const Description& all, const std::vector<Service>& services, uint16_t transport_stream_id,
             uint16_t original_network_id, bool actual, Encoder* encoder) {
  Table table;
  table.kind = actual ? SDT_ACTUAL : SDT_OTHER;
  table.pid = pid::SDT;
  table.transport_stream_id = transport_stream_id;
  for (const Service& service : services)
    if (size_of(service.sdt_descriptors) + 5 + 15 > MAX_PSI_SECTION)
      throw Description_error(
          fmt::format("service {}: its SDT descriptors take {} bytes, more than a section of 1024 "
                      "bytes holds",
                      service.service_id, size_of(service.sdt_descriptors)));
  for (double at : changes_of(services, all.duration)) {
    const auto sdt =
        owned(dvbpsi_sdt_new(actual ? table::SDT_ACTUAL : table::SDT_OTHER, transport_stream_id,
                             stepped(all.version[table.kind], table.variants.size()), true, original_network_id),
              dvbpsi_sdt_delete);
    for (const Service& service : services) {
      // Left out by wish: receivers must manage with a service that only the PAT has.
      if (!service.in_sdt || !on_air(service, at))
        continue;
      dvbpsi_sdt_service_t* added = dvbpsi_sdt_service_add(sdt.get(), service.service_id, service.eit_schedule,
                                                           service.eit_pf, service.running_status, service.free_ca);
      add_all(service.sdt_descriptors, [&](uint8_t tag, uint8_t length, uint8_t* data) {
        dvbpsi_sdt_service_descriptor_add(added, tag, length, data);
      });
    }
    table.variants.push_back({at, encoder->take(dvbpsi_sdt_sections_generate(encoder->handle(), sdt.get()), "an SDT")});
    // libdvbpsi writes the table id of an SDT actual into every SDT.
    for (Bytes& section : table.variants.back().sections) {
      section[0] = actual ? table::SDT_ACTUAL : table::SDT_OTHER;
      write_crc(&section);
    }
  }
  return table;
}

}  // namespace

Encoder::Encoder() : handle_(dvbpsi_new(complain, DVBPSI_MSG_ERROR)) {
  if (handle_ == nullptr)
    throw Description_error("libdvbpsi could not be started");
  // The callback of libdvbpsi gets nothing but the handle, so the text hangs on it.
  handle_->p_sys = new std::string;
}

Encoder::~Encoder() {
  delete static_cast<std::string*>(handle_->p_sys);
  handle_->p_sys = nullptr;
  dvbpsi_delete(handle_);
}

std::vector<Bytes> Encoder::take(dvbpsi_psi_section_t* sections, const char* what) {
  std::vector<Bytes> result;
  for (const dvbpsi_psi_section_t* section = sections; section != nullptr; section = section->p_next)
    result.emplace_back(section->p_data, section->p_data + 3 + section->i_length);
  if (sections != nullptr)
    dvbpsi_DeletePSISections(sections);
  auto* problem = static_cast<std::string*>(handle_->p_sys);
  // libdvbpsi may tell of a problem and give sections all the same; what is missing must not go unseen.
  if (result.empty() || !problem->empty())
    throw Description_error(
        fmt::format("libdvbpsi could not make {}{}", what, problem->empty() ? "" : ": " + *problem));
  return result;
}

void write_crc(Bytes* section) {
  uint32_t crc = 0xFFFFFFFF;
  const size_t end = section->size() - 4;
  // Bit by bit: sections are few, and nothing can be wrong with a table here.
  for (size_t i = 0; i < end; ++i) {
    crc ^= uint32_t{(*section)[i]} << 24;
    for (int bit = 0; bit < 8; ++bit)
      crc = (crc & 0x80000000) != 0 ? crc << 1 ^ 0x04C11DB7 : crc << 1;
  }
  for (size_t i = 0; i < 4; ++i)
    (*section)[end + i] = static_cast<uint8_t>(crc >> (24 - 8 * i));
}

Bytes time_section(const Description& all, Table_kind kind, int64_t epoch) {
  // Made when it is sent, since every one tells another time.
  Encoder encoder;
  const auto tot =
      owned(dvbpsi_tot_new(kind == TDT ? table::TDT : table::TOT, 0, 0, true, mjd_bcd(epoch)), dvbpsi_tot_delete);
  if (kind == TOT)
    add_all(all.tot_descriptors, [&](uint8_t tag, uint8_t length, uint8_t* data) {
      dvbpsi_tot_descriptor_add(tot.get(), tag, length, data);
    });
  const std::vector<Bytes> sections =
      encoder.take(dvbpsi_tot_sections_generate(encoder.handle(), tot.get()), kind == TDT ? "the TDT" : "the TOT");
  Bytes section = sections.front();
  // A reserved bit that libdvbpsi leaves 0.
  section[1] |= 0x40;
  // EN 300 468, 5.2.6: a TOT ends with a CRC though its syntax indicator is 0. libdvbpsi makes no room for it, and
  // takes a TOT without descriptors for a TDT.
  if (kind == TOT) {
    section[0] = table::TOT;
    section.resize(10 + size_of(all.tot_descriptors) + 4);
    section[8] = static_cast<uint8_t>(0xF0 | size_of(all.tot_descriptors) >> 8);
    section[9] = static_cast<uint8_t>(size_of(all.tot_descriptors));
    section[1] = static_cast<uint8_t>((section[1] & 0xF0) | (section.size() - 3) >> 8);
    section[2] = static_cast<uint8_t>(section.size() - 3);
    write_crc(&section);
  }
  return section;
}

std::vector<Table> make_tables(const Description& all) {
  Encoder encoder;
  std::vector<Table> tables;
  tables.push_back(pat_of(all, &encoder));
  add_pmts(all, &encoder, &tables);
  if (all.cat)
    tables.push_back(cat_of(all, &encoder));
  if (all.network)
    tables.push_back(nit_of(all, *all.network, true, &encoder));
  for (const Network& network : all.other_networks)
    tables.push_back(nit_of(all, network, false, &encoder));
  tables.push_back(sdt_of(all, all.services, all.transport_stream_id, all.original_network_id, true, &encoder));
  for (const Other_stream& other : all.other_streams)
    tables.push_back(
        sdt_of(all, other.services, other.transport_stream_id, other.original_network_id, false, &encoder));
  for (Table_kind kind : {TDT, TOT}) {
    if (!all.wanted[kind])
      continue;
    Table table;
    table.kind = kind;
    table.pid = pid::TIME;
    tables.push_back(table);
  }
  // Before the guide, whose tables have intervals of their own for later days.
  for (Table& table : tables)
    table.interval = all.intervals.table[table.kind];
  make_eits(all, all.services, all.transport_stream_id, all.original_network_id, true, &tables);
  for (const Other_stream& other : all.other_streams)
    make_eits(all, other.services, other.transport_stream_id, other.original_network_id, false, &tables);
  return tables;
}

}  // namespace softdvb_mux
