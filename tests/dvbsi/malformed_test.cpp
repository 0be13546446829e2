// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <dvbsi++/event_information_section.h>
#include <dvbsi++/network_information_section.h>
#include <dvbsi++/program_association_section.h>
#include <dvbsi++/program_map_section.h>
#include <dvbsi++/service_description_section.h>
#include <dvbsi++/time_date_section.h>
#include <dvbsi++/time_offset_section.h>

#include "dvbsi/malformed_cases.h"
#include "dvbsi/parsed.h"
#include "dvbsi/read_all.h"
#include "dvbsi/samples.h"
#include "si/section_guard.h"
#include "support/test.h"

namespace {

using dvbsi_test::Block;
using dvbsi_test::Bytes;
using dvbsi_test::OWN;
using dvbsi_test::parsed;
using dvbsi_test::read_all;

uint64_t hash(const Bytes& section) {
  return read_all(Block(section).get());
}

// The same section among other bytes. A parser that looks outside the section sees a difference.
uint64_t hash_among(const Bytes& section, uint8_t filling) {
  Bytes wide(16 + section.size() + 4096, filling);
  std::copy(section.begin(), section.end(), wide.begin() + 16);
  return read_all(wide.data() + 16);
}

void expect_nothing_outside_is_read(const Bytes& section, const std::string& legend) {
  const uint64_t expected = hash(section);
  for (const uint8_t filling : Bytes{0x00, 0x01, 0x7F, 0xFF})
    EXPECT_EQ(hash_among(section, filling), expected) << legend;
}

// Broken sections that no guard has seen: never given to the system's library.
class Malformed : public testing::Test {
 protected:
  void SetUp() override {
    if (!OWN)
      GTEST_SKIP();
  }
};

// Sections so short that their class asks for more than there is: nothing is behind them, and nothing in front.
template <typename... Sections>
void expect_empty_headers(size_t length, const std::string& values) {
  Bytes bytes{0x42, 0xF0, static_cast<uint8_t>(length)};
  bytes.resize(3 + length, 0xFF);
  for (const std::string& head : {dvbsi_test::head_values(*parsed<Sections>(bytes))...})
    EXPECT_EQ(head, values);
}

TEST_F(Malformed, long_sections_shorter_than_their_header) {
  const char* const values[] = {"42 1 0 0 0 0 0 0", "42 1 1 ff00 0 0 0 0", "42 1 2 ffff 0 0 0 0",
                                "42 1 3 ffff 1f 1 0 0", "42 1 4 ffff 1f 1 ff 0"};
  for (size_t length = 0; length < 5; ++length) {
    expect_empty_headers<LongSection, LongCrcSection, ProgramAssociationSection, ConditionalAccessSection,
                         ProgramMapSection, NetworkInformationSection, ServiceDescriptionSection,
                         EventInformationSection>(length, values[length]);
  }
}

TEST_F(Malformed, short_sections_shorter_than_their_crc) {
  EXPECT_EQ(parsed<TimeOffsetSection>({0x73, 0x70, 0x00})->getCrc32(), 0u);
  EXPECT_EQ(parsed<ShortCrcSection>({0x73, 0x70, 0x01, 0xAB})->getCrc32(), 0x737001ABu);
  EXPECT_EQ(parsed<TimeAndDateSection>({0x70, 0x70, 0x00})->getUtcTimeBcd(), 0u);
}

TEST_F(Malformed, lengths_beyond_the_longest_section_are_read_up_to_4096_bytes) {
  for (const size_t length : {4094u, 4095u}) {
    for (const uint8_t table_id : Bytes{0x00, 0x01, 0x02, 0x40, 0x42, 0x4E, 0x72, 0x73}) {
      Bytes bytes(4096, 0x11);
      bytes[0] = table_id;
      bytes[1] = 0xFF;
      bytes[2] = static_cast<uint8_t>(length);
      EXPECT_EQ(parsed<LongCrcSection>(bytes)->getCrc32(), length == 4094 ? 0x11111100u : 0x11110000u);
      EXPECT_EQ(hash(bytes), hash_among(bytes, 0xFF)) << int{table_id};
    }
  }
}

TEST_F(Malformed, what_is_left_of_each_case) {
  for (const dvbsi_test::Malformed& row : dvbsi_test::malformed_cases()) {
    EXPECT_EQ(dvbsi_test::outline(Block(row.section).get()), row.outline) << row.legend;
    expect_nothing_outside_is_read(row.section, row.legend);
  }
}

TEST(Guarded, what_is_left_behind_the_guard) {
  section_guard::Safe_copy copy;
  for (const dvbsi_test::Malformed& row : dvbsi_test::malformed_cases()) {
    if (row.verdict != dvbsi_test::Verdict::PARSED)
      continue;
    ASSERT_EQ(section_guard::section_problem(row.section.data(), row.section.size()), nullptr) << row.legend;
    EXPECT_EQ(dvbsi_test::outline(copy.copy(row.section.data(), row.section.size())), row.outline) << row.legend;
  }
}

TEST_F(Malformed, kept_cases_of_the_shared_collection) {
  const auto collection = dvbsi_test::shared_collection();
  if (collection.empty())
    GTEST_SKIP() << "no shared files here";
  for (const dvbsi_test::Collected& file : collection)
    for (const Bytes& section : file.sections)
      expect_nothing_outside_is_read(section, file.name);
  EXPECT_GE(collection.size(), 60u);
}

TEST_F(Malformed, our_classes_stay_inside_the_section) {
  dvbsi_test::Random random(20240611);
  const std::vector<Bytes> samples = dvbsi_test::sample_sections();
  for (int round = 0; round < 3000; ++round) {
    for (const Bytes& sample : samples) {
      const Bytes bytes = dvbsi_test::damaged(sample, random);
      ASSERT_EQ(hash(bytes), hash_among(bytes, 0xFF)) << "round " << round << " table " << int{sample[0]};
    }
    for (int i = 0; i < 10; ++i) {
      const Bytes bytes = dvbsi_test::random_section(random);
      ASSERT_EQ(hash(bytes), hash_among(bytes, 0xFF)) << "round " << round;
    }
  }
}

// With the guard in front, any implementation of the classes comes to an end and reads no further than the room that
// Safe_copy gives it.
TEST(Damage, any_classes_stay_inside_the_guards_room) {
  dvbsi_test::Random random(20240612);
  const std::vector<Bytes> samples = dvbsi_test::sample_sections();
  section_guard::Safe_copy copy;
  size_t refused = 0, accepted = 0;
  for (int round = 0; round < 2000; ++round) {
    for (size_t i = 0; i < 2 * samples.size(); ++i) {
      const Bytes bytes =
          i < samples.size() ? dvbsi_test::damaged(samples[i], random) : dvbsi_test::random_section(random);
      if (section_guard::section_problem(bytes.data(), bytes.size()) != nullptr) {
        ++refused;
        continue;
      }
      ++accepted;
      const uint64_t first = read_all(copy.copy(bytes.data(), bytes.size()));
      ASSERT_EQ(read_all(copy.copy(bytes.data(), bytes.size())), first);
    }
  }
  EXPECT_GT(refused, 1000u);
  EXPECT_GT(accepted, 20000u);
}

TEST(Damage, whole_sections_pass_the_guard_and_come_out_the_same) {
  section_guard::Safe_copy copy;
  for (const Bytes& sample : dvbsi_test::sample_sections()) {
    ASSERT_EQ(section_guard::section_problem(sample.data(), sample.size()), nullptr) << int{sample[0]};
    EXPECT_EQ(read_all(copy.copy(sample.data(), sample.size())), hash(sample)) << int{sample[0]};
  }
}

}  // namespace
