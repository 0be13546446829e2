// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "si/announcements.h"

#include <linux/dvb/frontend.h>

#include <cmath>

#include "si/si_support.h"
#include "support/test.h"

namespace {

using namespace si_support;

constexpr int ONID = 0x2114;

// A frequency in steps of 10 Hz.
Bytes mhz(double value) {
  const auto steps = static_cast<unsigned>(std::lround(value * 100'000));
  return join({u16(steps >> 16), u16(steps & 0xFFFF)});
}

Bytes t(double freq, unsigned bandwidth = 0) {
  return descriptor(tag::TERRESTRIAL_DELIVERY_SYSTEM,
                    join({mhz(freq), {static_cast<uint8_t>(bandwidth << 5)}, {0, 0, 0, 0, 0, 0}}));
}

Bytes t2_short(int pipe, int system) {
  return descriptor(tag::EXTENSION, join({{4, static_cast<uint8_t>(pipe)}, u16(system)}));
}

Bytes t2(int pipe, int system, const Bytes& cells, unsigned bandwidth = 0, bool several = false) {
  return descriptor(tag::EXTENSION, join({{4, static_cast<uint8_t>(pipe)},
                                          u16(system),
                                          {static_cast<uint8_t>(bandwidth << 2), static_cast<uint8_t>(several ? 1 : 0)},
                                          cells}));
}

Bytes cell(double freq, const Bytes& subcells = {}) {
  return join({u16(1), mhz(freq), {static_cast<uint8_t>(subcells.size())}, subcells});
}

Bytes frequency_list(unsigned coding, const std::vector<double>& freqs) {
  return descriptor(tag::FREQUENCY_LIST, join({{static_cast<uint8_t>(0xFC | coding)}, each(freqs, mhz)}));
}

std::vector<std::string> texts_of(const Announcements& announcements) {
  std::vector<std::string> out;
  for (const Announced_multiplex& one : announcements.multiplexes())
    out.push_back(formatted("%d/%d %d %s %d pipe %d", one.original_network_id, one.transport_stream_id, one.freq,
                            one.system == SYS_DVBT    ? "T"
                            : one.system == SYS_DVBT2 ? "T2"
                                                      : "?",
                            one.bandwidth_hz, one.pipe));
  return out;
}

void read(Announcements* announcements, const Bytes& section) {
  announcements->read(section.data(), section.size());
}

TEST(Announcements, nothing_at_first) {
  Announcements announcements;
  EXPECT_EQ(announcements.original_network_id(), -1);
  EXPECT_EQ(announcements.transport_stream_id(), -1);
  EXPECT_THAT(announcements.multiplexes(), IsEmpty());
}

TEST(Announcements, ids_are_those_of_pat_and_sdt) {
  Announcements announcements;
  read(&announcements, pat({{1, 256}}));
  EXPECT_EQ(announcements.transport_stream_id(), TS_ID);
  EXPECT_EQ(announcements.original_network_id(), -1);
  read(&announcements, section(table::SDT_ACTUAL, 0x0304, join({u16(ONID), {0xFF}})));
  EXPECT_EQ(announcements.transport_stream_id(), 0x0304);
  EXPECT_EQ(announcements.original_network_id(), ONID);
  announcements.clear();
  EXPECT_EQ(announcements.original_network_id(), -1);
  EXPECT_EQ(announcements.transport_stream_id(), -1);
}

TEST(Announcements, what_a_nit_names) {
  const struct {
    const char* legend;
    std::vector<Multiplex> streams;
    std::vector<std::string> announced;
  } cases[] = {
      {"DVB-T, of each width",
       {{1, ONID, t(474)}, {2, ONID, t(177.5, 1)}, {3, ONID, t(473, 2)}, {4, ONID, t(500, 3)}, {5, ONID, t(506, 7)}},
       {"8468/1 474000000 T 8000000 pipe -1", "8468/2 177500000 T 7000000 pipe -1",
        "8468/3 473000000 T 6000000 pipe -1", "8468/4 500000000 T 5000000 pipe -1", "8468/5 506000000 T 0 pipe -1"}},
      {"a list of further frequencies, once each",
       {{1, ONID, join({t(474), frequency_list(3, {474, 482, 482})})}},
       {"8468/1 474000000 T 8000000 pipe -1", "8468/1 482000000 T 8000000 pipe -1"}},
      {"a list in front of the delivery system",
       {{1, ONID, join({frequency_list(3, {482}), t(474)})}},
       {"8468/1 482000000 T 8000000 pipe -1", "8468/1 474000000 T 8000000 pipe -1"}},
      {"a list of satellite frequencies",
       {{1, ONID, join({t(474), frequency_list(1, {482})})}},
       {"8468/1 474000000 T 8000000 pipe -1"}},
      {"a list without a delivery system", {{1, ONID, frequency_list(3, {482})}}, {}},
      {"cells, and their transposers",
       {{1, ONID,
         join({t(474),
               descriptor(tag::CELL_FREQUENCY_LINK, join({cell(490), cell(498, join({{7}, mhz(514.166670)}))}))})}},
       {"8468/1 474000000 T 8000000 pipe -1", "8468/1 490000000 T 8000000 pipe -1",
        "8468/1 498000000 T 8000000 pipe -1", "8468/1 514166670 T 8000000 pipe -1"}},
      {"T2, of each width, with cells and transposers",
       {{1, ONID, t2(0, 1, join({cell(474), cell(482, join({{7}, mhz(490)}))}))},
        {2, ONID, t2(1, 2, cell(191.5), 1)},
        {3, ONID, t2(2, 3, cell(473), 2)},
        {4, ONID, t2(3, 4, cell(500), 5)},
        {5, ONID, t2(4, 5, cell(510), 15)}},
       {"8468/1 474000000 T2 8000000 pipe 0", "8468/1 482000000 T2 8000000 pipe 0",
        "8468/1 490000000 T2 8000000 pipe 0", "8468/2 191500000 T2 7000000 pipe 1",
        "8468/3 473000000 T2 6000000 pipe 2", "8468/4 500000000 T2 1712000 pipe 3", "8468/5 510000000 T2 0 pipe 4"}},
      {"further pipes of a T2 system, before and behind its long form",
       {{1, ONID, t2_short(0, 9)},
        {2, ONID, t2(1, 9, cell(474), 1)},
        {3, ONID, t2_short(2, 9)},
        {4, ONID, t2_short(3, 8)},
        {5, 7, t2_short(4, 9)}},
       {"8468/1 474000000 T2 7000000 pipe 0", "8468/2 474000000 T2 7000000 pipe 1",
        "8468/3 474000000 T2 7000000 pipe 2"}},
      {"a signal on several frequencies at a time",
       {{1, ONID, t2(0, 1, join({u16(1), {8}, mhz(474), mhz(482), {0}}), 0, true)}},
       {}},
      {"another extension", {{1, ONID, descriptor(tag::EXTENSION, {5, 0, 0, 1, 0, 0, 0, 1, 1, 1, 1, 1, 0})}}, {}},
      {"frequencies that no number holds",
       {{1, ONID, descriptor(tag::TERRESTRIAL_DELIVERY_SYSTEM, {0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0, 0, 0, 0})}},
       {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.legend);
    Announcements announcements;
    read(&announcements, nit(0x3001, descriptor(tag::NETWORK_NAME, bytes("Net")), c.streams));
    EXPECT_EQ(texts_of(announcements), c.announced);
  }
}

TEST(Announcements, sections_add_up) {
  Announcements announcements;
  read(&announcements, nit(0x3001, {}, {{1, ONID, t(474)}}, 0, 1));
  read(&announcements, nit(0x3001, {}, {{2, ONID, t(482)}}, 1, 1));
  read(&announcements, nit(0x3001, {}, {{1, ONID, t(474)}}, 0, 1));
  EXPECT_THAT(texts_of(announcements),
              ElementsAre("8468/1 474000000 T 8000000 pipe -1", "8468/2 482000000 T 8000000 pipe -1"));
}

// Every length in turn is made every other value, and the section is cut everywhere: sanitizers see what is read.
TEST(Announcements, broken_lengths_are_survived) {
  const Bytes good = nit(0x3001, descriptor(tag::NETWORK_NAME, bytes("Net")),
                         {{1, ONID,
                           join({t(474), frequency_list(3, {482}),
                                 descriptor(tag::CELL_FREQUENCY_LINK, cell(498, join({{7}, mhz(514)})))})},
                          {2, ONID, t2(0, 1, cell(482, join({{7}, mhz(490)})))}});
  size_t whole = 0;
  for (size_t at = 3; at < good.size(); ++at) {
    for (const int value : {0, 1, 3, 4, 5, 0x7F, 0xF0, 0xFF}) {
      const auto copy = std::make_unique<uint8_t[]>(good.size());
      std::copy(good.begin(), good.end(), copy.get());
      copy[at] = static_cast<uint8_t>(value);
      Announcements announcements;
      announcements.read(copy.get(), good.size());
      whole += announcements.multiplexes().size() == 6 ? 1 : 0;
    }
    const auto cut = std::make_unique<uint8_t[]>(at);
    std::copy_n(good.begin(), at, cut.get());
    Announcements announcements;
    announcements.read(cut.get(), at);
    EXPECT_LE(announcements.multiplexes().size(), 6U);
  }
  EXPECT_GT(whole, 0U);
}

TEST(Announcements, a_list_without_end_is_bounded) {
  Announcements announcements;
  for (int number = 0; number < 256; ++number) {
    std::vector<Multiplex> streams;
    for (int i = 0; i < 40; ++i)
      streams.push_back({number * 40 + i, ONID, t2(i, 1, cell(474 + i % 8))});
    read(&announcements, nit(0x3001, {}, streams, static_cast<uint8_t>(number), 255));
  }
  EXPECT_EQ(announcements.multiplexes().size(), 256U);
}

}  // namespace
