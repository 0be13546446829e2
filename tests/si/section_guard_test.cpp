// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// What is refused before a section's class sees it, and which bodies of descriptors are believed.
#include "si/section_guard.h"

#include <dvbsi++/descriptor.h>

#include "si/si_support.h"

using namespace si_support;
using namespace tag;

namespace {

std::string problem(const Bytes& section) {
  const char* text = section_guard::section_problem(section.data(), section.size());
  return text == nullptr ? "none" : text;
}

constexpr char PASSES[] = "descriptor runs past the loop of its entry";
constexpr char EMPTY[] = "empty descriptor of a kind that needs a body";
constexpr char RESERVED[] = "content identifier with a reserved location";

TEST(Section_guard, looks_into_the_loop_of_every_entry) {
  const struct {
    const char* what;
    Bytes loop;
    const char* problem;
  } cases[] = {
      {"no descriptor", {}, "none"},
      {"a descriptor without a body", {STUFFING, 0}, "none"},
      {"two descriptors", {STUFFING, 1, 7, STUFFING, 0}, "none"},
      {"one byte", {STUFFING}, PASSES},
      {"one byte behind a descriptor", {STUFFING, 1, 7, STUFFING}, PASSES},
      {"a body one byte short", {STUFFING, 2, 7}, PASSES},
      {"linkage to a hand-over, cut", {LINKAGE, 9, 0, 0, 0, 0, 0, 0, 8, 0x11}, PASSES},
      {"linkage to a hand-over, whole", {LINKAGE, 8, 0, 0, 0, 0, 0, 0, 8, 0x11}, "none"},
      {"mosaic without a body", {MOSAIC, 0}, EMPTY},
      {"multilingual component without a body", {MULTILINGUAL_COMPONENT, 0}, EMPTY},
      {"extension without a body", {EXTENSION, 0}, EMPTY},
      {"extension", {EXTENSION, 1, 0}, "none"},
      {"identifier of its own", {CONTENT_IDENTIFIER, 3, 0x04, 1, 'a'}, "none"},
      {"identifier by reference", {CONTENT_IDENTIFIER, 3, 0x05, 0, 1}, "none"},
      {"identifier with location 2", {CONTENT_IDENTIFIER, 3, 0x06, 0, 1}, RESERVED},
      {"identifier with location 3 behind another", {CONTENT_IDENTIFIER, 6, 0x05, 0, 1, 0x07, 0, 1}, RESERVED},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(problem(pmt(1, 0x101, {{2, 0x101, c.loop}, {3, 0x102}})), c.problem);
    EXPECT_EQ(problem(sdt({{1, c.loop}, {2}})), c.problem);
    EXPECT_EQ(problem(nit(1, {}, {{TS_ID, 0x20, c.loop}, {TS_ID, 0x21}})), c.problem);
    EXPECT_EQ(problem(eit(1, table::EIT_PRESENT_FOLLOWING, {{1, 0x120000, 0x003000, c.loop}, {2, 0x123000}})),
              c.problem);
  }
}

TEST(Section_guard, looks_for_endless_descriptors_in_outer_loops_too_and_lets_them_end_where_they_like) {
  const struct {
    const char* what;
    Bytes loop;
    const char* problem;
  } cases[] = {
      {"whole", {STUFFING, 1, 7}, "none"},
      {"one byte", {STUFFING}, "none"},
      {"endless", {MOSAIC, 0}, EMPTY},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(problem(pmt(1, 0x101, {}, c.loop)), c.problem);
    EXPECT_EQ(problem(nit(1, c.loop, {})), c.problem);
    EXPECT_EQ(problem(cat(c.loop)), c.problem);
    EXPECT_EQ(problem(tot(55197, 0x120000, c.loop)), c.problem);
  }
}

TEST(Section_guard, compares_the_size_with_the_section_s_own_length) {
  Bytes section = sdt({});
  section.push_back(0);
  EXPECT_EQ(problem(section), "length does not agree with section_length");
  EXPECT_EQ(problem({table::TDT, 0x70, 0x04, 0, 0, 0, 0}), "shorter than 8 bytes");
}

TEST(Section_guard, believes_bodies_whose_lengths_add_up) {
  const Bytes est = bytes("est");
  const struct {
    const char* what;
    int tag;
    Bytes body;
    bool ok;
  } cases[] = {
      {"event without items", EXTENDED_EVENT, join({{0}, est, {0, 0}}), true},
      {"event with an item", EXTENDED_EVENT, join({{0}, est, {4, 1, 'D', 1, 'I', 0}}), true},
      {"event with an item of two empty texts", EXTENDED_EVENT, join({{0}, est, {2, 0, 0, 0}}), true},
      {"event with an item loop of one byte", EXTENDED_EVENT, join({{0}, est, {1, 0, 0}}), false},
      {"event with an item loop of one byte that is a length", EXTENDED_EVENT, join({{0}, est, {1, 1, 0}}), false},
      {"event with one byte behind an item", EXTENDED_EVENT, join({{0}, est, {5, 1, 'D', 1, 'I', 0, 0}}), false},
      {"event whose items end with the body", EXTENDED_EVENT, join({{0}, est, {2, 0, 0}}), false},
      {"event without a body", EXTENDED_EVENT, {}, false},
      {"network names without a body", MULTILINGUAL_NETWORK_NAME, {}, true},
      {"network name", MULTILINGUAL_NETWORK_NAME, join({est, sized("N")}), true},
      {"network name and one byte", MULTILINGUAL_NETWORK_NAME, join({est, sized("N"), {'r'}}), false},
      {"network name without its length", MULTILINGUAL_NETWORK_NAME, est, false},
      {"service names", MULTILINGUAL_SERVICE_NAME, join({est, sized("P"), sized("")}), true},
      {"service names with the provider's alone", MULTILINGUAL_SERVICE_NAME, join({est, sized("P")}), false},
      {"another tag", SERVICE, {1, 200}, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const Bytes raw = descriptor(c.tag, c.body);
    EXPECT_EQ(section_guard::body_ok(Descriptor(raw.data())), c.ok);
  }
}

TEST(Safe_copy, has_zeroes_behind_every_section) {
  section_guard::Safe_copy copy;
  const Bytes longer(100, 0xFF);
  const Bytes shorter(10, 0xEE);
  (void)copy.copy(longer.data(), longer.size());
  const uint8_t* const at = copy.copy(shorter.data(), shorter.size());
  EXPECT_EQ(Bytes(at, at + 10), shorter);
  EXPECT_EQ(Bytes(at + 10, at + 1034), Bytes(1024, 0));
}

}  // namespace
