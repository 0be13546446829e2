// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// What it costs to take a PMT, an SDT or an EIT section apart, and the same for libdvbpsi. Both sides get the section
// as it comes from the air, check its CRC, decode the table and walk all descriptors; in the runs called "names" they
// also decode the names and texts. libdvbpsi takes transport packets and puts the section together itself; our side
// runs the guard. The last lines give the ratios.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <dvbpsi/dvbpsi.h>
#include <dvbsi++/event_information_section.h>
#include <dvbsi++/iso639_language_descriptor.h>
#include <dvbsi++/program_map_section.h>
#include <dvbsi++/service_description_section.h>
#include <dvbsi++/service_descriptor.h>
#include <dvbsi++/short_event_descriptor.h>

// These headers of libdvbpsi do not include what they use.
#include <dvbpsi/demux.h>
#include <dvbpsi/descriptor.h>
#include <dvbpsi/dr_0a.h>
#include <dvbpsi/dr_48.h>
#include <dvbpsi/dr_4d.h>
#include <dvbpsi/eit.h>
#include <dvbpsi/pmt.h>
#include <dvbpsi/psi.h>
#include <dvbpsi/sdt.h>

#include "base/ids.h"
#include "dvbsi/samples.h"
#include "filter/section_filter.h"
#include "si/section_guard.h"

namespace {

using dvbsi_test::Bytes;

enum class Depth { DESCRIPTORS, NAMES };

// --- our side

size_t names_of(const Descriptor& d) {
  switch (d.getTag()) {
    case 0x0A: {
      size_t n = 0;
      for (const Iso639Language* l : *static_cast<const Iso639LanguageDescriptor&>(d).getIso639Languages())
        n += l->getIso639LanguageCode().size();
      return n;
    }
    case 0x48: {
      const auto& s = static_cast<const ServiceDescriptor&>(d);
      return s.getServiceProviderName().size() + s.getServiceName().size();
    }
    case 0x4D: {
      const auto& e = static_cast<const ShortEventDescriptor&>(d);
      return e.getIso639LanguageCode().size() + e.getEventName().size() + e.getText().size();
    }
    default:
      return 0;
  }
}

size_t walk(const DescriptorContainer& container, Depth depth) {
  size_t n = 0;
  for (const Descriptor* d : *container.getDescriptors())
    n += d->getLength() + (depth == Depth::NAMES ? names_of(*d) : 0);
  return n;
}

template <typename List>
size_t walk_entries(const List& list, Depth depth) {
  size_t n = 0;
  for (const auto* entry : list)
    n += walk(*entry, depth);
  return n;
}

size_t take_apart(const uint8_t* section, Depth depth) {
  switch (section[0]) {
    case table::PMT: {
      const ProgramMapSection pmt(section);
      return walk(pmt, depth) + walk_entries(*pmt.getEsInfo(), depth);
    }
    case table::SDT_ACTUAL:
      return walk_entries(*ServiceDescriptionSection(section).getDescriptions(), depth);
    default:
      return walk_entries(*EventInformationSection(section).getEvents(), depth);
  }
}

void ours(benchmark::State& state, const Bytes& section, Depth depth) {
  section_guard::Safe_copy copy;
  for (auto _ : state) {
    const auto size = static_cast<unsigned>(section.size());
    if (Section_filter::crc32_be(0xFFFFFFFF, section.data(), size) != 0 ||
        section_guard::section_problem(section.data(), size) != nullptr) {
      state.SkipWithError("section refused");
      return;
    }
    benchmark::DoNotOptimize(take_apart(copy.copy(section.data(), size), depth));
  }
}

void guard(benchmark::State& state, const Bytes& section) {
  section_guard::Safe_copy copy;
  for (auto _ : state) {
    benchmark::DoNotOptimize(section_guard::section_problem(section.data(), section.size()));
    benchmark::DoNotOptimize(copy.copy(section.data(), section.size()));
  }
}

void crc(benchmark::State& state, const Bytes& section) {
  for (auto _ : state)
    benchmark::DoNotOptimize(
        Section_filter::crc32_be(0xFFFFFFFF, section.data(), static_cast<unsigned>(section.size())));
}

// --- libdvbpsi

constexpr size_t PACKET = 188;

Bytes packets_of(const Bytes& section, unsigned pid) {
  Bytes out;
  Bytes rest = support::join({{0}, section});  // pointer_field
  for (size_t at = 0; at < rest.size(); at += PACKET - 4) {
    Bytes packet{0x47, static_cast<uint8_t>((at == 0 ? 0x40 : 0) | pid >> 8), static_cast<uint8_t>(pid), 0x10};
    packet.insert(packet.end(), rest.begin() + static_cast<std::ptrdiff_t>(at),
                  rest.begin() + static_cast<std::ptrdiff_t>(std::min(at + PACKET - 4, rest.size())));
    packet.resize(PACKET, 0xFF);
    out.insert(out.end(), packet.begin(), packet.end());
  }
  return out;
}

// The same section under the next version, so that a decoder that remembers versions decodes it again.
Bytes next_version(Bytes section) {
  section[5] = static_cast<uint8_t>(section[5] ^ 0x02);
  section.resize(section.size() - 4);
  return support::with_crc(section);
}

struct Their_result {
  Depth depth;
  size_t tables = 0;
  size_t bytes = 0;
};

void their_walk(Their_result& result, dvbpsi_descriptor_t* d) {
  for (; d != nullptr; d = d->p_next) {
    result.bytes += d->i_length;
    if (result.depth != Depth::NAMES)
      continue;
    if (d->i_tag == 0x0A)
      benchmark::DoNotOptimize(dvbpsi_DecodeISO639Dr(d));
    else if (d->i_tag == 0x48)
      benchmark::DoNotOptimize(dvbpsi_DecodeServiceDr(d));
    else if (d->i_tag == 0x4D)
      benchmark::DoNotOptimize(dvbpsi_DecodeShortEventDr(d));
  }
}

void got_pmt(void* data, dvbpsi_pmt_t* pmt) {
  auto& result = *static_cast<Their_result*>(data);
  ++result.tables;
  their_walk(result, pmt->p_first_descriptor);
  for (dvbpsi_pmt_es_t* es = pmt->p_first_es; es != nullptr; es = es->p_next)
    their_walk(result, es->p_first_descriptor);
  dvbpsi_pmt_delete(pmt);
}

void got_sdt(void* data, dvbpsi_sdt_t* sdt) {
  auto& result = *static_cast<Their_result*>(data);
  ++result.tables;
  for (dvbpsi_sdt_service_t* s = sdt->p_first_service; s != nullptr; s = s->p_next)
    their_walk(result, s->p_first_descriptor);
  dvbpsi_sdt_delete(sdt);
}

void got_eit(void* data, dvbpsi_eit_t* eit) {
  auto& result = *static_cast<Their_result*>(data);
  ++result.tables;
  for (dvbpsi_eit_event_t* e = eit->p_first_event; e != nullptr; e = e->p_next)
    their_walk(result, e->p_first_descriptor);
  dvbpsi_eit_delete(eit);
}

void new_subtable(dvbpsi_t* handle, uint8_t table_id, uint16_t extension, void* data) {
  if (table_id == table::SDT_ACTUAL)
    dvbpsi_sdt_attach(handle, table_id, extension, got_sdt, data);
  else if (table_id == table::EIT_SCHEDULE_FIRST)
    dvbpsi_eit_attach(handle, table_id, extension, got_eit, data);
}

void libdvbpsi(benchmark::State& state, const Bytes& section, Depth depth) {
  Their_result result{depth};
  dvbpsi_t* const handle = dvbpsi_new(nullptr, DVBPSI_MSG_NONE);
  const bool pmt = section[0] == table::PMT;
  if (pmt)
    dvbpsi_pmt_attach(handle, static_cast<uint16_t>(section[3] << 8 | section[4]), got_pmt, &result);
  else
    dvbpsi_AttachDemux(handle, new_subtable, &result);

  // Its EIT decoder answers when a section comes the second time. That counts as two sections here, in its favour.
  const size_t repeat = section[0] == table::EIT_SCHEDULE_FIRST ? 2 : 1;
  Bytes versions[2] = {packets_of(section, 0x100), packets_of(next_version(section), 0x100)};
  unsigned counter = 0;
  size_t pushed = 0;
  for (auto _ : state) {
    Bytes& packets = versions[pushed / repeat % 2];
    for (size_t at = 0; at < packets.size(); at += PACKET) {
      packets[at + 3] = static_cast<uint8_t>(0x10 | (counter++ & 0x0F));
      dvbpsi_packet_push(handle, packets.data() + at);
    }
    ++pushed;
  }
  if (pmt)
    dvbpsi_pmt_detach(handle);
  else
    dvbpsi_DetachDemux(handle);
  dvbpsi_delete(handle);
  if (result.tables != pushed / repeat || (pushed >= repeat && result.bytes == 0))
    state.SkipWithError("libdvbpsi did not decode every table");
}

// --- report

class Ratios : public benchmark::ConsoleReporter {
 public:
  Ratios() : ConsoleReporter(OO_Tabular) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs)
      if (!run.error_occurred)
        times_[run.benchmark_name()] = run.GetAdjustedCPUTime();
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    for (const auto& [name, time] : times_) {
      const size_t at = name.rfind("/ours");
      if (at == std::string::npos)
        continue;
      const auto other = times_.find(name.substr(0, at) + "/libdvbpsi");
      if (other != times_.end())
        std::printf("%-28s ours takes %.2f of libdvbpsi's time, %.2f of it for the CRC\n", name.substr(0, at).c_str(),
                    time / other->second, times_[name.substr(0, name.find('/')) + "/crc"] / other->second);
    }
  }

 private:
  std::map<std::string, double> times_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv))
    return 2;
  const std::pair<const char*, Bytes> sections[] = {
      {"pmt_5_streams", dvbsi_test::sample_pmt(5)},
      {"sdt_10_services", dvbsi_test::sample_sdt(10)},
      {"eit_8_events", dvbsi_test::sample_eit(8)},
  };
  for (const auto& [name, section] : sections) {
    const std::string table(name);
    const auto add = [&](const std::string& run, auto body, auto... arguments) {
      benchmark::RegisterBenchmark((table + run).c_str(), body, section, arguments...);
    };
    add("/crc", crc);
    add("/guard", guard);
    add("/descriptors/ours", ours, Depth::DESCRIPTORS);
    add("/descriptors/libdvbpsi", libdvbpsi, Depth::DESCRIPTORS);
    add("/names/ours", ours, Depth::NAMES);
    add("/names/libdvbpsi", libdvbpsi, Depth::NAMES);
  }
  Ratios reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
}
