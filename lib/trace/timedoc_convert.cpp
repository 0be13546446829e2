// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Records of the trace buffer to the text that the TimeDoctor viewer reads.
#include <array>
#include <string>
#include <unordered_map>

#include "base/log.h"
#include "trace/timedoc.h"

namespace {

// By interrupt number. Those without a name are told apart by it all the same.
constexpr std::array INTERRUPT_NAMES = {
    "NO_NAME",
    "NO_NAME",
    "NO_NAME",
    "NO_NAME",
    "NO_NAME",
    "NO_NAME",
    "NO_NAME",
    "TIMER",
    "NO_NAME",
    "I2C0",
    "I2C1",
    "UART0",
    "UART1",
    "TS_IN0_DV",
    "TS_IN0_DMA",
    "GPIO",
    "AUDIO_DEC",
    "VIDEO_DEC",
    "CONFIG",
    "AOI",
    "SYNC",
    "SPU",
    "OSD",
    "DISP1",
    "DEINTERLACER",
    "DISPLAY2",
    "VC",
    "SC",
    "IDE",
    "IDE_DMA",
    "TS_IN1_DV",
    "TS_IN1_DMA",
    "SGDX_DMA",
    "TS_OUT",
    "IR",
    "VMSP1",
    "VMSP2",
    "PIBC",
    "TS_IN0_TRD",
    "SGDX_TPD",
    "USB",
    "TS_IN1_TRD",
    "CLOCK",
    "SGDX_PARSER",
    "VMSP_DMA",
    "MIU",
    "AVCHIP",
    "SYNC_HD",
    "DISP_HD",
    "DISP_SCALER",
    "OSD_HD1",
    "DTL_WRITER_Y",
    "DTL_WRITER_C",
    "DTL_EMULATOR_Y_IR",
    "DTL_EMULATOR_C_IR",
    "DENC_TTX",
    "MMI_SIF0",
    "MMI_SIF1",
    "MMI_CDMMU",
    "PIBCS",
    "ETHERNET",
    "VMSP1_0",
    "VMSP1_1",
    "VMSP1_DMA",
    "TDGR_DE",
    "IR1_IRQ",
    "GPIO_0",
    "GPIO_1",
    "GPIO_2",
    "GPIO_3",
    "GPIO_4",
    "GPIO_5",
    "GPIO_6",
    "GPIO_7",
    "GPIO_8",
    "GPIO_9",
    "GPIO_10",
    "GPIO_11",
    "GPIO_12",
    "GPIO_13",
    "GPIO_14",
    "GPIO_15",
};
constexpr unsigned INTERRUPTS = 82;
static_assert(INTERRUPT_NAMES.size() == INTERRUPTS);

// The header of every file, by which the viewer turns ticks into seconds.
constexpr unsigned SPEED = 320000000;
constexpr unsigned MEMORY_SPEED = 200000000;
constexpr unsigned START_TIME = 68570000;

// Ids of occurrences that are made here. They share their numbers with the notes of the trace, which are counted from
// 0.
constexpr unsigned OCCURRENCE_WRAP = 1;
constexpr unsigned OCCURRENCE_ENABLED = 2;

enum : unsigned { CMD_END = 0, CMD_START = 1, CMD_NOTE = 2, CMD_RENAME = 3, CMD_SILENT = 4 };
enum : unsigned {
  TYPE_TASK = 0,
  TYPE_INTERRUPT = 1,
  TYPE_OBJECT = 2,
  TYPE_OBJECT_2 = 3,
  TYPE_EVENT = 4,
  TYPE_AGENT = 8,
};

struct Record {
  unsigned time;
  unsigned cmd;
  unsigned type;
  unsigned id;
  unsigned data1;
  unsigned data2;
};

// The names of one kind; an entry's place is its id. It finds what Timedoc::lookup_insert_id would, but does not
// search: damaged traces have a new name in every record.
class Name_list {
 public:
  unsigned find_or_add(const std::string& name, unsigned key, bool* inserted) {
    const auto next = static_cast<unsigned>(ids_.size());
    const auto [entry, added] = ids_.try_emplace(name + '\0' + std::to_string(key), next);
    *inserted = added;
    return entry->second;
  }

 private:
  std::unordered_map<std::string, unsigned> ids_;
};

}  // namespace

class Timedoc::Converter {
 public:
  explicit Converter(Timedoc* timedoc) : out_(*timedoc) {}

  void header() {
    out_.printf_tdi("PNX893x trace\n");
    out_.printf_tdi("SPEED %u\n", SPEED);
    out_.printf_tdi("MEMSPEED %u\n", MEMORY_SPEED);
    out_.printf_tdi("TIME %u\n", START_TIME);
  }

  // The time goes on with every record, also with one that is left out: the next one counts from it.
  void record(int number, const Record& r) {
    advance(number, r.time);
    if (r.cmd == CMD_NOTE) {
      note(r);
    } else if (!named(r)) {
      bad(number, r);
    } else if (!silent_) {
      if (r.cmd == CMD_END) {
        out_.printf_tdi("STO %u %u %u\n", r.type, id_, running_);
      } else if (r.cmd == CMD_START) {
        out_.printf_tdi("STA %u %u %u\n", r.type, id_, running_);
      } else if (!out_of_range_) {
        bad(number, r);
      }
    }
  }

 private:
  void advance(int number, unsigned time) {
    // The device counts from its start; in the file time begins with the first record.
    if (first_) {
      previous_ = time;
      first_ = false;
    }
    if (time < previous_) {
      KLOG(VERB_WARNING, "WARNING: Time wrap at record %d\n", number);
      if (!wrapped_)
        out_.printf_tdi("NAM 7 %u TimeWrap\n", OCCURRENCE_WRAP);
      wrapped_ = true;
      out_.printf_tdi("OCC 7 %u %u\n", OCCURRENCE_WRAP, running_);
      running_ += time - previous_ - 1;  // Deliberate: a wrap counts one tick less than the difference.
    } else {
      running_ += time - previous_;
    }
    previous_ = time;
  }

  void note(const Record& r) {
    const char* name = out_.get_tr_name(r.data1);
    bool inserted = false;
    // Notes are told apart by the whole word, also where a zero byte ends the name that is shown.
    id_ = notes_.find_or_add(name, r.data1, &inserted);
    if (inserted)
      out_.printf_tdi("NAM 7 %u %s\n", id_, name);
    out_.printf_tdi("OCC 7 %u %u\n", id_, running_);
    out_.printf_tdi("DSC 1 %u %d\n", id_, static_cast<int>(r.data2));
  }

  // Names the record's task, interrupt or object and sets id_. False for a type that has no meaning.
  bool named(const Record& r) {
    // What the record before has left here must not decide over this one; id_ is kept on purpose.
    silent_ = false;
    out_of_range_ = false;
    switch (r.type) {
      case TYPE_TASK:
        task(r);
        return true;
      case TYPE_INTERRUPT:
        interrupt(r);
        return true;
      case TYPE_OBJECT:
      case TYPE_OBJECT_2:
      case TYPE_EVENT:
        object(r);
        return true;
      case TYPE_AGENT:
        agent(r);
        return true;
      default:
        return false;
    }
  }

  void task(const Record& r) {
    const char* name = out_.get_tr_name(r.data2, r.data1);
    bool inserted = false;
    id_ = tasks_.find_or_add(name, r.id, &inserted);
    if (inserted)
      out_.printf_tdi("NAM %u %u %s\n", TYPE_TASK, id_, name);
    if (r.cmd == CMD_RENAME)
      out_.printf_tdi("NAM %u %u %s\n", TYPE_TASK, id_, name);
    silent_ = r.cmd == CMD_RENAME || r.cmd == CMD_SILENT;
  }

  void interrupt(const Record& r) {
    if (r.id >= INTERRUPTS) {
      KLOG(VERB_ERROR, "ERROR: ISR index out of range 0..82");
      out_of_range_ = true;
      return;
    }
    const char* name = INTERRUPT_NAMES[r.id];
    bool inserted = false;
    id_ = interrupts_.find_or_add(name, r.id, &inserted);
    if (inserted)
      out_.printf_tdi("NAM %u %u %s\n", TYPE_INTERRUPT, id_, name);
    if (r.cmd == CMD_START) {
      // Marks an interrupt that begins during another one. It is one flag and no depth: the end of any of them clears
      // it.
      if (interrupt_active_)
        out_.printf_tdi("DSC 3 0 0\n");
      interrupt_active_ = true;
    } else if (r.cmd == CMD_END) {
      interrupt_active_ = false;
    }
  }

  void object(const Record& r) {
    const char* name = out_.get_tr_name(r.data2, r.data1);
    bool inserted = false;
    id_ = objects_.find_or_add(name, r.data1, &inserted);
    if (!inserted)
      return;
    if (r.type != TYPE_EVENT && r.id != 0) {
      out_.printf_tdi("NAM %u %u SBM_%s\n", r.type, id_, name);
    } else {
      out_.printf_tdi("NAM %u %u %s\n", r.type, id_, name);
    }
  }

  void agent(const Record& r) {
    if (r.id >= INTERRUPTS) {
      KLOG(VERB_ERROR, "ERROR: AGENT ISR index out of range 0..82");
      out_of_range_ = true;
      return;
    }
    const char* name = INTERRUPT_NAMES[r.id];
    bool inserted = false;
    id_ = agents_.find_or_add(name, r.id, &inserted);
    if (inserted)
      out_.printf_tdi("NAM %u %u %s\n", TYPE_AGENT, id_, name);
    // Agents report with these data that their interrupt was enabled, besides whatever the command says.
    if (r.data1 == 0 && r.data2 == 1) {
      if (!enabled_named_)
        out_.printf_tdi("NAM 7 %u IntEnabled\n", OCCURRENCE_ENABLED);
      enabled_named_ = true;
      out_.printf_tdi("OCC %u %u %u\n", TYPE_AGENT, id_, running_);
    }
  }

  void bad(int number, const Record& r) {
    KLOG(VERB_ERROR, "ERROR: Parse error at entry %d. Time %x, cmd %x type %x id %x, data1 %x data2 %x\n", number,
         r.time, r.cmd, r.type, r.id, r.data1, r.data2);
  }

  Timedoc& out_;
  Name_list notes_, tasks_, interrupts_, objects_, agents_;
  unsigned running_ = 0;
  unsigned previous_ = 0;
  unsigned id_ = 0;
  bool first_ = true;
  bool wrapped_ = false;
  bool silent_ = false;
  bool out_of_range_ = false;
  bool interrupt_active_ = false;
  bool enabled_named_ = false;
};

void Timedoc::convert_to_tdi(unsigned* records, int words) {
  Converter converter(this);
  converter.header();
  for (int i = 0; words - i >= 4; i += 4) {
    const unsigned* w = records + i;
    converter.record(i / 4, {w[0], w[1] >> 24, (w[1] >> 16) & 0xFF, w[1] & 0xFFFF, w[2], w[3]});
  }
  printf_tdi("END\n");
}
