// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/mux/stream.h"

#include <algorithm>
#include <cmath>
#include <deque>
#include <map>
#include <queue>
#include <set>

#include <fmt/format.h>

#include "base/ids.h"
#include "softdvb/mux/faults.h"

namespace softdvb_mux {

namespace {

constexpr uint16_t PID_NULL = pid::LAST;
constexpr uint64_t PCR_HZ = 27000000;
constexpr size_t SECTION_ROOM = PACKET - 4;

enum class Content : uint8_t { NOTHING, SECTION_START, SECTION, PES, PCR };

// A packet without its continuity counter, which only the finished order tells.
// Slots are placed first and written last, because the counters depend on everything that stands before a packet.
struct Slot {
  uint16_t pid = PID_NULL;
  Content content = Content::NOTHING;
  bool transport_error = false;
  bool repeated = false;  // the same packet once more
  bool lost = false;      // takes a counter value, but is not sent
  uint8_t skip = 0;
  uint8_t pes_stream_id = 0;
  Bytes payload;  // of a section; the rest is filled
};

// Something that is due again and again.
struct Source {
  enum Kind { SECTION, PES, PCR } kind = SECTION;
  const Table* table = nullptr;
  size_t section_number = 0;
  uint16_t pid = 0;
  uint8_t pes_stream_id = 0;
  double period = 1;
  double phase = 0;
  double from = 0;
  double to = 1e9;
  uint64_t count = 0;  // moments that have passed
  uint64_t sent = 0;   // transmissions before faults
};

struct Due {
  double at;
  size_t source;
  // Equal moments go by the order of the sources, so the same description gives the same bytes on every machine.
  bool operator>(const Due& other) const { return at != other.at ? at > other.at : source > other.source; }
};

// What waits on one PID, by deadline; the first is sent whole before another begins.
struct Pid_queue {
  std::multimap<double, std::deque<Slot>> waiting;
  double started_deadline = 0;
  std::deque<Slot> current;
  std::vector<std::pair<size_t, size_t>> busy;  // slots from a section's first to its last packet
  size_t began = 0;
};

std::vector<Slot> slots_of(const Transmission& transmission) {
  std::vector<Slot> slots;
  for (size_t at = 0; at < transmission.section.size();) {
    Slot slot;
    slot.pid = transmission.pid;
    slot.content = at == 0 ? Content::SECTION_START : Content::SECTION;
    slot.transport_error = transmission.transport_error;
    slot.lost = transmission.lost_packet == static_cast<int>(slots.size());
    // Each section begins a packet of its own, behind a pointer of 0. That costs some stuffing and keeps faults from
    // hitting two sections.
    const size_t room = SECTION_ROOM - (at == 0 ? 1 : 0);
    const size_t take = std::min(room, transmission.section.size() - at);
    const auto begin = transmission.section.begin() + static_cast<std::ptrdiff_t>(at);
    slot.payload.assign(begin, begin + static_cast<std::ptrdiff_t>(take));
    at += take;
    slots.push_back(std::move(slot));
  }
  // A jump of the counter stands before the section, where it is seen even if the section is of one packet.
  if (!slots.empty())
    slots.front().skip = static_cast<uint8_t>(transmission.skip);
  if (!transmission.packets_twice)
    return slots;
  std::vector<Slot> doubled;
  for (const Slot& slot : slots) {
    doubled.push_back(slot);
    doubled.push_back(slot);
    doubled.back().repeated = true;
    // The copy has the same counter, which is how a receiver knows it.
    doubled.back().skip = 0;
  }
  return doubled;
}

size_t packets_of(size_t section_size) {
  return (section_size + 1 + SECTION_ROOM - 1) / SECTION_ROOM;
}

const std::vector<Bytes>* variant_at(const Table& table, double at) {
  const std::vector<Bytes>* found = nullptr;
  for (const Variant& variant : table.variants)
    // The tolerance is for moments that were added up to just below the time of the change.
    if (variant.from <= at + 1e-9)
      found = &variant.sections;
  return found;
}

class Maker {
 public:
  Maker(const Description& all, const std::function<void(double)>& progress) : all_(all), progress_(progress) {}

  Bytes run() {
    tables_ = make_tables(all_);
    slot_seconds_ = static_cast<double>(PACKET * 8) / static_cast<double>(all_.bit_rate);
    // Whole packets only, and at least one.
    slot_count_ = static_cast<size_t>(std::llround(std::max(1.0, all_.duration / slot_seconds_)));
    loop_seconds_ = static_cast<double>(slot_count_) * slot_seconds_;
    // The order matters: the rate can be checked when all sources are known, and counters be aligned when all places
    // are taken.
    add_sections();
    add_streams();
    check_bit_rate();
    fill();
    align_counters();
    return write();
  }

 private:
  // Adds a source whose period divides the length of the stream, so that the pace is kept across the loop.
  void add(Source source, double interval) {
    const double wanted = std::min(interval, loop_seconds_);
    // The stream is up to half a packet longer than asked for, which shall not cost a transmission more.
    source.period = loop_seconds_ / std::ceil(loop_seconds_ / wanted * 0.999);
    // The first transmission is within the first period, or the loop would have a gap at its start.
    source.phase = std::fmod(source.phase, source.period);
    sources_.push_back(source);
  }

  void add_sections() {
    // Sections of one kind are spread over the interval by the golden ratio, whatever their number.
    std::array<size_t, TABLE_KINDS> order = {};
    for (const Table& table : tables_) {
      size_t sections = table.kind == TDT || table.kind == TOT ? 1 : 0;
      for (const Variant& variant : table.variants)
        sections = std::max(sections, variant.sections.size());
      for (size_t i = 0; i < sections; ++i) {
        Source source;
        source.table = &table;
        source.section_number = i;
        source.pid = table.pid;
        const double turn = static_cast<double>(order[table.kind]++) * 0.6180339887498949;
        // Sections that all came at the same moment would fill the stream then and delay each other.
        source.phase = (turn - std::floor(turn)) * std::min(table.interval, loop_seconds_);
        add(source, table.interval);
      }
    }
  }

  void add_streams() {
    std::set<uint16_t> pcr_pids;
    std::set<uint16_t> payload_pids;
    for (const Service& service : all_.services) {
      for (size_t i = 0; i < service.pmts.size(); ++i) {
        const Pmt_content& pmt = service.pmts[i];
        Source source;
        source.from = std::max(service.appears, pmt.from);
        source.to = std::min(service.vanishes, i + 1 < service.pmts.size() ? service.pmts[i + 1].from : 1e9);
        // A PID that two programmes share, or that stays over a change, is sent by the first, for its time.
        if (pmt.pcr_pid != PID_NULL && pcr_pids.insert(key(pmt.pcr_pid, i)).second) {
          source.kind = Source::PCR;
          source.pid = pmt.pcr_pid;
          // A little apart, so that no two begin at the same packet.
          source.phase = 0.0007 * static_cast<double>(pcr_pids.size());
          add(source, all_.intervals.pcr);
        }
        for (const Elementary_stream& stream : pmt.streams) {
          if (stream.payload_rate <= 0 || !payload_pids.insert(key(stream.pid, i)).second)
            continue;
          source.kind = Source::PES;
          source.pid = stream.pid;
          source.pes_stream_id = stream.pes_stream_id;
          source.phase = 0.0031 * static_cast<double>(payload_pids.size());
          add(source, static_cast<double>(PACKET * 8) / stream.payload_rate);
        }
      }
    }
  }

  // The number of the change takes part, so that a PID may come back under each content of a PMT.
  static uint16_t key(uint16_t pid, size_t change) { return static_cast<uint16_t>(pid + (change << 13)); }

  void check_bit_rate() {
    double packets = 0;
    for (const Source& source : sources_) {
      double size = 1;
      if (source.kind == Source::SECTION && source.table->variants.empty())
        size = 1;
      else if (source.kind == Source::SECTION)
        for (const Variant& variant : source.table->variants)
          if (source.section_number < variant.sections.size())
            size = std::max(size, static_cast<double>(packets_of(variant.sections[source.section_number].size())));
      packets += size / source.period;
    }
    // Some room above the mean, because packets that are due together have to wait for each other.
    const double needed = std::ceil(packets * static_cast<double>(PACKET * 8) * 1.05 / 1000) * 1000;
    if (needed > static_cast<double>(all_.bit_rate))
      throw Description_error(fmt::format(
          "bit_rate: {} is too low, the tables, PCRs and payload at their intervals need {:.0f} bits a second",
          all_.bit_rate, needed));
  }

  void enqueue(double at, Source* source) {
    // The moment passes all the same, so that a source keeps its pace over a pause.
    if (at < source->from || at >= source->to)
      return;
    // A short period leaves little room to wait.
    const double deadline = at + std::min(source->period * 0.05, 0.5);
    if (source->kind != Source::SECTION) {
      Slot slot;
      slot.pid = source->pid;
      slot.content = source->kind == Source::PCR ? Content::PCR : Content::PES;
      slot.pes_stream_id = source->pes_stream_id;
      // A PCR has no counter of its own, so it may go between the packets of anything.
      if (source->kind == Source::PCR)
        pcrs_.push_back(slot);
      else
        queues_[source->pid].waiting.emplace(deadline, std::deque<Slot>{slot});
      return;
    }
    Transmission transmission;
    transmission.pid = source->pid;
    if (source->table->variants.empty()) {
      transmission.section = time_section(all_, source->table->kind, all_.now + static_cast<int64_t>(at));
    } else {
      const std::vector<Bytes>* sections = variant_at(*source->table, at);
      if (sections == nullptr || source->section_number >= sections->size())
        return;
      transmission.section = (*sections)[source->section_number];
    }
    // Counted before faults, because "first" and "every" count what would have been sent.
    apply_faults(all_.faults, *source->table, source->sent++, at, &transmission);
    if (transmission.dropped)
      return;
    // Back to back, so that a receiver gets the repetition before anything else of the table.
    for (int copy = 0; copy < (transmission.twice ? 2 : 1); ++copy) {
      const std::vector<Slot> slots = slots_of(transmission);
      queues_[transmission.pid].waiting.emplace(deadline, std::deque<Slot>(slots.begin(), slots.end()));
      transmission.skip = 0;
    }
  }

  Slot next_slot() {
    if (!pcrs_.empty()) {
      Slot slot = pcrs_.front();
      pcrs_.pop_front();
      return slot;
    }
    // The most urgent one first. A section that has begun goes on under its deadline, since sections of one PID cannot
    // be mixed.
    Pid_queue* best = nullptr;
    double best_deadline = 0;
    for (auto& [pid, queue] : queues_) {
      if (queue.current.empty() && queue.waiting.empty())
        continue;
      const double deadline = queue.current.empty() ? queue.waiting.begin()->first : queue.started_deadline;
      if (best == nullptr || deadline < best_deadline) {
        best = &queue;
        best_deadline = deadline;
      }
    }
    if (best == nullptr)
      return Slot();
    if (best->current.empty()) {
      best->started_deadline = best_deadline;
      best->current = std::move(best->waiting.begin()->second);
      best->waiting.erase(best->waiting.begin());
      best->began = slots_.size();
    }
    Slot slot = std::move(best->current.front());
    best->current.pop_front();
    if (best->current.empty())
      best->busy.emplace_back(best->began, slots_.size());
    return slot;
  }

  void fill() {
    std::priority_queue<Due, std::vector<Due>, std::greater<>> due;
    for (size_t i = 0; i < sources_.size(); ++i)
      due.push({sources_[i].phase, i});
    bool empty = false;
    while (slots_.size() < slot_count_ || !empty) {
      const double at = static_cast<double>(slots_.size()) * slot_seconds_;
      while (!due.empty() && due.top().at <= at) {
        const Due now = due.top();
        due.pop();
        Source& source = sources_[now.source];
        enqueue(now.at, &source);
        // From the phase and not step by step, so that no rounding adds up.
        const double next = source.phase + static_cast<double>(++source.count) * source.period;
        // A transmission at the very end would be the first one of the next round.
        if (next < loop_seconds_ - slot_seconds_ / 2)
          due.push({next, now.source});
      }
      Slot slot = next_slot();
      empty = slot.pid == PID_NULL && due.empty();
      // What was due is sent to its end, so no section is cut off at the seam of the loop.
      if (slots_.size() >= slot_count_ && empty)
        break;
      slots_.push_back(std::move(slot));
      if (progress_ && slots_.size() % 16384 == 0)
        progress_(std::min(1.0, static_cast<double>(slots_.size()) / static_cast<double>(slot_count_)));
    }
  }

  static bool counts(const Slot& slot) {
    return slot.pid != PID_NULL && slot.content != Content::PCR && !slot.repeated;
  }

  // A player that begins again would otherwise show a jump of the counters, and receivers would drop a section at each
  // round.
  // Brings the packets of each PID to a multiple of 16 with stuffing in place of null packets.
  void align_counters() {
    std::map<uint16_t, unsigned> used;
    std::map<uint16_t, Slot> filler;
    std::vector<size_t> nulls;
    for (size_t i = 0; i < slots_.size(); ++i) {
      const Slot& slot = slots_[i];
      if (slot.pid == PID_NULL)
        nulls.push_back(i);
      if (!counts(slot))
        continue;
      used[slot.pid] += 1u + slot.skip;
      Slot& stuffing = filler[slot.pid];
      stuffing.pid = slot.pid;
      stuffing.pes_stream_id = slot.pes_stream_id;
      stuffing.content = slot.content == Content::PES ? Content::PES : Content::SECTION_START;
    }
    for (const auto& [pid, count] : used) {
      const unsigned missing = (16 - count % 16) % 16;
      for (unsigned i = 0; i < missing; ++i) {
        // Spread over the stream, at a place where no section of the PID is under way.
        size_t place = slots_.size();
        const size_t start = nulls.empty() ? 0 : (i * nulls.size() / 16 + pid * 7u) % nulls.size();
        for (size_t tried = 0; tried < nulls.size(); ++tried) {
          const size_t candidate = nulls[(start + tried) % nulls.size()];
          if (slots_[candidate].pid == PID_NULL && idle(pid, candidate)) {
            place = candidate;
            break;
          }
        }
        if (place == slots_.size())
          slots_.emplace_back();
        slots_[place] = filler[pid];
      }
    }
  }

  // Stuffing begins with a start indicator, which would end a section that is under way.
  bool idle(uint16_t pid, size_t slot) const {
    const auto queue = queues_.find(pid);
    if (queue == queues_.end())
      return true;
    const auto& busy = queue->second.busy;
    const auto next = std::lower_bound(busy.begin(), busy.end(), slot,
                                       [](const auto& range, size_t value) { return range.second < value; });
    return next == busy.end() || slot < next->first;
  }

  void write_packet(const Slot& slot, uint8_t counter, size_t index, bool first_pcr, uint8_t* packet) const {
    std::fill_n(packet, PACKET, uint8_t{0xFF});
    const bool start = slot.content == Content::SECTION_START || slot.content == Content::PES;
    packet[0] = 0x47;
    packet[1] = static_cast<uint8_t>((slot.transport_error ? 0x80 : 0) | (start ? 0x40 : 0) | slot.pid >> 8);
    packet[2] = static_cast<uint8_t>(slot.pid);
    packet[3] = static_cast<uint8_t>(0x10 | counter);
    switch (slot.content) {
      case Content::NOTHING:
        break;
      case Content::SECTION_START:
        packet[4] = 0;
        std::copy(slot.payload.begin(), slot.payload.end(), packet + 5);
        break;
      case Content::SECTION:
        std::copy(slot.payload.begin(), slot.payload.end(), packet + 4);
        break;
      case Content::PES: {
        // A whole PES packet without time stamps (ISO/IEC 13818-1, 2.4.3.6).
        const uint8_t header[] = {0, 0, 1, slot.pes_stream_id, 0, SECTION_ROOM - 6, 0x80, 0, 0};
        std::copy(std::begin(header), std::end(header), packet + 4);
        break;
      }
      case Content::PCR: {
        // Adaptation field alone (ISO/IEC 13818-1, 2.4.3.4); the PCR is that of its own last byte's arrival.
        packet[3] = static_cast<uint8_t>(0x20 | counter);
        const uint64_t bits = (static_cast<uint64_t>(index) * PACKET + 11) * 8;
        const uint64_t pcr = bits / all_.bit_rate * PCR_HZ + bits % all_.bit_rate * PCR_HZ / all_.bit_rate;
        const uint64_t base = pcr / 300 & 0x1FFFFFFFF;
        const uint64_t extension = pcr % 300;
        packet[4] = PACKET - 5;
        packet[5] = static_cast<uint8_t>(0x10 | (first_pcr ? 0x80 : 0));
        packet[6] = static_cast<uint8_t>(base >> 25);
        packet[7] = static_cast<uint8_t>(base >> 17);
        packet[8] = static_cast<uint8_t>(base >> 9);
        packet[9] = static_cast<uint8_t>(base >> 1);
        packet[10] = static_cast<uint8_t>((base & 1) << 7 | 0x7E | extension >> 8);
        packet[11] = static_cast<uint8_t>(extension);
        break;
      }
    }
  }

  Bytes write() const {
    Bytes stream(slots_.size() * PACKET);
    std::map<uint16_t, uint8_t> counters;
    std::set<uint16_t> had_pcr;
    for (size_t i = 0; i < slots_.size(); ++i) {
      const Slot& slot = slots_[i];
      uint8_t counter = 0;
      if (slot.pid != PID_NULL) {
        // 15 first, so that a packet without payload before the others carries the value of the loop's last one.
        uint8_t& last = counters.emplace(slot.pid, uint8_t{15}).first->second;
        if (counts(slot))
          last = static_cast<uint8_t>((last + 1u + slot.skip) & 15);
        counter = last;
      }
      const bool first_pcr = slot.content == Content::PCR && had_pcr.insert(slot.pid).second;
      // A lost packet leaves its place to a null packet.
      write_packet(slot.lost ? Slot() : slot, slot.lost ? 0 : counter, i, first_pcr, stream.data() + i * PACKET);
    }
    return stream;
  }

  const Description& all_;
  const std::function<void(double)>& progress_;
  std::vector<Table> tables_;
  std::vector<Source> sources_;
  std::map<uint16_t, Pid_queue> queues_;
  std::deque<Slot> pcrs_;
  std::vector<Slot> slots_;
  double slot_seconds_ = 0;
  double loop_seconds_ = 0;
  size_t slot_count_ = 0;
};

}  // namespace

Bytes make_stream(const Description& all, const std::function<void(double)>& progress) {
  return Maker(all, progress).run();
}

Bytes make_stream(const std::string& json, int64_t machine_now) {
  return make_stream(parse_description(json, machine_now));
}

}  // namespace softdvb_mux
