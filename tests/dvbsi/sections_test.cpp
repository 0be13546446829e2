#include <memory>
#include <tuple>
#include <vector>

#include <dvbsi++/event_information_section.h>
#include <dvbsi++/network_information_section.h>
#include <dvbsi++/program_association_section.h>
#include <dvbsi++/program_map_section.h>
#include <dvbsi++/service_description_section.h>
#include <dvbsi++/time_date_section.h>
#include <dvbsi++/time_offset_section.h>
#include <gtest/gtest.h>

#include "dvbsi/parsed.h"

namespace {

using dvbsi_test::Bytes;
using dvbsi_test::parsed;
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

std::vector<int> tags(const DescriptorContainer& container) {
  std::vector<int> all;
  for (const Descriptor* d : *container.getDescriptors())
    all.push_back(d->getTag());
  return all;
}

using Tags = std::vector<int>;

TEST(ShortSection, reads_three_bytes) {
  const auto s = parsed<ShortSection>({0x72, 0x8F, 0xFE});
  EXPECT_EQ(s->getTableId(), 0x72);
  EXPECT_EQ(s->getSectionSyntaxIndicator(), 1);
  EXPECT_EQ(s->getSectionLength(), 0xFFE);
  EXPECT_EQ(parsed<ShortSection>({0x72, 0x7F, 0xFE})->getSectionSyntaxIndicator(), 0);
}

TEST(ShortCrcSection, crc_is_the_last_four_bytes) {
  EXPECT_EQ(parsed<ShortCrcSection>(counted_section(0x73, 10))->getCrc32(), 0x898A8B8Cu);
}

TEST(LongSection, header_fields) {
  const auto s = parsed<LongSection>(long_section(0x42, 0xABCD, 30, {}, 4, 7, false));
  EXPECT_EQ(s->getTableId(), 0x42);
  EXPECT_EQ(s->getSectionSyntaxIndicator(), 1);
  EXPECT_EQ(s->getSectionLength(), 9);
  EXPECT_EQ(s->getTableIdExtension(), 0xABCD);
  EXPECT_EQ(s->getVersionNumber(), 30);
  EXPECT_EQ(s->getCurrentNextIndicator(), 0);
  EXPECT_EQ(s->getSectionNumber(), 4);
  EXPECT_EQ(s->getLastSectionNumber(), 7);
}

TEST(LongSection, operators_compare_the_section_number_only) {
  const auto a = parsed<LongSection>(long_section(0x42, 9, 9, {}, 1, 200));
  const auto b = parsed<LongSection>(long_section(0x00, 1, 1, {}, 2, 3));
  const auto c = parsed<LongSection>(long_section(0x50, 2, 2, {}, 2, 4));
  EXPECT_TRUE(*a<*b&& * a <= *b&& * a != *b&& * b> * a && *b >= *a);
  EXPECT_FALSE(*a > *b || *a >= *b || *a == *b || *b < *a || *b <= *a);
  EXPECT_TRUE(*b == *c && *b <= *c && *b >= *c);
  EXPECT_FALSE(*b != *c || *b < *c || *b > *c);
}

TEST(LongCrcSection, crc_is_not_verified) {
  Bytes s = long_section(0x42, 0, 0, {});
  s[11] ^= 0xFF;
  const uint32_t last_four = uint32_t{s[8]} << 24 | uint32_t{s[9]} << 16 | uint32_t{s[10]} << 8 | s[11];
  EXPECT_EQ(parsed<LongCrcSection>(s)->getCrc32(), last_four);
}

TEST(LongCrcSection, laid_over_a_tdt_gives_table_id_and_length) {
  const auto s = parsed<LongCrcSection>({0x70, 0x70, 0x05, 0xC0, 0x79, 0x12, 0x45, 0x00});
  EXPECT_EQ(s->getTableId(), 0x70);
  EXPECT_EQ(s->getSectionLength(), 5);
}

TEST(Sections, static_constants_of_the_tables) {
  const auto value = [](auto constant) { return static_cast<unsigned>(constant); };
  using Row = std::tuple<unsigned, unsigned, unsigned, unsigned>;  // PID, table id, ms, longest section
  EXPECT_EQ(Row(value(ProgramAssociationSection::PID), value(ProgramAssociationSection::TID),
                value(ProgramAssociationSection::TIMEOUT), value(ProgramAssociationSection::LENGTH)),
            Row(0, 0, 1200, 1024));
  EXPECT_EQ(Row(value(ProgramMapSection::PID), value(ProgramMapSection::TID), value(ProgramMapSection::TIMEOUT),
                value(ProgramMapSection::LENGTH)),
            Row(0x1FFF, 2, 600, 1024));
  EXPECT_EQ(Row(value(EventInformationSection::PID), value(EventInformationSection::TID),
                value(EventInformationSection::TIMEOUT), value(EventInformationSection::LENGTH)),
            Row(0x12, 0x4E, 3000, 4096));
}

// --- PAT

TEST(Pat, left_over_bytes_are_ignored_and_zero_is_the_network) {
  const auto pat = parsed<ProgramAssociationSection>(
      long_section(0x00, 0x2A, 3, {0, 7, 0xE1, 0x23, 0, 0, 0xE0, 0x10, 0xFF, 0xFF, 0xFF, 0xFF, 1, 2, 3}));
  EXPECT_EQ(pat->getTableIdExtension(), 0x2A);
  ASSERT_EQ(pat->getNetworks()->size(), 1u);
  EXPECT_EQ(pat->getNetworks()->front()->getNetworkPid(), 0x10);
  ASSERT_EQ(pat->getPrograms()->size(), 2u);
  EXPECT_EQ(pat->getPrograms()->front()->getProgramNumber(), 7);
  EXPECT_EQ(pat->getPrograms()->front()->getProgramMapPid(), 0x123);
  EXPECT_EQ(pat->getPrograms()->back()->getProgramNumber(), 0xFFFF);
  EXPECT_EQ(pat->getPrograms()->back()->getProgramMapPid(), 0x1FFF);
}

TEST(Pat, entries_begin_at_the_length_that_holds_one) {
  for (size_t length = 5; length < 13; ++length)
    EXPECT_TRUE(parsed<ProgramAssociationSection>(counted_section(0x00, length))->getPrograms()->empty()) << length;
  EXPECT_EQ(parsed<ProgramAssociationSection>(counted_section(0x00, 13))->getPrograms()->size(), 1u);
}

TEST(Pat, the_longest_section_is_full_of_entries) {
  const auto pat = parsed<ProgramAssociationSection>(counted_section(0x00, 4093));
  EXPECT_EQ(pat->getPrograms()->size() + pat->getNetworks()->size(), (4093u - 9) / 4);
}

// --- CAT

TEST(Cat, stops_at_the_first_descriptor_that_does_not_fit) {
  EXPECT_EQ(tags(*dvbsi_test::loop_of(join({descriptor(0x06, {1}), descriptor(0x0E, {}), {0x06, 9, 1}}))),
            (Tags{0x06, 0x0E}));
  EXPECT_EQ(tags(*dvbsi_test::loop_of(join({descriptor(0x06, {1}), {0x06}}))), (Tags{0x06}));
  EXPECT_EQ(tags(*dvbsi_test::loop_of({})), Tags{});
}

// --- PMT

Bytes pmt(const Bytes& program_loop_with_length, const Bytes& streams) {
  return long_section(0x02, 0x1234, 1, join({u16(0xE000 | 0x100), program_loop_with_length, streams}));
}
const Bytes ONE_STREAM{0x1B, 0xE2, 0x01, 0xF0, 0x03, 0x52, 0x01, 0x07};

TEST(Pmt, program_and_streams) {
  const auto s = parsed<ProgramMapSection>(pmt(loop12(descriptor(0x0E, {1, 2, 3})), join({ONE_STREAM, ONE_STREAM})));
  EXPECT_EQ(s->getProgramNumber(), 0x1234);
  EXPECT_EQ(s->getPcrPid(), 0x100);
  EXPECT_EQ(tags(*s), (Tags{0x0E}));
  ASSERT_EQ(s->getEsInfo()->size(), 2u);
  for (const ElementaryStreamInfo* es : *s->getEsInfo()) {
    EXPECT_EQ(es->getType(), 0x1B);
    EXPECT_EQ(es->getPid(), 0x201);
    EXPECT_EQ(tags(*es), (Tags{0x52}));
  }
}

TEST(Pmt, program_loop_that_passes_the_section_leaves_nothing) {
  const auto s = parsed<ProgramMapSection>(pmt(join({u16(0xF000 + 14), descriptor(0x0E, {1, 2, 3})}), ONE_STREAM));
  EXPECT_EQ(tags(*s), Tags{});
  EXPECT_TRUE(s->getEsInfo()->empty());
  EXPECT_EQ(s->getPcrPid(), 0x100);
}

TEST(Pmt, program_loop_that_does_not_end_on_its_length_leaves_no_streams) {
  const auto passed = parsed<ProgramMapSection>(pmt(loop12({0x06, 1, 9, 0x0E, 4, 1}), ONE_STREAM));
  EXPECT_EQ(tags(*passed), (Tags{0x06}));
  EXPECT_TRUE(passed->getEsInfo()->empty());
  const auto one_byte_left = parsed<ProgramMapSection>(pmt(loop12({0x06, 1, 9, 0x0E}), ONE_STREAM));
  EXPECT_EQ(tags(*one_byte_left), (Tags{0x06}));
  EXPECT_TRUE(one_byte_left->getEsInfo()->empty());
}

TEST(Pmt, stream_that_does_not_fit_and_all_after_it_are_left_out) {
  const Bytes too_long{0x03, 0xE2, 0x02, 0xF0, 0x0F, 0x52, 0x01, 0x07};
  EXPECT_EQ(parsed<ProgramMapSection>(pmt(loop12({}), join({ONE_STREAM, too_long, ONE_STREAM})))->getEsInfo()->size(),
            1u);
  EXPECT_EQ(parsed<ProgramMapSection>(pmt(loop12({}), join({ONE_STREAM, too_long})))->getEsInfo()->size(), 1u);
  EXPECT_EQ(
      parsed<ProgramMapSection>(pmt(loop12({}), join({ONE_STREAM, {0x03, 0xE2, 0x02, 0xF0}})))->getEsInfo()->size(),
      1u);
}

TEST(Pmt, fields_that_a_short_section_does_not_hold_are_zero) {
  EXPECT_EQ(parsed<ProgramMapSection>(counted_section(0x02, 10))->getPcrPid(), 0);
  EXPECT_EQ(parsed<ProgramMapSection>(counted_section(0x02, 11))->getPcrPid(), 0x0889);
}

// --- NIT

Bytes nit(const Bytes& network_loop, const Bytes& streams_loop) {
  return long_section(0x40, 0x3001, 1, join({network_loop, streams_loop}));
}
const Bytes ONE_TS{0x12, 0x34, 0x56, 0x78, 0xF0, 0x02, 0x41, 0x00};

TEST(Nit, network_and_transport_streams) {
  const auto s = parsed<NetworkInformationSection>(
      nit(loop12(descriptor(0x40, support::bytes("net"))), loop12(join({ONE_TS, ONE_TS}))));
  EXPECT_EQ(s->getTableIdExtension(), 0x3001);
  EXPECT_EQ(tags(*s), (Tags{0x40}));
  ASSERT_EQ(s->getTsInfo()->size(), 2u);
  EXPECT_EQ(s->getTsInfo()->back()->getTransportStreamId(), 0x1234);
  EXPECT_EQ(s->getTsInfo()->back()->getOriginalNetworkId(), 0x5678);
  EXPECT_EQ(tags(*s->getTsInfo()->back()), (Tags{0x41}));
}

TEST(Nit, network_loop_that_passes_the_section_leaves_nothing) {
  const auto s = parsed<NetworkInformationSection>(nit(join({u16(0xF0FF), descriptor(0x40, {})}), loop12(ONE_TS)));
  EXPECT_EQ(tags(*s), Tags{});
  EXPECT_TRUE(s->getTsInfo()->empty());
}

TEST(Nit, network_loop_that_does_not_end_on_its_length_leaves_no_transport_streams) {
  const auto s = parsed<NetworkInformationSection>(nit(loop12({0x40, 0x00, 0x40}), loop12(ONE_TS)));
  EXPECT_EQ(tags(*s), (Tags{0x40}));
  EXPECT_TRUE(s->getTsInfo()->empty());
}

TEST(Nit, transport_stream_loop_that_passes_the_section_leaves_no_transport_streams) {
  const auto s = parsed<NetworkInformationSection>(nit(loop12(descriptor(0x40, {})), join({u16(0xF009), ONE_TS})));
  EXPECT_EQ(tags(*s), (Tags{0x40}));
  EXPECT_TRUE(s->getTsInfo()->empty());
}

TEST(Nit, transport_stream_that_does_not_fit_and_all_after_it_are_left_out) {
  Bytes too_long = ONE_TS;
  too_long[5] = 11;
  EXPECT_EQ(
      parsed<NetworkInformationSection>(nit(loop12({}), loop12(join({ONE_TS, too_long, ONE_TS}))))->getTsInfo()->size(),
      1u);
}

TEST(Nit, without_room_for_the_second_length_there_are_no_transport_streams) {
  EXPECT_TRUE(parsed<NetworkInformationSection>(nit(loop12({}), {0xF0}))->getTsInfo()->empty());
  EXPECT_TRUE(parsed<NetworkInformationSection>(nit(loop12({}), {}))->getTsInfo()->empty());
  for (size_t length = 5; length < 20; ++length)
    EXPECT_TRUE(parsed<NetworkInformationSection>(counted_section(0x40, length))->getTsInfo()->empty()) << length;
}

// --- SDT

const Bytes ONE_SERVICE{0x00, 0x65, 0xFE, 0x90, 0x02, 0x5F, 0x00};  // schedule only, running, scrambled

Bytes sdt(const Bytes& services) {
  return long_section(0x42, 0x0BB8, 2, join({{0x20, 0x85, 0xFF}, services}));
}

TEST(Sdt, services_and_flags) {
  Bytes second = join({{0x12, 0x34, 0xFD, 0x60, 0x03}, descriptor(0x53, {1})});
  const auto s = parsed<ServiceDescriptionSection>(sdt(join({{0x00, 0x65, 0xFE, 0x90, 0x02, 0x53, 0x00}, second})));
  EXPECT_EQ(s->getTransportStreamId(), 0x0BB8);
  EXPECT_EQ(s->getOriginalNetworkId(), 0x2085);
  ASSERT_EQ(s->getDescriptions()->size(), 2u);
  const ServiceDescription& a = *s->getDescriptions()->front();
  EXPECT_EQ(a.getServiceId(), 0x65);
  EXPECT_EQ(a.getEitScheduleFlag(), 1);
  EXPECT_EQ(a.getEitPresentFollowingFlag(), 0);
  EXPECT_EQ(a.getRunningStatus(), 4);
  EXPECT_EQ(a.getFreeCaMode(), 1);
  EXPECT_EQ(tags(a), (Tags{0x53}));
  const ServiceDescription& b = *s->getDescriptions()->back();
  EXPECT_EQ(b.getServiceId(), 0x1234);
  EXPECT_EQ(b.getEitScheduleFlag(), 0);
  EXPECT_EQ(b.getEitPresentFollowingFlag(), 1);
  EXPECT_EQ(b.getRunningStatus(), 3);
  EXPECT_EQ(b.getFreeCaMode(), 0);
}

TEST(Sdt, service_that_does_not_fit_and_all_after_it_are_left_out) {
  Bytes too_long = ONE_SERVICE;
  too_long[4] = 10;
  EXPECT_EQ(
      parsed<ServiceDescriptionSection>(sdt(join({ONE_SERVICE, too_long, ONE_SERVICE})))->getDescriptions()->size(),
      1u);
}

TEST(Sdt, original_network_id_of_a_short_section_is_zero) {
  EXPECT_EQ(parsed<ServiceDescriptionSection>(counted_section(0x42, 9))->getOriginalNetworkId(), 0);
  EXPECT_EQ(parsed<ServiceDescriptionSection>(counted_section(0x42, 10))->getOriginalNetworkId(), 0x8889);
}

// --- EIT

TEST(Eit, events_and_times_are_as_broadcast) {
  const Bytes event = join({{0x12, 0x34, 0xE9, 0x7A, 0x21, 0x15, 0x00, 0x01, 0x3A, 0x00, 0xD0, 0x03},
                            descriptor(0x5F, {}),  // too short to be kept
                            {0x01}});
  const Bytes plain{0x43, 0x21, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x20, 0x00};
  const auto s = parsed<EventInformationSection>(
      long_section(0x50, 0x65, 5, join({{0x0B, 0xB8, 0x20, 0x85, 0x08, 0x51}, plain, plain}), 3, 0xF8));
  EXPECT_EQ(s->getTableIdExtension(), 0x65);
  EXPECT_EQ(s->getTransportStreamId(), 0x0BB8);
  EXPECT_EQ(s->getOriginalNetworkId(), 0x2085);
  EXPECT_EQ(s->getSegmentLastSectionNumber(), 8);
  EXPECT_EQ(s->getLastTableId(), 0x51);
  ASSERT_EQ(s->getEvents()->size(), 2u);
  const Event& e = *s->getEvents()->front();
  EXPECT_EQ(e.getEventId(), 0x4321);
  EXPECT_EQ(e.getStartTimeMjd(), 0xFFFF);
  EXPECT_EQ(e.getStartTimeBcd(), 0xFFFFFFu);
  EXPECT_EQ(e.getDuration(), 0xFFFFFFu);
  EXPECT_EQ(e.getRunningStatus(), 1);
  EXPECT_EQ(e.getFreeCaMode(), 0);
  const auto other = parsed<Event>(event);
  EXPECT_EQ(other->getStartTimeMjd(), 0xE97A);
  EXPECT_EQ(other->getStartTimeBcd(), 0x211500u);
  EXPECT_EQ(other->getDuration(), 0x013A00u);  // 3A is no BCD number, and is not noticed
  EXPECT_EQ(other->getRunningStatus(), 6);
  EXPECT_EQ(other->getFreeCaMode(), 1);
  EXPECT_TRUE(!dvbsi_test::OWN || tags(*other).empty());
}

TEST(Eit, event_that_does_not_fit_and_all_after_it_are_left_out) {
  Bytes plain(12, 0), too_long(12, 0);
  too_long[11] = 13;
  EXPECT_EQ(
      parsed<EventInformationSection>(long_section(0x4E, 1, 0, join({{0, 0, 0, 0, 0, 0x4E}, plain, too_long, plain})))
          ->getEvents()
          ->size(),
      1u);
}

TEST(Eit, fields_that_a_short_section_does_not_hold_have_their_defaults) {
  const auto at = [](size_t length) { return parsed<EventInformationSection>(counted_section(0x4E, length)); };
  EXPECT_EQ(at(10)->getTransportStreamId(), 0);
  EXPECT_EQ(at(11)->getTransportStreamId(), 0x8889);
  EXPECT_EQ(at(12)->getOriginalNetworkId(), 0);
  EXPECT_EQ(at(13)->getOriginalNetworkId(), 0x8A8B);
  EXPECT_EQ(at(13)->getSegmentLastSectionNumber(), 0x86);  // the section's own number
  EXPECT_EQ(at(14)->getSegmentLastSectionNumber(), 0x8C);
  EXPECT_EQ(at(14)->getLastTableId(), 0x4E);  // the section's own table id
  EXPECT_EQ(at(15)->getLastTableId(), 0x8D);
}

// --- TDT and TOT

TEST(Tdt, time_and_short_sections) {
  const auto s = parsed<TimeAndDateSection>({0x70, 0x70, 0x05, 0xC0, 0x79, 0x12, 0x45, 0x59});
  EXPECT_EQ(s->getUtcTimeMjd(), 0xC079);
  EXPECT_EQ(s->getUtcTimeBcd(), 0x124559u);
  const auto cut = parsed<TimeAndDateSection>({0x70, 0x70, 0x04, 0xC0, 0x79, 0x12, 0x45});
  EXPECT_EQ(cut->getUtcTimeMjd(), 0);
  EXPECT_EQ(cut->getUtcTimeBcd(), 0u);
}

Bytes tot(const Bytes& loop) {
  Bytes s = join({{0x73, 0x70, 0, 0xC0, 0x79, 0x12, 0x45, 0x59}, loop});
  s[2] = static_cast<uint8_t>(s.size() + 4 - 3);
  return support::with_crc(s);
}

TEST(Tot, time_descriptors_and_crc) {
  const Bytes bytes = tot(loop12(join({descriptor(0x58, {}), {0x06, 0x07, 0x00}})));
  const auto s = parsed<TimeOffsetSection>(bytes);
  EXPECT_EQ(s->getUtcTimeMjd(), 0xC079);
  EXPECT_EQ(s->getUtcTimeBcd(), 0x124559u);
  EXPECT_EQ(s->getCrc32(), support::mpeg_crc32(bytes.data(), bytes.size() - 4));
  EXPECT_EQ(tags(*s), (Tags{0x58}));  // the second does not fit
}

TEST(Tot, loop_that_passes_the_section_is_empty) {
  EXPECT_EQ(tags(*parsed<TimeOffsetSection>(tot(join({u16(0xF003), descriptor(0x58, {})})))), Tags{});
}

TEST(Tot, short_sections_have_no_time) {
  EXPECT_EQ(parsed<TimeOffsetSection>(counted_section(0x73, 8))->getUtcTimeMjd(), 0);
  EXPECT_EQ(parsed<TimeOffsetSection>(counted_section(0x73, 8))->getUtcTimeBcd(), 0u);
  EXPECT_EQ(parsed<TimeOffsetSection>(counted_section(0x73, 9))->getUtcTimeMjd(), 0x8384);
  EXPECT_EQ(parsed<TimeOffsetSection>(counted_section(0x73, 9))->getUtcTimeBcd(), 0x858687u);
  EXPECT_EQ(tags(*parsed<TimeOffsetSection>(counted_section(0x73, 10))), Tags{});
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

}  // namespace
