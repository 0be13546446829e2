// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "dvbsi/malformed_cases.h"
#include "dvbsi/samples.h"
#include "fuzz/entries.h"
#include "support/test.h"

namespace {

using support::Bytes;

// The byte that the entry wants before a section: the PID of its table, one of the four states, and one of the
// receivers.
uint8_t heading(const Bytes& section, unsigned state_and_profile) {
  const unsigned id = section.empty() ? 0 : section[0];
  const unsigned pid = id < 3 ? id : id < 0x42 ? 3 : id < 0x4E ? 4 : id < 0x70 ? 5 : 6;
  return static_cast<uint8_t>(pid | (state_and_profile & 0x0F) << 3);
}

// A memory checker sees what is read outside a section; the entry itself returns.
TEST(Siparse_fuzz, entry_bears_the_corpus_and_its_damage) {
  std::vector<Bytes> corpus = dvbsi_test::sample_sections();
  for (const dvbsi_test::Malformed& row : dvbsi_test::malformed_cases())
    corpus.push_back(row.section);
  dvbsi_test::Random random(20241121);
  size_t sections = 0;
  for (int round = 0; round < 60; ++round) {
    Bytes input;
    for (const Bytes& seed : corpus) {
      Bytes section = round > 0 && seed.size() >= 8 ? dvbsi_test::damaged(seed, random) : seed;
      input.push_back(heading(section, static_cast<unsigned>(round)));
      input.insert(input.end(), section.begin(), section.end());
      ++sections;
      if (sections % 7 == 0)  // a step of the worker's
        input.push_back(static_cast<uint8_t>(0x80 | random() % 0x80));
    }
    ASSERT_EQ(fuzz::siparse(input.data(), input.size()), 0);
    for (int i = 0; i < 20; ++i)
      input[random() % input.size()] = static_cast<uint8_t>(random());
    ASSERT_EQ(fuzz::siparse(input.data(), input.size()), 0);
  }
  for (size_t size = 0; size < 8; ++size)
    ASSERT_EQ(fuzz::siparse(corpus[0].data(), size), 0);
  EXPECT_GT(sections, 1000u);
}

}  // namespace
