// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "si/section_guard.h"

#include "dvbsi/malformed_cases.h"
#include "dvbsi/parsed.h"
#include "dvbsi/samples.h"
#include "support/test.h"

namespace {

using dvbsi_test::Bytes;
using dvbsi_test::Verdict;
using section_guard::body_ok;
using section_guard::Safe_copy;
using section_guard::section_problem;
using support::bytes;
using support::descriptor;
using support::join;

const char* problem(const Bytes& section) {
  return section_problem(section.data(), section.size());
}

// Of a section that the guard lets through, with the guard's room around it.
bool all_bodies_ok(const uint8_t* section) {
  bool all = true;
  dvbsi_test::look_at_descriptors(section, [&](const Descriptor& d) { all = all && body_ok(d); });
  return all;
}

TEST(Section_problem, size_must_be_that_of_the_section) {
  EXPECT_STREQ(section_problem(nullptr, 0), "shorter than 8 bytes");
  EXPECT_STREQ(problem({0x70, 0x70, 0x04, 0, 0, 0, 0}), "shorter than 8 bytes");
  EXPECT_EQ(problem({0x70, 0x70, 0x05, 0, 0, 0, 0, 0}), nullptr);
  EXPECT_STREQ(problem({0x70, 0x70, 0x06, 0, 0, 0, 0, 0}), "length does not agree with section_length");
  EXPECT_STREQ(problem({0x70, 0x70, 0x05, 0, 0, 0, 0, 0, 0}), "length does not agree with section_length");
  Bytes longest(4096, 0);
  longest[1] = 0x0F;
  longest[2] = 0xFD;
  EXPECT_EQ(problem(longest), nullptr);
  longest.resize(4098, 0);
  longest[2] = 0xFF;
  EXPECT_STREQ(problem(longest), "length does not agree with section_length");
}

TEST(Section_problem, names_what_is_wrong) {
  EXPECT_STREQ(problem(support::long_section(0x42, 1, 0, {0, 1, 0xFF, 0, 5, 0xFC, 0xF0, 1, 0x52})),
               "descriptor runs past the loop of its entry");
  EXPECT_STREQ(problem(support::long_section(0x01, 1, 0, {0x7F, 0})), "empty descriptor of a kind that needs a body");
  EXPECT_STREQ(problem(support::long_section(0x01, 1, 0, {0x76, 1, 0x03})),
               "content identifier with a reserved location");
}

TEST(Section_problem, tables_that_nobody_parses_are_not_looked_into) {
  EXPECT_EQ(problem(support::long_section(0x72, 1, 0, {0x7F, 0, 0x51, 0, 0x5E, 0})), nullptr);
  EXPECT_EQ(problem(support::long_section(0x00, 1, 0, {0x7F, 0, 0x51, 0, 0x5E, 0})), nullptr);
}

TEST(Section_problem, every_malformed_case_has_its_verdict) {
  for (const dvbsi_test::Malformed& row : dvbsi_test::malformed_cases())
    EXPECT_EQ(problem(row.section) != nullptr, row.verdict == Verdict::REFUSED) << row.legend;
}

TEST(Section_problem, shared_collection_has_the_verdicts_noted_in_it) {
  const auto collection = dvbsi_test::shared_collection();
  if (collection.empty())
    GTEST_SKIP() << "no shared files here";
  int skipped_bodies = 0;
  for (const dvbsi_test::Collected& file : collection) {
    if (!file.name.ends_with(".hex"))
      continue;
    SCOPED_TRACE(file.name);
    const auto noted = [&file](const char* verdict) {
      return file.text.find(std::string("guarded caller: ") + verdict) != std::string::npos;
    };
    ASSERT_EQ(file.sections.size(), 1u);
    const Bytes& section = file.sections.front();
    EXPECT_TRUE(noted("rejected") || noted("body skipped") || noted("parsed"));
    EXPECT_EQ(problem(section) != nullptr, noted("rejected"));
    if (noted("rejected"))
      continue;
    Safe_copy copy;
    EXPECT_EQ(!all_bodies_ok(copy.copy(section.data(), section.size())), noted("body skipped"));
    skipped_bodies += noted("body skipped") ? 1 : 0;
  }
  EXPECT_GE(skipped_bodies, 8);
}

// The reference texts say "rejected: ..." below the number of each section that a careful caller refuses.
TEST(Section_problem, agrees_with_the_reference_texts) {
  for (const char* name : {"made_mutated", "malformed"}) {
    const std::string sections = dvbsi_test::shared_file("ref/public/" + std::string(name) + ".sec");
    if (sections.empty())
      GTEST_SKIP() << "no shared files here";
    const std::string text =
        support::read_file(dvbsi_test::shared_file("ref/public/" + std::string(name) + ".guard.txt"));
    size_t number = 0;
    for (const Bytes& section : dvbsi_test::section_file(sections)) {
      const std::string head = "section " + std::to_string(number++) + " size " + std::to_string(section.size()) + "\n";
      const size_t at = text.find(head);
      ASSERT_NE(at, std::string::npos) << name << " " << head;
      const std::string rest = text.substr(at + head.size(), 100);
      const char* const found = problem(section);
      if (rest.rfind("  rejected: ", 0) == 0)
        EXPECT_EQ("  rejected: " + std::string(found != nullptr ? found : ""), rest.substr(0, rest.find('\n'))) << name;
      else
        EXPECT_EQ(found, nullptr) << name << " " << head;
    }
    EXPECT_GT(number, 40u);
  }
}

TEST(Safe_copy, has_room_in_front_and_zeroes_behind_every_time) {
  Safe_copy copy;
  const uint8_t* last = nullptr;
  for (const size_t size : {4096u, 8u, 100u, 4096u, 4095u, 12u}) {
    const Bytes section(size, 0xAB);
    const uint8_t* const place = copy.copy(section.data(), size);
    EXPECT_TRUE(last == nullptr || place == last);
    last = place;
    EXPECT_GE(place - reinterpret_cast<const uint8_t*>(&copy), 16);
    EXPECT_TRUE(std::equal(section.begin(), section.end(), place));
    EXPECT_EQ(std::count(place + size, place + size + 1024, 0), 1024) << size;
  }
}

TEST(Safe_copy, cuts_what_is_longer_than_a_section) {
  Safe_copy copy;
  const Bytes section(5000, 0xAB);
  const uint8_t* const place = copy.copy(section.data(), section.size());
  EXPECT_EQ(place[4095], 0xAB);
  EXPECT_EQ(std::count(place + 4096, place + 4096 + 1024, 0), 1024);
}

TEST(Body_ok, entries_end_on_their_length) {
  const auto extended = [](const Bytes& items, const Bytes& text) {
    return descriptor(0x4E, join({{0}, bytes("est"), {static_cast<uint8_t>(items.size())}, items, text}));
  };
  const struct {
    Bytes raw;
    bool ok;
  } cases[] = {
      {extended({1, 'd', 2, 'i'}, {0}), false},
      {extended({1}, {0}), false},
      {extended({0}, {0}), false},
      {descriptor(0x4E, {0, 'e', 's', 't', 0}), false},
      {descriptor(0x4E, {0, 'e', 's', 't', 1, 0}), false},
      {descriptor(0x4E, {}), false},
      {extended({}, {0}), true},
      {extended({1, 'd', 1, 'i', 0, 0}, {1, 't'}), true},
      {descriptor(0x5B, {'e'}), false},
      {descriptor(0x5B, {'e', 's', 't'}), false},
      {descriptor(0x5B, {'e', 's', 't', 2, 'x'}), false},
      {descriptor(0x5B, {'e', 's', 't', 1, 'x'}), true},
      {descriptor(0x5B, {}), true},
      {descriptor(0x5D, {'e', 's', 't', 0}), false},
      {descriptor(0x5D, {'e', 's', 't', 1, 'x', 1}), false},
      {descriptor(0x5D, {'e', 's', 't', 9, 'x', 1}), false},
      {descriptor(0x5D, {'e', 's', 't', 1, 'x', 1, 'y', 'e', 'n', 'g', 0, 0}), true},
      {descriptor(0x5D, {}), true},
      {descriptor(0x48, {1, 200}), true},  // other tags are always well
      {descriptor(0x06, {}), true},
  };
  for (const auto& c : cases)
    EXPECT_EQ(body_ok(*dvbsi_test::parsed<Descriptor>(c.raw)), c.ok) << testing::PrintToString(c.raw);
}

TEST(Body_ok, every_malformed_case_has_its_verdict) {
  Safe_copy copy;
  for (const dvbsi_test::Malformed& row : dvbsi_test::malformed_cases()) {
    if (row.verdict == Verdict::REFUSED)
      continue;
    EXPECT_EQ(all_bodies_ok(copy.copy(row.section.data(), row.section.size())), row.verdict == Verdict::PARSED)
        << row.legend;
  }
}

}  // namespace
