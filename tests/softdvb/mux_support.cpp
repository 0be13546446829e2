// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/mux_support.h"

#include <fmt/format.h>

#include "support/test.h"

// These headers need their order.
// clang-format off
extern "C" {
#include <dvbpsi/dvbpsi.h>
#include <dvbpsi/descriptor.h>
#include <dvbpsi/psi.h>
#include <dvbpsi/demux.h>
#include <dvbpsi/cat.h>
#include <dvbpsi/eit.h>
#include <dvbpsi/nit.h>
#include <dvbpsi/pat.h>
#include <dvbpsi/pmt.h>
#include <dvbpsi/sdt.h>
#include <dvbpsi/tot.h>
}
// clang-format on

#include "base/ids.h"
#include "softdvb/mux/stream.h"

namespace mux_support {

namespace {

using fmt::format;
using Lines = std::vector<std::string>;

std::string loop(const dvbpsi_descriptor_t* descriptor) {
  std::string text = "{";
  for (; descriptor != nullptr; descriptor = descriptor->p_next) {
    text += format("{}{:02x}[{}]", text.size() > 1 ? " " : "", descriptor->i_tag,
                   hex(Bytes(descriptor->p_data, descriptor->p_data + descriptor->i_length)));
  }
  return text + "}";
}

void on_pat(void* lines, dvbpsi_pat_t* pat) {
  std::string text = format("PAT ts {} v{}:", pat->i_ts_id, pat->i_version);
  for (auto* program = pat->p_first_program; program != nullptr; program = program->p_next)
    text += format(" {}>{}", program->i_number, program->i_pid);
  static_cast<Lines*>(lines)->push_back(text);
  dvbpsi_pat_delete(pat);
}

void on_pmt(void* lines, dvbpsi_pmt_t* pmt) {
  std::string text = format("PMT {} v{} pcr {} ", pmt->i_program_number, pmt->i_version, pmt->i_pcr_pid);
  text += loop(pmt->p_first_descriptor) + ":";
  for (auto* es = pmt->p_first_es; es != nullptr; es = es->p_next)
    text += format(" 0x{:02x}@{} ", es->i_type, es->i_pid) + loop(es->p_first_descriptor);
  static_cast<Lines*>(lines)->push_back(text);
  dvbpsi_pmt_delete(pmt);
}

void on_cat(void* lines, dvbpsi_cat_t* cat) {
  static_cast<Lines*>(lines)->push_back(format("CAT v{} ", cat->i_version) + loop(cat->p_first_descriptor));
  dvbpsi_cat_delete(cat);
}

void on_nit(void* lines, dvbpsi_nit_t* nit) {
  std::string text = format("NIT 0x{:02x} net {} v{} ", nit->i_table_id, nit->i_network_id, nit->i_version);
  text += loop(nit->p_first_descriptor) + ":";
  for (auto* ts = nit->p_first_ts; ts != nullptr; ts = ts->p_next)
    text += format(" {}/{} ", ts->i_ts_id, ts->i_orig_network_id) + loop(ts->p_first_descriptor);
  static_cast<Lines*>(lines)->push_back(text);
  dvbpsi_nit_delete(nit);
}

void on_sdt(void* lines, dvbpsi_sdt_t* sdt) {
  std::string text =
      format("SDT 0x{:02x} ts {} net {} v{}:", sdt->i_table_id, sdt->i_extension, sdt->i_network_id, sdt->i_version);
  for (auto* service = sdt->p_first_service; service != nullptr; service = service->p_next) {
    text += format(" {} schedule {:d} pf {:d} running {} ca {:d} ", service->i_service_id, service->b_eit_schedule,
                   service->b_eit_present, service->i_running_status, service->b_free_ca);
    text += loop(service->p_first_descriptor);
  }
  static_cast<Lines*>(lines)->push_back(text);
  dvbpsi_sdt_delete(sdt);
}

void on_eit(void* lines, dvbpsi_eit_t* eit) {
  std::string text = format("EIT 0x{:02x} {} ts {} net {} v{}:", eit->i_table_id, eit->i_extension, eit->i_ts_id,
                            eit->i_network_id, eit->i_version);
  for (auto* event = eit->p_first_event; event != nullptr; event = event->p_next) {
    text += format(" {} {:010x} {:06x} running {} ca {:d} ", event->i_event_id, event->i_start_time, event->i_duration,
                   event->i_running_status, event->b_free_ca);
    text += loop(event->p_first_descriptor);
  }
  static_cast<Lines*>(lines)->push_back(text);
  dvbpsi_eit_delete(eit);
}

void on_tot(void* lines, dvbpsi_tot_t* tot) {
  static_cast<Lines*>(lines)->push_back(format("TOT 0x{:02x} {:010x} ", tot->i_table_id, uint64_t{tot->i_utc_time}) +
                                        loop(tot->p_first_descriptor));
  dvbpsi_tot_delete(tot);
}

void on_subtable(dvbpsi_t* handle, uint8_t table_id, uint16_t extension, void* lines) {
  if (table_id == table::NIT_ACTUAL || table_id == table::NIT_OTHER)
    dvbpsi_nit_attach(handle, table_id, extension, on_nit, lines);
  else if (table_id == table::SDT_ACTUAL || table_id == table::SDT_OTHER)
    dvbpsi_sdt_attach(handle, table_id, extension, on_sdt, lines);
  else if (table_id >= table::EIT_PRESENT_FOLLOWING && table_id <= table::EIT_LAST)
    dvbpsi_eit_attach(handle, table_id, extension, on_eit, lines);
  else if (table_id == table::TDT || table_id == table::TOT)
    dvbpsi_tot_attach(handle, table_id, extension, on_tot, lines);
}

}  // namespace

std::string hex(const Bytes& bytes) {
  std::string text;
  for (uint8_t byte : bytes)
    text += format("{:02x}", byte);
  return text;
}

Bytes unhex(const std::string& text) {
  Bytes result;
  std::string digits = text;
  digits.erase(std::remove(digits.begin(), digits.end(), ' '), digits.end());
  for (size_t i = 0; i + 1 < digits.size(); i += 2)
    result.push_back(static_cast<uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
  return result;
}

std::vector<Packet> packets_of(const Bytes& stream) {
  EXPECT_EQ(stream.size() % 188, 0u);
  std::vector<Packet> packets;
  for (size_t at = 0; at + 188 <= stream.size(); at += 188) {
    const uint8_t* p = stream.data() + at;
    EXPECT_EQ(p[0], 0x47) << "packet " << at / 188;
    Packet packet;
    packet.transport_error = (p[1] & 0x80) != 0;
    packet.start = (p[1] & 0x40) != 0;
    packet.pid = static_cast<uint16_t>((p[1] & 31) << 8 | p[2]);
    EXPECT_EQ(p[3] & 0xC0, 0) << "scrambled packet " << at / 188;
    packet.has_payload = (p[3] & 0x10) != 0;
    packet.counter = p[3] & 15;
    size_t payload = 4;
    if ((p[3] & 0x20) != 0) {
      payload = 5u + p[4];
      EXPECT_LE(payload, packet.has_payload ? 187u : 188u) << "packet " << at / 188;
      packet.discontinuity = p[4] > 0 && (p[5] & 0x80) != 0;
      packet.has_pcr = p[4] >= 7 && (p[5] & 0x10) != 0;
      if (packet.has_pcr) {
        const uint64_t base =
            uint64_t{p[6]} << 25 | uint64_t{p[7]} << 17 | uint64_t{p[8]} << 9 | uint64_t{p[9]} << 1 | p[10] >> 7;
        packet.pcr = base * 300 + (static_cast<unsigned>(p[10] & 1) << 8 | p[11]);
      }
    }
    if (packet.has_payload)
      packet.payload.assign(p + payload, p + 188);
    packets.push_back(std::move(packet));
  }
  return packets;
}

std::string Section_seen::hex(size_t from, size_t size) const {
  return mux_support::hex(bytes).substr(2 * from, 2 * size);
}

bool Section_seen::crc_right() const {
  return support::mpeg_crc32(bytes.data(), bytes.size()) == 0;
}

std::vector<Section_seen> sections_of(const Bytes& stream) {
  struct Under_way {
    int counter = -1;
    bool collecting = false;
    Bytes bytes;
  };
  std::map<uint16_t, Under_way> states;
  std::vector<Section_seen> sections;
  size_t index = 0;
  for (const Packet& packet : packets_of(stream)) {
    const size_t here = index++;
    if (packet.pid == pid::LAST || !packet.has_payload)
      continue;
    Under_way& state = states[packet.pid];
    const bool repeated = state.counter == packet.counter;
    const bool follows = state.counter < 0 || packet.counter == ((state.counter + 1) & 15);
    state.counter = packet.counter;
    if (repeated)
      continue;
    if (packet.transport_error || (!follows && !packet.start)) {
      state.collecting = false;
      continue;
    }
    const Bytes& payload = packet.payload;
    if (packet.start) {
      if (payload[0] == 0 && payload[1] == 0 && payload[2] == 1)
        continue;  // PES
      EXPECT_EQ(payload[0], 0) << "pointer field, packet " << here;
      state.bytes.assign(payload.begin() + 1, payload.end());
      state.collecting = state.bytes[0] != 0xFF;
    } else if (state.collecting) {
      state.bytes.insert(state.bytes.end(), payload.begin(), payload.end());
    }
    if (!state.collecting)
      continue;
    const size_t size = 3u + ((state.bytes[1] & 15u) << 8 | state.bytes[2]);
    if (state.bytes.size() < size)
      continue;
    state.collecting = false;
    Section_seen seen;
    seen.pid = packet.pid;
    seen.packet = here;
    seen.bytes.assign(state.bytes.begin(), state.bytes.begin() + static_cast<std::ptrdiff_t>(size));
    sections.push_back(std::move(seen));
  }
  return sections;
}

std::vector<Section_seen> sections_of(const Bytes& stream, uint16_t pid, unsigned table_id) {
  std::vector<Section_seen> result;
  for (Section_seen& section : sections_of(stream))
    if (section.pid == pid && section.table_id() == table_id)
      result.push_back(std::move(section));
  return result;
}

Lines tables_by_libdvbpsi(const Bytes& stream, const std::vector<uint16_t>& pmt_pids) {
  Lines lines;
  std::map<uint16_t, dvbpsi_t*> handles;
  const auto open = [&](uint16_t pid) { return handles[pid] = dvbpsi_new(nullptr, DVBPSI_MSG_NONE); };
  dvbpsi_pat_attach(open(0), on_pat, &lines);
  dvbpsi_cat_attach(open(1), on_cat, &lines);
  for (const uint16_t pid : std::initializer_list<uint16_t>{pid::NIT, pid::SDT, pid::EIT, pid::TIME})
    dvbpsi_AttachDemux(open(pid), on_subtable, &lines);
  uint16_t program = 101;
  for (uint16_t pid : pmt_pids)
    dvbpsi_pmt_attach(open(pid), program++, on_pmt, &lines);
  Bytes copy = stream;
  for (size_t at = 0; at + 188 <= copy.size(); at += 188) {
    const auto pid = static_cast<uint16_t>((copy[at + 1] & 31) << 8 | copy[at + 2]);
    const auto handle = handles.find(pid);
    if (handle != handles.end())
      dvbpsi_packet_push(handle->second, copy.data() + at);
  }
  for (const auto& [pid, handle] : handles) {
    if (pid == 0)
      dvbpsi_pat_detach(handle);
    else if (pid == 1)
      dvbpsi_cat_detach(handle);
    else if (std::find(pmt_pids.begin(), pmt_pids.end(), pid) != pmt_pids.end())
      dvbpsi_pmt_detach(handle);
    else
      dvbpsi_DetachDemux(handle);
    dvbpsi_delete(handle);
  }
  return lines;
}

Lines lines_with(const Lines& lines, const std::string& prefix) {
  Lines result;
  std::copy_if(lines.begin(), lines.end(), std::back_inserter(result),
               [&](const std::string& line) { return line.rfind(prefix, 0) == 0; });
  return result;
}

std::string one_service(const std::string& service_keys, const std::string& whole_keys) {
  return R"({"duration": 2, "bit_rate": 1000000, "payload_rate": 0, "transport_stream_id": 1, "original_network_id": 5,
             "services": [{"service_id": 101, "name": "N", "provider": "P")" +
         service_keys + "}]" + whole_keys + "}";
}

Bytes stream_of(const std::string& json) {
  return softdvb_mux::make_stream(json, NOW);
}

}  // namespace mux_support
