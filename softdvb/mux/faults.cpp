// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/mux/faults.h"

#include <algorithm>

#include "base/ids.h"

namespace softdvb_mux {

namespace {

// Segments leave gaps in the numbers of a schedule's sections, so the section itself tells.
unsigned number_of(const Bytes& section) {
  return section.size() >= 8 && (section[1] & 0x80) != 0 ? section[6] : 0;
}

// Every condition that is named must hold, so a fault can be as narrow as one section of one service.
bool is_meant(const Fault& fault, const Table& table, unsigned section_number, uint64_t count, double at) {
  if (!fault.tables[table.kind] || at < fault.from || at >= fault.to || count >= fault.first ||
      count % fault.every != 0)
    return false;
  if (fault.service_id && *fault.service_id != table.service_id)
    return false;
  if (fault.transport_stream_id && *fault.transport_stream_id != table.transport_stream_id)
    return false;
  if (fault.network_id && *fault.network_id != table.network_id)
    return false;
  return !fault.section || *fault.section == section_number;
}

void add_to_length(Bytes* section, size_t at, int change) {
  if (at + 1 >= section->size())
    return;
  const int length = ((*section)[at] & 0x0F) << 8 | (*section)[at + 1];
  // Twelve bits; the four above are reserved and stay.
  const int changed = std::clamp(length + change, 0, 0xFFF);
  (*section)[at] = static_cast<uint8_t>(((*section)[at] & 0xF0) | changed >> 8);
  (*section)[at + 1] = static_cast<uint8_t>(changed);
}

// Where a table keeps the length of a loop; 0 when it has no such loop.
// ISO/IEC 13818-1, 2.4.4; EN 300 468, 5.2.
size_t loop_length_at(Table_kind kind, const Bytes& section, unsigned loop) {
  const auto past = [&](size_t at) {
    return at + 2 + (at + 1 < section.size() ? size_t{section[at] & 0x0Fu} << 8 | section[at + 1] : 0);
  };
  switch (kind) {
    case PMT:
      return loop == 0 ? 10 : past(10) + 3;
    case NIT_ACTUAL:
    case NIT_OTHER:
      return loop == 0 ? 8 : past(8) + 2 + 4;
    case SDT_ACTUAL:
    case SDT_OTHER:
      return 11 + 3;
    case EIT_PF_ACTUAL:
    case EIT_PF_OTHER:
    case EIT_SCHEDULE_ACTUAL:
    case EIT_SCHEDULE_OTHER:
      return 14 + 10;
    case TOT:
      return 8;
    default:
      return 0;
  }
}

void change_loop(const Fault& fault, Table_kind kind, Bytes* section) {
  size_t at = loop_length_at(kind, *section, fault.loop);
  if (fault.loop == 2) {
    // The length byte of the first descriptor of the inner loop.
    if (kind == CAT)
      at = 6;
    at += 3;
    if (at + 4 < section->size())
      (*section)[at] = static_cast<uint8_t>((*section)[at] + fault.change);
  } else if (at != 0 && at + 5 < section->size()) {
    add_to_length(section, at, fault.change);
  }
}

// Faults before this one may have cut the section too short for a CRC.
bool has_crc(const Bytes& section) {
  return section.size() >= 8 && section[0] != table::TDT;
}

}  // namespace

void apply_faults(const std::vector<Fault>& faults, const Table& table, uint64_t count, double at,
                  Transmission* transmission) {
  Bytes& section = transmission->section;
  const unsigned section_number = number_of(section);
  for (const Fault& fault : faults) {
    if (!is_meant(fault, table, section_number, count, at))
      continue;
    // Asked for each fault anew, because the one before may have changed it.
    const bool long_header = section.size() >= 12 && (section[1] & 0x80) != 0;
    switch (fault.kind) {
      case WRONG_CRC:
        if (has_crc(section))
          section.back() = static_cast<uint8_t>(section.back() ^ 0x55);
        break;
      case DROP:
        transmission->dropped = true;
        break;
      case CUT:
        if (fault.value < section.size()) {
          section.resize(fault.value);
          transmission->cut = true;
        }
        break;
      case WRONG_SECTION_LENGTH:
        add_to_length(&section, 1, fault.change);
        // The CRC stands where the wrong length says, so that a receiver accepts the section.
        if (fault.right_crc && has_crc(section)) {
          section.resize(std::max<size_t>(8, 3 + (size_t{section[1] & 0x0Fu} << 8 | section[2])), 0xFF);
          write_crc(&section);
        }
        break;
      case WRONG_LOOP_LENGTH:
        change_loop(fault, table.kind, &section);
        if (fault.right_crc && has_crc(section))
          write_crc(&section);
        break;
      // With a right CRC: the fault is a receiver's problem only if it believes the section.
      case WRONG_VERSION:
        if (long_header) {
          section[5] = static_cast<uint8_t>((section[5] & 0xC1) | fault.value << 1);
          write_crc(&section);
        }
        break;
      case CURRENT_NEXT_0:
        if (long_header) {
          section[5] = static_cast<uint8_t>(section[5] & 0xFE);
          write_crc(&section);
        }
        break;
      case WRONG_BYTES:
        for (size_t i = 0; i < fault.bytes.size() && fault.offset + i < section.size(); ++i)
          section[fault.offset + i] = fault.bytes[i];
        if (fault.right_crc && has_crc(section))
          write_crc(&section);
        break;
      case OTHER_PID:
        transmission->pid = static_cast<uint16_t>(fault.value);
        break;
      case DUPLICATE_SECTION:
        transmission->twice = true;
        break;
      case DUPLICATE_PACKET:
        transmission->packets_twice = true;
        break;
      case LOSE_PACKET:
        transmission->lost_packet = static_cast<int>(fault.value);
        break;
      case DISCONTINUITY:
        transmission->skip = fault.value;
        break;
      case TRANSPORT_ERROR:
        transmission->transport_error = true;
        break;
    }
  }
}

}  // namespace softdvb_mux
