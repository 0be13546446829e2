// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The multiplexes that a NIT announces, and what the multiplex says of itself.
#include "si/network_found.h"

#include <linux/dvb/frontend.h>

#include "si/si_support.h"
#include "si/siparse_parts.h"

using namespace si_support;

namespace {

constexpr int NETWORK = 0x3001, ONID = 0x20;

Bytes u32(uint32_t value) {
  return join({u16(value >> 16), u16(value & 0xFFFF)});
}
Bytes mhz(double value) {
  return u32(static_cast<uint32_t>(value * 100000));
}

// The bytes behind the frequency: bandwidth (3 bits, as broadcast) and what is not looked at.
Bytes terrestrial(const Bytes& frequency, unsigned bandwidth = 0) {
  return descriptor(tag::TERRESTRIAL_DELIVERY_SYSTEM,
                    join({frequency, u8(bandwidth << 5 | 0x1F), {0xBC, 0x26}, u32(0xFFFFFFFF)}));
}
Bytes list(const Bytes& frequencies, unsigned coding = 3) {
  return descriptor(tag::FREQUENCY_LIST, join({u8(0xFC | coding), frequencies}));
}
Bytes transposers(const std::vector<double>& frequencies) {
  return join({u8(5 * frequencies.size()), each(frequencies, [](double f) { return join({{9}, mhz(f)}); })});
}
struct Cell {
  Bytes frequency;  // or, in slices, their number of bytes and themselves
  std::vector<double> transposers = {};
};
Bytes cells(const std::vector<Cell>& all) {
  return each(all, [](const Cell& c) { return join({u16(0x0101), c.frequency, transposers(c.transposers)}); });
}
Bytes cell_links(const std::vector<Cell>& all) {
  return descriptor(tag::CELL_FREQUENCY_LINK, cells(all));
}
Bytes t2(const Bytes& body) {
  return descriptor(tag::EXTENSION, join({u8(extension_tag::T2_DELIVERY_SYSTEM), body}));
}
Bytes t2_pipe(int pipe, int system_id) {
  return t2(join({u8(pipe), u16(system_id)}));
}
Bytes t2(int pipe, int system_id, unsigned bandwidth, const std::vector<Cell>& all, bool in_slices = false) {
  return t2(join({u8(pipe), u16(system_id), u8(bandwidth << 2 | 0xC0), u8(in_slices ? 0xFF : 0xFE), cells(all)}));
}

// "ONID/TSID system frequency/bandwidth pipe" of each, frequencies in kHz and systems as T, T2 or ?.
Texts shown(const std::vector<Announced_multiplex>& all) {
  Texts texts;
  for (const Announced_multiplex& m : all) {
    const char* system = m.system == SYS_DVBT ? "T" : m.system == SYS_DVBT2 ? "T2" : m.system == 0 ? "?" : "wrong";
    texts.push_back(formatted("%x/%x %s %d/%d %d", static_cast<unsigned>(m.original_network_id),
                              static_cast<unsigned>(m.transport_stream_id), system, m.freq / 1000,
                              m.bandwidth_hz / 1000, m.pipe));
    EXPECT_EQ(m.freq % 1000, 0);
  }
  return texts;
}
Texts announced_by(const std::vector<si_support::Multiplex>& multiplexes) {
  Network_found found;
  found.nit(nit(NETWORK, {}, multiplexes));
  return shown(found.announced());
}
// By one transport stream with this loop, without the ids in front.
Texts announced_by(const Bytes& loop) {
  Texts all = announced_by({{TS_ID, ONID, loop}});
  for (std::string& text : all) {
    EXPECT_THAT(text, StartsWith("20/1001 "));
    text = text.substr(8);
  }
  return all;
}

TEST(Network_found, each_descriptor_announces_its_frequencies) {
  const struct {
    const char* what;
    Bytes loop;
    Texts announced;
  } cases[] = {
      {"none", {}, {}},
      {"terrestrial, 8 MHz", terrestrial(mhz(506)), {"T 506000/8000 -1"}},
      {"7 MHz", terrestrial(mhz(177.5), 1), {"T 177500/7000 -1"}},
      {"6 MHz", terrestrial(mhz(473), 2), {"T 473000/6000 -1"}},
      {"5 MHz", terrestrial(mhz(473), 3), {"T 473000/5000 -1"}},
      {"a bandwidth that is reserved", terrestrial(mhz(473), 7), {"T 473000/0 -1"}},
      {"no frequency, which others give",
       join({terrestrial(u32(0xFFFFFFFF)), terrestrial(u32(0)), list(mhz(522))}),
       {"T 522000/8000 -1"}},
      {"the highest frequency that a number of Hz holds", terrestrial(mhz(2147)), {"T 2147000/8000 -1"}},
      {"and one above it", terrestrial(mhz(2148)), {}},
      {"a list, in front of what it is for",
       join({list(join({mhz(522), mhz(530)})), terrestrial(mhz(506))}),
       {"T 506000/8000 -1", "T 522000/8000 -1", "T 530000/8000 -1"}},
      {"a list for cable", join({list(mhz(522), 2), list(mhz(530), 0)}), {}},
      {"a list alone", list(mhz(522)), {"? 522000/0 -1"}},
      {"frequencies of cells",
       join({terrestrial(mhz(506)), cell_links({{mhz(514)}, {mhz(522), {530, 538}}})}),
       {"T 506000/8000 -1", "T 514000/8000 -1", "T 522000/8000 -1", "T 530000/8000 -1", "T 538000/8000 -1"}},
      {"each once",
       join({terrestrial(mhz(506)), list(join({mhz(506), mhz(514), mhz(514)})), cell_links({{mhz(514)}})}),
       {"T 506000/8000 -1", "T 514000/8000 -1"}},
      {"T2", t2(3, 7, 0, {{mhz(706)}}), {"T2 706000/8000 3"}},
      {"in all its bandwidths",
       join({t2(0, 1, 1, {{mhz(701)}}), t2(0, 2, 2, {{mhz(702)}}), t2(0, 3, 3, {{mhz(703)}}), t2(0, 4, 4, {{mhz(704)}}),
             t2(0, 5, 5, {{mhz(705)}}), t2(0, 6, 6, {{mhz(706)}})}),
       {"T2 701000/7000 0", "T2 702000/6000 0", "T2 703000/5000 0", "T2 704000/10000 0", "T2 705000/1712 0",
        "T2 706000/0 0"}},
      {"with cells and transposers",
       t2(255, 7, 0, {{mhz(706), {714}}, {mhz(722)}}),
       {"T2 706000/8000 255", "T2 714000/8000 255", "T2 722000/8000 255"}},
      {"in slices",
       t2(1, 7, 0, {{join({{8}, mhz(706), mhz(714)}), {722}}, {join({{4}, mhz(730)})}}, true),
       {"T2 706000/8000 1", "T2 714000/8000 1", "T2 722000/8000 1", "T2 730000/8000 1"}},
      {"without frequencies", t2_pipe(1, 7), {}},
      {"without frequencies, but for a list", join({t2_pipe(1, 7), list(mhz(706))}), {"T2 706000/0 1"}},
      {"two pipes with a list",
       join({t2_pipe(1, 7), list(mhz(706)), t2(2, 7, 1, {{mhz(714)}})}),
       {"T2 714000/7000 1", "T2 714000/7000 2", "T2 706000/0 1", "T2 706000/7000 2"}},
      {"both systems",
       join({terrestrial(mhz(506)), t2(0, 7, 0, {{mhz(706)}}), list(mhz(514))}),
       {"T 506000/8000 -1", "T2 706000/8000 0", "T 514000/8000 -1", "T2 514000/8000 0"}},
      {"another extension", descriptor(tag::EXTENSION, join({{0x05, 1, 0, 7, 0, 0, 1, 1}, mhz(706), {0}})), {}},
      {"another delivery", descriptor(0x44, join({mhz(506), Bytes(7, 0)})), {}},
  };
  for (const auto& c : cases)
    EXPECT_EQ(announced_by(c.loop), c.announced) << c.what;
}

TEST(Network_found, all_pipes_of_a_t2_system_are_on_all_its_frequencies) {
  EXPECT_EQ(announced_by({{1, ONID, t2_pipe(0, 7)},
                          {2, ONID, t2(1, 7, 0, {{mhz(706)}})},
                          {3, ONID, join({t2_pipe(2, 7), t2_pipe(2, 8)})},
                          {4, ONID, t2(1, 9, 0, {{mhz(738)}})},
                          {5, ONID, t2(3, 7, 0, {{mhz(706)}, {mhz(714)}})}}),
            (Texts{"20/1 T2 706000/8000 0", "20/2 T2 706000/8000 1", "20/3 T2 706000/8000 2", "20/4 T2 738000/8000 1",
                   "20/5 T2 706000/8000 3", "20/1 T2 714000/8000 0", "20/2 T2 714000/8000 1", "20/3 T2 714000/8000 2",
                   "20/5 T2 714000/8000 3"}));
}

TEST(Network_found, sections_add_to_each_other) {
  Network_found found;
  found.nit(nit(NETWORK, {}, {{1, ONID, terrestrial(mhz(506))}, {2, ONID, t2_pipe(0, 7)}}, 0, 1));
  found.nit(nit(NETWORK, {}, {{1, 0x21, terrestrial(mhz(506))}, {3, ONID, t2(1, 7, 0, {{mhz(706)}})}}, 1, 1));
  found.nit(nit(NETWORK, {}, {{1, ONID, terrestrial(mhz(506))}}, 0, 1));
  EXPECT_EQ(shown(found.announced()), (Texts{"20/1 T 506000/8000 -1", "21/1 T 506000/8000 -1", "20/2 T2 706000/8000 0",
                                             "20/3 T2 706000/8000 1"}));
}

TEST(Network_found, the_networks_own_descriptors_announce_nothing) {
  Network_found found;
  found.nit(nit(NETWORK, list(mhz(506)), {}));
  EXPECT_THAT(found.announced(), IsEmpty());
}

TEST(Network_found, what_is_cut_off_is_left_out) {
  const struct {
    const char* what;
    Bytes loop;
    Texts announced;
  } cases[] = {
      {"terrestrial without its last byte", descriptor(0x5A, join({mhz(506), Bytes(6, 0)})), {}},
      {"empty", join({descriptor(0x5A, {}), list({}), cell_links({}), descriptor(0x62, {}), descriptor(0x7F, {})}), {}},
      {"a list with half a frequency", list(join({mhz(506), {0x03, 0x04}})), {"? 506000/0 -1"}},
      {"a link without its transposers' length", descriptor(0x6D, join({u16(1), mhz(506)})), {"? 506000/0 -1"}},
      {"a link with half a frequency", descriptor(0x6D, join({u16(1), {0x03, 0x04, 0x05}})), {}},
      {"transposers that pass the end",
       descriptor(0x6D, join({u16(1), mhz(506), {255, 1}, mhz(514), {1, 3, 4}})),
       {"? 506000/0 -1", "? 514000/0 -1"}},
      {"T2 without a system", t2({0, 7}), {}},
      {"T2 with half of its flags", join({t2({1, 0, 7, 0}), list(mhz(706))}), {"T2 706000/0 1"}},
      {"T2 without cells", join({t2(1, 7, 0, {}), list(mhz(706))}), {"T2 706000/8000 1"}},
      {"T2 with half a cell", t2(join({{1, 0, 7, 0xC0, 0xFE}, u16(1), {0x04, 0x35}})), {}},
      {"T2 with a cell without its transposers' length",
       t2(join({{1, 0, 7, 0xC0, 0xFE}, u16(1), mhz(706)})),
       {"T2 706000/8000 1"}},
      {"T2 in slices that pass the end",
       t2(join({{1, 0, 7, 0xC0, 0xFF}, u16(1), {255}, mhz(706), mhz(714), {1, 2}})),
       {"T2 706000/8000 1", "T2 714000/8000 1"}},
      {"a descriptor that passes the end",
       join({terrestrial(mhz(506)), {0x62, 200, 0xFF}, mhz(514)}),
       {"T 506000/8000 -1"}},
      {"half a descriptor", join({terrestrial(mhz(506)), {0x62}}), {"T 506000/8000 -1"}},
  };
  for (const auto& c : cases)
    EXPECT_EQ(announced_by(c.loop), c.announced) << c.what;
}

// Each section stands alone in a block of its own size, so that a memory checker sees every read outside.
TEST(Network_found, sections_of_every_length_are_read_as_far_as_they_go) {
  const Bytes whole = nit(NETWORK, network_name("Net"),
                          {{1, ONID, join({terrestrial(mhz(506)), list(mhz(514))})},
                           {2, ONID, join({t2(0, 7, 0, {{mhz(706), {714}}}), cell_links({{mhz(722), {730}}})})}});
  for (size_t size = 0; size <= whole.size(); ++size) {
    Network_found found;
    found.nit(Bytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size)));
    EXPECT_LE(found.announced().size(), 6U);
    EXPECT_EQ(found.announced().size() == 6U, size == whole.size()) << size;
  }
  std::mt19937 random(7);
  for (int round = 0; round < 20000; ++round) {
    Bytes broken = whole;
    for (int i = 0; i < 4; ++i)
      broken[8 + random() % (broken.size() - 8)] = static_cast<uint8_t>(random());
    Network_found found;
    found.nit(broken);
    EXPECT_LE(found.announced().size(), 200U);
  }
}

TEST(Network_found, no_network_announces_more_than_a_thousand_and_some) {
  Network_found found;
  for (int ts = 0; ts < 300; ++ts) {
    const Bytes frequencies =
        each(std::array{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}, [&](int i) { return mhz(100 + ts + 0.1 * i); });
    found.nit(nit(NETWORK, {}, {{ts, ONID, join({t2_pipe(1, 7), t2_pipe(ts & 0xFF, 8), list(frequencies)})}}));
  }
  EXPECT_EQ(found.announced().size(), Network_found::MOST_ANNOUNCED);
}

TEST(Network_found, the_multiplex_is_what_its_sdt_says_and_until_then_its_pat) {
  Network_found found;
  EXPECT_EQ(std::pair(found.original_network_id(), found.transport_stream_id()), std::pair(-1, -1));
  found.pat(5);
  EXPECT_EQ(std::pair(found.original_network_id(), found.transport_stream_id()), std::pair(-1, 5));
  found.sdt(0x20, 6);
  found.pat(7);
  EXPECT_EQ(std::pair(found.original_network_id(), found.transport_stream_id()), std::pair(0x20, 6));
}

TEST(Sections_seen, are_complete_when_all_have_come_or_nothing_new_comes) {
  Sections_seen seen;
  EXPECT_FALSE(seen.complete());
  EXPECT_TRUE(seen.arrived(3, 1, 2));
  EXPECT_TRUE(seen.arrived(3, 0, 2));
  EXPECT_FALSE(seen.arrived(3, 1, 2));
  EXPECT_FALSE(seen.complete());
  EXPECT_TRUE(seen.arrived(3, 2, 2));
  EXPECT_TRUE(seen.complete());
  EXPECT_TRUE(seen.arrived(4, 2, 2)) << "of another version";
  EXPECT_FALSE(seen.complete());
  EXPECT_TRUE(seen.arrived(4, 0, 2));
  for (int i = 0; i < 3; ++i)
    EXPECT_FALSE(seen.arrived(4, 0, 2));
  EXPECT_FALSE(seen.complete());
  EXPECT_FALSE(seen.arrived(4, 2, 2));
  EXPECT_TRUE(seen.complete()) << "section 1 is not sent";
}

// --- In the parser ---------------------------------------------------------------------------------------------------

class Network_parser : public Parser_test {
 protected:
  Network_parser() {
    scan(pat({{1, 0x100}}));
    scan(sdt({{1, service_descriptor(1, "Provider", "One")}}));
  }
  const Network_found& network() { return parser.parts().network(); }
  Texts announced() { return shown(network().announced()); }
  static Bytes part(uint8_t number, double frequency) {
    return nit(NETWORK, {}, {{TS_ID, ONID, join({terrestrial(mhz(frequency)), lcn({{1, 0xFC05U + number}})})}}, number,
               2);
  }
};

TEST_F(Network_parser, knows_the_multiplex_and_what_was_announced_until_the_next_scan_begins) {
  EXPECT_EQ(network().original_network_id(), ONID);
  EXPECT_EQ(network().transport_stream_id(), TS_ID);
  scan(part(0, 506));
  EXPECT_EQ(announced(), Texts{"20/1001 T 506000/8000 -1"});
  parser.parts().begin_network();
  EXPECT_EQ(announced(), Texts{});
  EXPECT_EQ(network().original_network_id(), -1);
  scan(pat({{1, 0x100}}));
  EXPECT_EQ(network().transport_stream_id(), TS_ID);
}

TEST_F(Network_parser, takes_nothing_from_sections_that_are_not_read) {
  scan(next_of(part(0, 506)));
  scan(part(0, 506), pid::SDT);
  scan(with_byte(part(0, 506), 0, table::NIT_OTHER));
  EXPECT_EQ(announced(), Texts{});
}

TEST_F(Network_parser, reads_one_section_of_a_nit_unless_it_is_to_read_all) {
  scan(part(1, 514));
  EXPECT_FALSE(is_open(NIT));
  parser.parts().set_whole_nit(true);
  for (int round = 0; round < 2; ++round) {
    parser.parts().begin_network();
    open(NIT);
    scan_each({part(1, 514), part(1, 514), part(0, 506)});
    EXPECT_TRUE(is_open(NIT));
    EXPECT_EQ(text("SELECT lcn FROM kanalid_scan_0"), "5");
    scan_each({part(1, 514), part(2, 522)});
    EXPECT_FALSE(is_open(NIT));
    EXPECT_EQ(text("SELECT lcn FROM kanalid_scan_0"), "7") << "of the last one that was new";
    EXPECT_EQ(announced(), (Texts{"20/1001 T 514000/8000 -1", "20/1001 T 506000/8000 -1", "20/1001 T 522000/8000 -1"}));
  }
}

TEST_F(Network_parser, does_not_wait_for_sections_that_are_not_sent) {
  parser.parts().set_whole_nit(true);
  for (int i = 0; i < 2; ++i)
    scan(part(0, 506));
  EXPECT_TRUE(is_open(NIT));
  scan(part(0, 506));
  EXPECT_FALSE(is_open(NIT));
}

}  // namespace
