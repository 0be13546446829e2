// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "dvbsi/malformed_cases.h"
#include "dvbsi/samples.h"
#include "fuzz/entries.h"
#include "support/test.h"

namespace {

using support::Bytes;

// What a fuzzer starts from: every kind of section, whole and broken.
std::vector<Bytes> corpus() {
  std::vector<Bytes> all = dvbsi_test::sample_sections();
  for (const dvbsi_test::Malformed& row : dvbsi_test::malformed_cases())
    all.push_back(row.section);
  all.push_back({});
  all.push_back({0x42, 0xF0});
  all.push_back({0x42, 0xFF, 0xFF});
  return all;
}

// The entry aborts, and so does a memory checker, when something is read outside the section.
TEST(Section_fuzz, entry_bears_the_corpus_its_beginnings_and_damage) {
  dvbsi_test::Random random(20240613);
  size_t runs = 0;
  for (const Bytes& seed : corpus()) {
    ASSERT_EQ(fuzz::section(seed.data(), seed.size()), 0);
    for (size_t size = 0; size < std::min<size_t>(seed.size(), 64); ++size, ++runs)
      ASSERT_EQ(fuzz::section(seed.data(), size), 0);
    for (int i = 0; i < 40 && seed.size() >= 8; ++i, ++runs) {
      const Bytes bytes = dvbsi_test::damaged(seed, random);
      ASSERT_EQ(fuzz::section(bytes.data(), bytes.size()), 0);
    }
    for (int i = 0; i < 40; ++i, ++runs) {  // damage that nothing mends afterwards
      Bytes bytes = seed;
      for (uint8_t& byte : bytes)
        if (random() % 16 == 0)
          byte = static_cast<uint8_t>(random());
      ASSERT_EQ(fuzz::section(bytes.data(), bytes.size()), 0);
    }
  }
  EXPECT_GT(runs, 5000u);
}

}  // namespace
