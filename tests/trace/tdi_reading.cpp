// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "trace/tdi_reading.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <sstream>
#include <utility>

namespace {

enum class Names { OF_THE_RECORD, OF_THE_CHIP };
enum class Key { ID, DATA1 };

struct Kind {
  int list;
  Names names;
  Key key;
  const char* prefix;          // of the name when the id is not 0
  std::vector<unsigned> mute;  // commands that are no error and write nothing
  bool renamed_by_3;
  bool nests;
  bool can_be_enabled;
  const char* range_error;
};

const std::map<unsigned, Kind> KINDS = {
    {0, {0, Names::OF_THE_RECORD, Key::ID, "", {3, 4}, true, false, false, nullptr}},
    {1, {1, Names::OF_THE_CHIP, Key::ID, "", {}, false, true, false, "ERROR: ISR index out of range 0..82"}},
    {2, {2, Names::OF_THE_RECORD, Key::DATA1, "SBM_", {}, false, false, false, nullptr}},
    {3, {2, Names::OF_THE_RECORD, Key::DATA1, "SBM_", {}, false, false, false, nullptr}},
    {4, {2, Names::OF_THE_RECORD, Key::DATA1, "", {}, false, false, false, nullptr}},
    {8, {3, Names::OF_THE_CHIP, Key::ID, "", {}, false, false, true, "ERROR: AGENT ISR index out of range 0..82"}},
};
const std::map<unsigned, std::string> VERBS = {{0, "STO"}, {1, "STA"}};
constexpr int NOTES = 4;

std::string characters(std::initializer_list<unsigned> words) {
  std::string out;
  for (const unsigned word : words) {
    for (const int shift : {24, 16, 8, 0})
      out += static_cast<char>(word >> shift & 0xFF);
  }
  return out.substr(0, out.find('\0'));
}

std::string line(std::initializer_list<std::string> parts) {
  std::string out;
  for (const std::string& part : parts)
    out += (out.empty() ? "" : " ") + part;
  return out + "\n";
}

std::string hex(const char* legend, unsigned value) {
  std::ostringstream out;
  out << legend << ' ' << std::hex << value;
  return out.str();
}

}  // namespace

const std::vector<std::string>& interrupt_names() {
  static const std::vector<std::string> names = [] {
    std::istringstream in(
        "NO_NAME NO_NAME NO_NAME NO_NAME NO_NAME NO_NAME NO_NAME TIMER NO_NAME I2C0 I2C1 UART0 UART1 TS_IN0_DV "
        "TS_IN0_DMA GPIO AUDIO_DEC VIDEO_DEC CONFIG AOI SYNC SPU OSD DISP1 DEINTERLACER DISPLAY2 VC SC IDE IDE_DMA "
        "TS_IN1_DV TS_IN1_DMA SGDX_DMA TS_OUT IR VMSP1 VMSP2 PIBC TS_IN0_TRD SGDX_TPD USB TS_IN1_TRD CLOCK SGDX_PARSER "
        "VMSP_DMA MIU AVCHIP SYNC_HD DISP_HD DISP_SCALER OSD_HD1 DTL_WRITER_Y DTL_WRITER_C DTL_EMULATOR_Y_IR "
        "DTL_EMULATOR_C_IR DENC_TTX MMI_SIF0 MMI_SIF1 MMI_CDMMU PIBCS ETHERNET VMSP1_0 VMSP1_1 VMSP1_DMA TDGR_DE "
        "IR1_IRQ");
    std::vector<std::string> out;
    for (std::string name; in >> name;)
      out.push_back(name);
    for (int i = 0; i < 16; ++i)
      out.push_back("GPIO_" + std::to_string(i));
    return out;
  }();
  return names;
}

Tdi_reading read_by_table(const std::vector<unsigned>& words) {
  Tdi_reading out;
  std::vector<std::vector<std::pair<std::string, unsigned>>> lists(5);
  unsigned long long ticks = 0;  // the running time is its remainder by 2^32
  unsigned before = words.empty() ? 0 : words[0];
  size_t id = 0;
  bool wrapped = false;
  bool enabled = false;
  bool active = false;
  const auto now = [&ticks] { return std::to_string(ticks % (1ULL << 32)); };
  const auto enter = [&](int list, const std::string& name, unsigned key) {
    auto& entries = lists[static_cast<size_t>(list)];
    const auto at = std::find(entries.begin(), entries.end(), std::pair(name, key));
    id = static_cast<size_t>(at - entries.begin());
    if (at != entries.end())
      return false;
    entries.emplace_back(name, key);
    return true;
  };
  for (size_t i = 0; i < words.size() / 4; ++i) {
    const unsigned time = words[4 * i];
    const unsigned cmd = words[4 * i + 1] / 0x1000000;
    const unsigned type = words[4 * i + 1] / 0x10000 % 0x100;
    const unsigned number = words[4 * i + 1] % 0x10000;
    const unsigned data1 = words[4 * i + 2];
    const unsigned data2 = words[4 * i + 3];

    if (time < before) {
      out.messages += "WARNING: Time wrap at record " + std::to_string(i) + "\n";
      out.text += wrapped ? "" : "NAM 7 1 TimeWrap\n";
      wrapped = true;
      out.text += line({"OCC", "7", "1", now()});
      ticks += (1ULL << 32) - before + time - 1;
    } else {
      ticks += time - before;
    }
    before = time;

    if (cmd == 2) {
      const std::string name = characters({data1});
      if (enter(NOTES, name, data1))
        out.text += line({"NAM", "7", std::to_string(id), name});
      out.text += line({"OCC", "7", std::to_string(id), now()});
      out.text += line({"DSC", "1", std::to_string(id), std::to_string(static_cast<int>(data2))});
      continue;
    }
    const auto kind = KINDS.find(type);
    bool error = kind == KINDS.end();
    bool out_of_range = false;
    bool mute = false;
    if (!error) {
      const Kind& k = kind->second;
      out_of_range = k.names == Names::OF_THE_CHIP && number >= interrupt_names().size();
      mute = std::count(k.mute.begin(), k.mute.end(), cmd) != 0;
      if (out_of_range) {
        out.messages += k.range_error;
      } else {
        const std::string name = k.names == Names::OF_THE_CHIP ? interrupt_names()[number] : characters({data1, data2});
        const bool added = enter(k.list, name, k.key == Key::ID ? number : data1);
        const std::string naming =
            line({"NAM", std::to_string(type), std::to_string(id), (number != 0 ? k.prefix : "") + name});
        out.text += added ? naming : "";
        out.text += k.renamed_by_3 && cmd == 3 ? naming : "";
        if (k.nests && cmd == 1)
          out.text += active ? "DSC 3 0 0\n" : "";
        if (k.nests && cmd <= 1)
          active = cmd == 1;
        if (k.can_be_enabled && data1 == 0 && data2 == 1) {
          out.text += enabled ? "" : "NAM 7 2 IntEnabled\n";
          enabled = true;
          out.text += line({"OCC", "8", std::to_string(id), now()});
        }
      }
      const auto verb = VERBS.find(cmd);
      if (verb != VERBS.end())
        out.text += line({verb->second, std::to_string(type), std::to_string(id), now()});
      else
        error = !mute && !out_of_range;
    }
    if (error) {
      out.messages += "ERROR: Parse error at entry " + std::to_string(i) + ". " + hex("Time", time) + ", " +
                      hex("cmd", cmd) + " " + hex("type", type) + " " + hex("id", number) + ", " + hex("data1", data1) +
                      " " + hex("data2", data2) + "\n";
    }
  }
  return out;
}
