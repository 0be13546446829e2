// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <dvbsi++/event_information_section.h>
#include <dvbsi++/network_information_section.h>
#include <dvbsi++/program_association_section.h>
#include <dvbsi++/program_map_section.h>
#include <dvbsi++/service_description_section.h>
#include <dvbsi++/time_date_section.h>
#include <dvbsi++/time_offset_section.h>

#include "dvbsi/parsed.h"
#include "support/test.h"

namespace {

using dvbsi_test::Bytes;
using dvbsi_test::parsed;
using dvbsi_test::section_values;
using support::descriptor;
using support::join;
using support::long_section;
using support::loop12;
using support::u16;

// A section of a given section_length whose bytes from offset 3 on are 0x80 and their offset, CRC included: none of the
// table's own lengths means anything, only which bytes are believed to be there.
Bytes counted_section(uint8_t table_id, size_t length) {
  Bytes s{table_id, static_cast<uint8_t>(0xF0 | (length >> 8)), static_cast<uint8_t>(length)};
  while (s.size() < length + 3)
    s.push_back(static_cast<uint8_t>(0x80 + s.size()));
  return s;
}

template <typename Section>
std::unique_ptr<Section> counted(uint8_t table_id, size_t length) {
  return parsed<Section>(counted_section(table_id, length));
}

std::vector<int> tags(const DescriptorContainer& container) {
  std::vector<int> all;
  for (const Descriptor* d : *container.getDescriptors())
    all.push_back(d->getTag());
  return all;
}

using Tags = std::vector<int>;

TEST(Short_section, reads_three_bytes) {
  const auto s = parsed<ShortSection>({0x72, 0x8F, 0xFE});
  EXPECT_EQ(s->getTableId(), 0x72);
  EXPECT_EQ(s->getSectionSyntaxIndicator(), 1);
  EXPECT_EQ(s->getSectionLength(), 0xFFE);
  EXPECT_EQ(parsed<ShortSection>({0x72, 0x7F, 0xFE})->getSectionSyntaxIndicator(), 0);
}

TEST(Short_crc_section, crc_is_the_last_four_bytes) {
  EXPECT_EQ(counted<ShortCrcSection>(0x73, 10)->getCrc32(), 0x898A8B8Cu);
}

TEST(Long_section, header_fields) {
  const auto s = parsed<LongSection>(long_section(0x42, 0xABCD, 30, {}, 4, 7, false));
  EXPECT_EQ(dvbsi_test::head_values(*s), "42 1 9 abcd 1e 0 4 7");
}

TEST(Long_section, operators_compare_the_section_number_only) {
  const auto a = parsed<LongSection>(long_section(0x42, 9, 9, {}, 1, 200));
  const auto b = parsed<LongSection>(long_section(0x00, 1, 1, {}, 2, 3));
  const auto c = parsed<LongSection>(long_section(0x50, 2, 2, {}, 2, 4));
  EXPECT_TRUE(*a<*b&& * a <= *b&& * a != *b&& * b> * a && *b >= *a);
  EXPECT_FALSE(*a > *b || *a >= *b || *a == *b || *b < *a || *b <= *a);
  EXPECT_TRUE(*b == *c && *b <= *c && *b >= *c);
  EXPECT_FALSE(*b != *c || *b < *c || *b > *c);
}

TEST(Long_crc_section, crc_is_not_verified) {
  Bytes s = long_section(0x42, 0, 0, {});
  s[11] ^= 0xFF;
  const uint32_t last_four = uint32_t{s[8]} << 24 | uint32_t{s[9]} << 16 | uint32_t{s[10]} << 8 | s[11];
  EXPECT_EQ(parsed<LongCrcSection>(s)->getCrc32(), last_four);
}

TEST(Long_crc_section, laid_over_a_tdt_gives_table_id_and_length) {
  const auto s = parsed<LongCrcSection>({0x70, 0x70, 0x05, 0xC0, 0x79, 0x12, 0x45, 0x00});
  EXPECT_EQ(s->getTableId(), 0x70);
  EXPECT_EQ(s->getSectionLength(), 5);
}

// PID, table id, milliseconds, longest section.
template <typename Section>
std::tuple<unsigned, unsigned, unsigned, unsigned> constants() {
  const auto value = [](auto constant) { return static_cast<unsigned>(constant); };
  return {value(Section::PID), value(Section::TID), value(Section::TIMEOUT), value(Section::LENGTH)};
}

TEST(Sections, static_constants_of_the_tables) {
  EXPECT_EQ(constants<ProgramAssociationSection>(), std::tuple(0, 0, 1200, 1024));
  EXPECT_EQ(constants<ProgramMapSection>(), std::tuple(0x1FFF, 2, 600, 1024));
  EXPECT_EQ(constants<EventInformationSection>(), std::tuple(0x12, 0x4E, 3000, 4096));
}

// --- What is behind the head

Bytes pmt(const Bytes& program_loop_with_length, const Bytes& streams) {
  return long_section(0x02, 0x1234, 1, join({u16(0xE000 | 0x100), program_loop_with_length, streams}));
}
Bytes nit(const Bytes& network_loop, const Bytes& streams_loop) {
  return long_section(0x40, 0x3001, 1, join({network_loop, streams_loop}));
}
Bytes sdt(const Bytes& services) {
  return long_section(0x42, 0x0BB8, 2, join({{0x20, 0x85, 0xFF}, services}));
}
Bytes tot(const Bytes& loop) {
  Bytes s = join({{0x73, 0x70, 0, 0xC0, 0x79, 0x12, 0x45, 0x59}, loop});
  s[2] = static_cast<uint8_t>(s.size() + 4 - 3);
  return support::with_crc(s);
}

const Bytes ONE_STREAM{0x1B, 0xE2, 0x01, 0xF0, 0x03, 0x52, 0x01, 0x07};
const Bytes LONG_STREAM{0x03, 0xE2, 0x02, 0xF0, 0x0F, 0x52, 0x01, 0x07};
const Bytes ONE_TS{0x12, 0x34, 0x56, 0x78, 0xF0, 0x02, 0x41, 0x00};
const Bytes LONG_TS{0x12, 0x34, 0x56, 0x78, 0xF0, 0x0B, 0x41, 0x00};
const Bytes ONE_SERVICE{0x00, 0x65, 0xFE, 0x90, 0x02, 0x5F, 0x00};  // schedule only, running, scrambled
const Bytes LONG_SERVICE{0x00, 0x65, 0xFE, 0x90, 0x0A, 0x5F, 0x00};
const Bytes ONE_EVENT{0x43, 0x21, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x20, 0x00};
const Bytes LONG_EVENT(join({Bytes(11, 0), {13}}));

struct Case {
  const char* what;
  Bytes section;
  std::string values;
};

void expect_values(const std::vector<Case>& cases) {
  for (const Case& c : cases)
    EXPECT_EQ(section_values(c.section), c.values) << c.what;
}

TEST(Sections, values_are_those_broadcast) {
  const auto second = join({{0x12, 0x34, 0xFD, 0x60, 0x03}, descriptor(0x53, {1})});
  expect_values({
      {"PAT: 0 is the network, left-over bytes are ignored",
       long_section(0x00, 0x2A, 3, {0, 7, 0xE1, 0x23, 0, 0, 0xE0, 0x10, 0xFF, 0xFF, 0xFF, 0xFF, 1, 2, 3}),
       "[10] [7 123] [ffff 1fff]"},
      {"PMT", pmt(loop12(descriptor(0x0E, {1, 2, 3})), join({ONE_STREAM, ONE_STREAM})),
       "1234 100 <0e> [1b 201 <52>] [1b 201 <52>]"},
      {"NIT", nit(loop12(descriptor(0x40, support::bytes("net"))), loop12(join({ONE_TS, ONE_TS}))),
       "<40> [1234 5678 <41>] [1234 5678 <41>]"},
      {"SDT", sdt(join({{0x00, 0x65, 0xFE, 0x90, 0x02, 0x53, 0x00}, second})),
       "bb8 2085 [65 1 0 4 1 <53>] [1234 0 1 3 0 <53>]"},
      {"EIT", long_section(0x50, 0x65, 5, join({{0x0B, 0xB8, 0x20, 0x85, 0x08, 0x51}, ONE_EVENT, ONE_EVENT}), 3, 0xF8),
       "bb8 2085 8 51 [4321 ffff ffffff ffffff 1 0 <>] [4321 ffff ffffff ffffff 1 0 <>]"},
      {"TDT", {0x70, 0x70, 0x05, 0xC0, 0x79, 0x12, 0x45, 0x59}, "c079 124559"},
      {"TOT whose second descriptor does not fit", tot(loop12(join({descriptor(0x58, {}), {0x06, 0x07, 0x00}}))),
       "c079 124559 <58>"},
  });
  const Bytes bytes = tot(loop12({}));
  EXPECT_EQ(parsed<TimeOffsetSection>(bytes)->getCrc32(), support::mpeg_crc32(bytes.data(), bytes.size() - 4));
  EXPECT_EQ(parsed<ProgramAssociationSection>(long_section(0x00, 0x2A, 3, {}))->getTableIdExtension(), 0x2A);
  EXPECT_EQ(parsed<NetworkInformationSection>(nit(loop12({}), loop12({})))->getTableIdExtension(), 0x3001);
  EXPECT_EQ(parsed<EventInformationSection>(long_section(0x50, 0x65, 5, {}))->getTableIdExtension(), 0x65);
}

TEST(Sections, what_does_not_fit_and_all_after_it_are_left_out) {
  const auto cat = [](const Bytes& loop) { return long_section(0x01, 0xFFFF, 0, loop); };
  const Bytes cut_stream{0x03, 0xE2, 0x02, 0xF0};
  expect_values({
      {"CAT: descriptor too long", cat(join({descriptor(0x06, {1}), descriptor(0x0E, {}), {0x06, 9, 1}})), "<06 0e>"},
      {"CAT: tag only", cat(join({descriptor(0x06, {1}), {0x06}})), "<06>"},
      {"CAT: empty", cat({}), "<>"},
      {"PMT: stream too long", pmt(loop12({}), join({ONE_STREAM, LONG_STREAM, ONE_STREAM})),
       "1234 100 <> [1b 201 <52>]"},
      {"PMT: last stream too long", pmt(loop12({}), join({ONE_STREAM, LONG_STREAM})), "1234 100 <> [1b 201 <52>]"},
      {"PMT: stream cut", pmt(loop12({}), join({ONE_STREAM, cut_stream})), "1234 100 <> [1b 201 <52>]"},
      {"PMT: program loop passes the section", pmt(join({u16(0xF000 + 14), descriptor(0x0E, {1, 2, 3})}), ONE_STREAM),
       "1234 100 <>"},
      {"PMT: program loop passed by a descriptor", pmt(loop12({0x06, 1, 9, 0x0E, 4, 1}), ONE_STREAM), "1234 100 <06>"},
      {"PMT: one byte left of the program loop", pmt(loop12({0x06, 1, 9, 0x0E}), ONE_STREAM), "1234 100 <06>"},
      {"NIT: network loop passes the section", nit(join({u16(0xF0FF), descriptor(0x40, {})}), loop12(ONE_TS)), "<>"},
      {"NIT: one byte left of the network loop", nit(loop12({0x40, 0x00, 0x40}), loop12(ONE_TS)), "<40>"},
      {"NIT: stream loop passes the section", nit(loop12(descriptor(0x40, {})), join({u16(0xF009), ONE_TS})), "<40>"},
      {"NIT: stream too long", nit(loop12({}), loop12(join({ONE_TS, LONG_TS, ONE_TS}))), "<> [1234 5678 <41>]"},
      {"NIT: half a second length", nit(loop12({}), {0xF0}), "<>"},
      {"NIT: no second length", nit(loop12({}), {}), "<>"},
      {"TOT: loop passes the section", tot(join({u16(0xF003), descriptor(0x58, {})})), "c079 124559 <>"},
  });
  const auto services = parsed<ServiceDescriptionSection>(sdt(join({ONE_SERVICE, LONG_SERVICE, ONE_SERVICE})));
  EXPECT_EQ(services->getDescriptions()->size(), 1u);
  const auto events = parsed<EventInformationSection>(
      long_section(0x4E, 1, 0, join({{0, 0, 0, 0, 0, 0x4E}, Bytes(12, 0), LONG_EVENT, Bytes(12, 0)})));
  EXPECT_EQ(events->getEvents()->size(), 1u);
}

// --- Sections that are shorter than the fields of their table

TEST(Pat, entries_begin_at_the_length_that_holds_one) {
  for (size_t length = 5; length < 13; ++length)
    EXPECT_TRUE(counted<ProgramAssociationSection>(0x00, length)->getPrograms()->empty()) << length;
  EXPECT_EQ(counted<ProgramAssociationSection>(0x00, 13)->getPrograms()->size(), 1u);
}

TEST(Pat, the_longest_section_is_full_of_entries_and_so_is_one_that_says_to_be_longer) {
  for (const size_t length : {4093U, 4094U, 4095U}) {
    const auto pat = counted<ProgramAssociationSection>(0x00, length);
    EXPECT_EQ(pat->getPrograms()->size() + pat->getNetworks()->size(), 1021u) << length;
  }
}

TEST(Short_sections, fields_that_they_do_not_hold_have_their_defaults) {
  const auto eit = [](size_t length) { return counted<EventInformationSection>(0x4E, length); };
  const auto at = [](size_t length) { return counted<TimeOffsetSection>(0x73, length); };
  EXPECT_EQ(counted<ProgramMapSection>(0x02, 10)->getPcrPid(), 0);
  EXPECT_EQ(counted<ProgramMapSection>(0x02, 11)->getPcrPid(), 0x0889);
  for (size_t length = 5; length < 20; ++length)
    EXPECT_TRUE(counted<NetworkInformationSection>(0x40, length)->getTsInfo()->empty()) << length;
  EXPECT_EQ(counted<ServiceDescriptionSection>(0x42, 9)->getOriginalNetworkId(), 0);
  EXPECT_EQ(counted<ServiceDescriptionSection>(0x42, 10)->getOriginalNetworkId(), 0x8889);
  EXPECT_EQ(eit(10)->getTransportStreamId(), 0);
  EXPECT_EQ(eit(11)->getTransportStreamId(), 0x8889);
  EXPECT_EQ(eit(12)->getOriginalNetworkId(), 0);
  EXPECT_EQ(eit(13)->getOriginalNetworkId(), 0x8A8B);
  EXPECT_EQ(eit(13)->getSegmentLastSectionNumber(), 0x86);  // the section's own number
  EXPECT_EQ(eit(14)->getSegmentLastSectionNumber(), 0x8C);
  EXPECT_EQ(eit(14)->getLastTableId(), 0x4E);  // the section's own table id
  EXPECT_EQ(eit(15)->getLastTableId(), 0x8D);
  EXPECT_EQ(section_values({0x70, 0x70, 0x04, 0xC0, 0x79, 0x12, 0x45}), "0 0");
  EXPECT_EQ(std::tuple(at(8)->getUtcTimeMjd(), at(8)->getUtcTimeBcd()), std::tuple(0, 0u));
  EXPECT_EQ(std::tuple(at(9)->getUtcTimeMjd(), at(9)->getUtcTimeBcd()), std::tuple(0x8384, 0x858687u));
  EXPECT_EQ(tags(*at(10)), Tags{});
}

// --- Entries made by hand

TEST(Entries, copy_their_descriptors) {
  const auto es = parsed<ElementaryStreamInfo>(ONE_STREAM);
  EXPECT_EQ(es->getPid(), 0x201);
  EXPECT_EQ(tags(*es), (Tags{0x52}));
  const auto ts = parsed<TransportStreamInfo>(ONE_TS);
  EXPECT_EQ(ts->getTransportStreamId(), 0x1234);
  EXPECT_EQ(tags(*ts), (Tags{0x41}));
  const auto service = parsed<ServiceDescription>({0x00, 0x65, 0xFE, 0x90, 0x02, 0x53, 0x00});
  EXPECT_EQ(service->getServiceId(), 0x65);
  EXPECT_EQ(tags(*service), (Tags{0x53}));
}

TEST(Entries, times_of_an_event_are_as_broadcast) {
  const auto event = parsed<Event>(join({{0x12, 0x34, 0xE9, 0x7A, 0x21, 0x15, 0x00, 0x01, 0x3A, 0x00, 0xD0, 0x03},
                                         descriptor(0x5F, {}),  // too short to be kept
                                         {0x01}}));
  EXPECT_EQ(event->getStartTimeMjd(), 0xE97A);
  EXPECT_EQ(event->getStartTimeBcd(), 0x211500u);
  EXPECT_EQ(event->getDuration(), 0x013A00u);  // 3A is no BCD number, and is not noticed
  EXPECT_EQ(event->getRunningStatus(), 6);
  EXPECT_EQ(event->getFreeCaMode(), 1);
  EXPECT_TRUE(!dvbsi_test::OWN || tags(*event).empty());
}

}  // namespace
