// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "support/trace_records.h"

namespace tdi_reading {

// The rules of the conversion once more, as a table of the kinds of records: what must come out, found another way.
struct Tdi_reading {
  std::string text;      // between header and end
  std::string messages;  // at verbosity 1
};

struct Kind {
  size_t list;
  bool named_by_chip;  // else by the record
  bool key_is_data1;   // else the id
  const char* prefix;  // of the name when the id is not 0
  const char* range_error = nullptr;
};

constexpr unsigned TASK = 0, INTERRUPT = 1, AGENT = 8;
inline const std::map<unsigned, Kind> KINDS = {
    {TASK, {0, false, false, ""}}, {INTERRUPT, {1, true, false, "", "ERROR: ISR index out of range 0..82"}},
    {2, {2, false, true, "SBM_"}}, {3, {2, false, true, "SBM_"}},
    {4, {2, false, true, ""}},     {AGENT, {3, true, false, "", "ERROR: AGENT ISR index out of range 0..82"}},
};
constexpr size_t NOTES = 4;

inline std::string characters(std::initializer_list<unsigned> words) {
  std::string out;
  for (const unsigned word : words) {
    for (const int shift : {24, 16, 8, 0})
      out += static_cast<char>(word >> shift & 0xFF);
  }
  return out.substr(0, out.find('\0'));
}

// "NAM 7 1 TimeWrap\n"
template <typename... Parts>
std::string line(const char* verb, const Parts&... parts) {
  std::ostringstream out;
  out << verb;
  ((out << ' ' << parts), ...);
  return out.str() + "\n";
}

inline std::vector<std::string> names_of_the_chip() {
  std::istringstream in(
      "NO_NAME NO_NAME NO_NAME NO_NAME NO_NAME NO_NAME NO_NAME TIMER NO_NAME I2C0 I2C1 UART0 UART1 TS_IN0_DV "
      "TS_IN0_DMA GPIO AUDIO_DEC VIDEO_DEC CONFIG AOI SYNC SPU OSD DISP1 DEINTERLACER DISPLAY2 VC SC IDE IDE_DMA "
      "TS_IN1_DV TS_IN1_DMA SGDX_DMA TS_OUT IR VMSP1 VMSP2 PIBC TS_IN0_TRD SGDX_TPD USB TS_IN1_TRD CLOCK SGDX_PARSER "
      "VMSP_DMA MIU AVCHIP SYNC_HD DISP_HD DISP_SCALER OSD_HD1 DTL_WRITER_Y DTL_WRITER_C DTL_EMULATOR_Y_IR "
      "DTL_EMULATOR_C_IR DENC_TTX MMI_SIF0 MMI_SIF1 MMI_CDMMU PIBCS ETHERNET VMSP1_0 VMSP1_1 VMSP1_DMA TDGR_DE "
      "IR1_IRQ");
  std::vector<std::string> out(std::istream_iterator<std::string>(in), {});
  for (int i = 0; i < 16; ++i)
    out.push_back("GPIO_" + std::to_string(i));
  return out;
}

inline Tdi_reading read_by_table(const std::vector<trace_records::Record>& records) {
  static const std::vector<std::string> interrupt_names = names_of_the_chip();
  Tdi_reading out;
  std::vector<std::vector<std::pair<std::string, unsigned>>> lists(5);
  unsigned long long ticks = 0;  // the running time is its remainder by 2^32
  unsigned before = records.empty() ? 0 : records[0].words[0];
  size_t id = 0;
  bool wrapped = false;
  bool enabled = false;
  bool active = false;
  const auto now = [&ticks] { return ticks % (1ULL << 32); };
  const auto enter = [&](size_t list, const std::string& name, unsigned key) {
    auto& entries = lists[list];
    const auto at = std::find(entries.begin(), entries.end(), std::pair(name, key));
    id = static_cast<size_t>(at - entries.begin());
    if (at != entries.end())
      return false;
    entries.emplace_back(name, key);
    return true;
  };
  for (size_t i = 0; i < records.size(); ++i) {
    const auto [time, control, data1, data2] = records[i].words;
    const unsigned cmd = control / 0x1000000;
    const unsigned type = control / 0x10000 % 0x100;
    const unsigned number = control % 0x10000;

    if (time < before) {
      out.messages += line("WARNING: Time wrap at record", i);
      out.text += (wrapped ? "" : "NAM 7 1 TimeWrap\n") + line("OCC", 7, 1, now());
      wrapped = true;
      ticks += (1ULL << 32) - before + time - 1;
    } else {
      ticks += time - before;
    }
    before = time;

    if (cmd == 2) {
      const std::string name = characters({data1});
      if (enter(NOTES, name, data1))
        out.text += line("NAM", 7, id, name);
      out.text += line("OCC", 7, id, now()) + line("DSC", 1, id, static_cast<int>(data2));
      continue;
    }
    const auto kind = KINDS.find(type);
    bool error = kind == KINDS.end();
    if (!error) {
      const Kind& k = kind->second;
      const bool out_of_range = k.named_by_chip && number >= interrupt_names.size();
      if (out_of_range) {
        out.messages += k.range_error;
      } else {
        const std::string name = k.named_by_chip ? interrupt_names[number] : characters({data1, data2});
        const bool added = enter(k.list, name, k.key_is_data1 ? data1 : number);
        const std::string naming = line("NAM", type, id, (number != 0 ? k.prefix : "") + name);
        out.text += added ? naming : "";
        out.text += type == TASK && cmd == 3 ? naming : "";
        if (type == INTERRUPT && cmd <= 1) {
          out.text += cmd == 1 && active ? "DSC 3 0 0\n" : "";
          active = cmd == 1;
        }
        if (type == AGENT && data1 == 0 && data2 == 1) {
          out.text += (enabled ? "" : "NAM 7 2 IntEnabled\n") + line("OCC", 8, id, now());
          enabled = true;
        }
      }
      if (cmd <= 1)
        out.text += line(cmd == 1 ? "STA" : "STO", type, id, now());
      else
        error = !(type == TASK && (cmd == 3 || cmd == 4)) && !out_of_range;
    }
    if (error) {
      std::ostringstream message;
      message << "ERROR: Parse error at entry " << i << std::hex << ". Time " << time << ", cmd " << cmd << " type "
              << type << " id " << number << ", data1 " << data1 << " data2 " << data2 << "\n";
      out.messages += message.str();
    }
  }
  return out;
}

}  // namespace tdi_reading
