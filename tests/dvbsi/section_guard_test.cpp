#include "si/section_guard.h"

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include <dvbsi++/ca_section.h>
#include <dvbsi++/event_information_section.h>
#include <dvbsi++/network_information_section.h>
#include <dvbsi++/program_map_section.h>
#include <dvbsi++/service_description_section.h>
#include <dvbsi++/time_offset_section.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "dvbsi/malformed_cases.h"
#include "dvbsi/parsed.h"
#include "dvbsi/samples.h"

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

bool bodies_ok(const DescriptorContainer& loop) {
  return std::all_of(loop.getDescriptors()->begin(), loop.getDescriptors()->end(),
                     [](const Descriptor* d) { return body_ok(*d); });
}

template <typename List>
bool bodies_of_entries_ok(const List* entries) {
  return std::all_of(entries->begin(), entries->end(), [](const auto* entry) { return bodies_ok(*entry); });
}

// Of a section that the guard lets through, with the guard's room around it.
bool all_bodies_ok(const uint8_t* section) {
  switch (section[0]) {
    case 0x01:
      return bodies_ok(ConditionalAccessSection(section));
    case 0x02: {
      const ProgramMapSection pmt(section);
      return bodies_ok(pmt) && bodies_of_entries_ok(pmt.getEsInfo());
    }
    case 0x40: {
      const NetworkInformationSection nit(section);
      return bodies_ok(nit) && bodies_of_entries_ok(nit.getTsInfo());
    }
    case 0x42:
      return bodies_of_entries_ok(ServiceDescriptionSection(section).getDescriptions());
    case 0x4E:
      return bodies_of_entries_ok(EventInformationSection(section).getEvents());
    case 0x73:
      return bodies_ok(TimeOffsetSection(section));
    default:
      ADD_FAILURE() << "table " << int{section[0]};
      return false;
  }
}

TEST(SectionProblem, size_must_be_that_of_the_section) {
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

TEST(SectionProblem, names_what_is_wrong) {
  EXPECT_STREQ(problem(support::long_section(0x42, 1, 0, {0, 1, 0xFF, 0, 5, 0xFC, 0xF0, 1, 0x52})),
               "descriptor runs past the loop of its entry");
  EXPECT_STREQ(problem(support::long_section(0x01, 1, 0, {0x7F, 0})), "empty descriptor of a kind that needs a body");
  EXPECT_STREQ(problem(support::long_section(0x01, 1, 0, {0x76, 1, 0x03})),
               "content identifier with a reserved location");
}

TEST(SectionProblem, tables_that_nobody_parses_are_not_looked_into) {
  EXPECT_EQ(problem(support::long_section(0x72, 1, 0, {0x7F, 0, 0x51, 0, 0x5E, 0})), nullptr);
  EXPECT_EQ(problem(support::long_section(0x00, 1, 0, {0x7F, 0, 0x51, 0, 0x5E, 0})), nullptr);
}

TEST(SectionProblem, every_malformed_case_has_its_verdict) {
  for (const dvbsi_test::Malformed& row : dvbsi_test::malformed_cases())
    EXPECT_EQ(problem(row.section) != nullptr, row.verdict == Verdict::REFUSED) << row.legend;
}

TEST(SectionProblem, shared_collection_has_the_verdicts_noted_in_it) {
  const std::string folder = dvbsi_test::shared_file("malformed");
  if (folder.empty())
    GTEST_SKIP() << "no shared files here";
  int skipped_bodies = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (entry.path().extension() != ".hex")
      continue;
    const std::string text = support::read_file(entry.path().string());
    Bytes section;
    for (size_t i = text.rfind('#'), end = text.size(); i < end; ++i) {  // the digits stand behind the last remark
      if (text[i] != '\n')
        continue;
      for (++i; i + 1 < end; i += text[i] == '\n' ? 1 : 2)
        if (text[i] != '\n')
          section.push_back(static_cast<uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
    }
    if (entry.path().filename().string().starts_with("short_crc"))
      section.resize(4096);
    const bool refused = text.find("guarded caller: rejected") != std::string::npos;
    const bool skipped = text.find("guarded caller: body skipped") != std::string::npos;
    EXPECT_TRUE(refused || skipped || text.find("guarded caller: parsed") != std::string::npos)
        << entry.path().filename();
    EXPECT_EQ(problem(section) != nullptr, refused) << entry.path().filename();
    if (refused)
      continue;
    Safe_copy copy;
    EXPECT_EQ(!all_bodies_ok(copy.copy(section.data(), section.size())), skipped) << entry.path().filename();
    skipped_bodies += skipped ? 1 : 0;
  }
  EXPECT_GE(skipped_bodies, 8);
}

// The reference texts say "rejected: ..." below the number of each section that a careful caller refuses.
TEST(SectionProblem, agrees_with_the_reference_texts) {
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

TEST(SafeCopy, has_room_in_front_and_zeroes_behind_every_time) {
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

TEST(SafeCopy, cuts_what_is_longer_than_a_section) {
  Safe_copy copy;
  const Bytes section(5000, 0xAB);
  const uint8_t* const place = copy.copy(section.data(), section.size());
  EXPECT_EQ(place[4095], 0xAB);
  EXPECT_EQ(std::count(place + 4096, place + 4096 + 1024, 0), 1024);
}

bool ok(const Bytes& raw) {
  const auto d = dvbsi_test::parsed<Descriptor>(raw);
  return body_ok(*d);
}

TEST(BodyOk, extended_event_items_end_on_their_length) {
  const auto extended = [](const Bytes& items, const Bytes& text) {
    return descriptor(0x4E, join({{0}, bytes("est"), {static_cast<uint8_t>(items.size())}, items, text}));
  };
  EXPECT_FALSE(ok(extended({1, 'd', 2, 'i'}, {0})));
  EXPECT_FALSE(ok(extended({1}, {0})));
  EXPECT_FALSE(ok(extended({0}, {0})));
  EXPECT_FALSE(ok(descriptor(0x4E, {0, 'e', 's', 't', 0})));
  EXPECT_FALSE(ok(descriptor(0x4E, {0, 'e', 's', 't', 1, 0})));
  EXPECT_FALSE(ok(descriptor(0x4E, {})));
  EXPECT_TRUE(ok(extended({}, {0})));
  EXPECT_TRUE(ok(extended({1, 'd', 1, 'i', 0, 0}, {1, 't'})));
}

TEST(BodyOk, names_end_on_the_length_of_the_descriptor) {
  EXPECT_FALSE(ok(descriptor(0x5B, {'e'})));
  EXPECT_FALSE(ok(descriptor(0x5B, {'e', 's', 't'})));
  EXPECT_FALSE(ok(descriptor(0x5B, {'e', 's', 't', 2, 'x'})));
  EXPECT_TRUE(ok(descriptor(0x5B, {'e', 's', 't', 1, 'x'})));
  EXPECT_TRUE(ok(descriptor(0x5B, {})));
  EXPECT_FALSE(ok(descriptor(0x5D, {'e', 's', 't', 0})));
  EXPECT_FALSE(ok(descriptor(0x5D, {'e', 's', 't', 1, 'x', 1})));
  EXPECT_FALSE(ok(descriptor(0x5D, {'e', 's', 't', 9, 'x', 1})));
  EXPECT_TRUE(ok(descriptor(0x5D, {'e', 's', 't', 1, 'x', 1, 'y', 'e', 'n', 'g', 0, 0})));
  EXPECT_TRUE(ok(descriptor(0x5D, {})));
}

TEST(BodyOk, other_tags_are_always_ok) {
  EXPECT_TRUE(ok(descriptor(0x48, {1, 200})));
  EXPECT_TRUE(ok(descriptor(0x06, {})));
}

TEST(BodyOk, every_malformed_case_has_its_verdict) {
  section_guard::Safe_copy copy;
  for (const dvbsi_test::Malformed& row : dvbsi_test::malformed_cases()) {
    if (row.verdict == Verdict::REFUSED || row.section[0] != 0x4E)
      continue;
    const EventInformationSection eit(copy.copy(row.section.data(), row.section.size()));
    bool all = true;
    for (const Event* event : *eit.getEvents())
      for (const Descriptor* d : *event->getDescriptors())
        all = all && body_ok(*d);
    EXPECT_EQ(all, row.verdict == Verdict::PARSED) << row.legend;
  }
}

}  // namespace
