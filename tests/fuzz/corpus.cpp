// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "fuzz/corpus.h"

#include <fstream>

#include "dvbsi/samples.h"
#include "support/test.h"

namespace fuzz {

namespace {

void run(Entry entry, const support::Bytes& bytes) {
  // In a block of its own size, so that a memory checker sees every read behind it.
  const support::Bytes block(bytes);
  ASSERT_EQ(entry(block.data(), block.size()), 0);
}

}  // namespace

std::vector<support::Bytes> kept(const std::string& name) {
  std::vector<support::Bytes> all;
  std::ifstream lines(KELVO_FUZZ_CORPUS "/" + name + ".hex");
  for (std::string line; std::getline(lines, line);) {
    support::Bytes bytes;
    for (size_t i = 0; i + 1 < line.size(); i += 2)
      bytes.push_back(static_cast<uint8_t>(std::stoi(line.substr(i, 2), nullptr, 16)));
    all.push_back(bytes);
  }
  return all;
}

void PrintTo(const Named_entry& entry, std::ostream* out) {
  *out << entry.name;
}

void run_kept(const Named_entry& entry) {
  const std::vector<support::Bytes> inputs = kept(entry.name);
  EXPECT_GE(inputs.size(), 5u) << entry.name;
  dvbsi_test::Random random(20261122);
  run(entry.entry, {});
  for (const support::Bytes& input : inputs) {
    run(entry.entry, input);
    for (const size_t part : {1, 2, 3})
      run(entry.entry, support::Bytes(input.begin(), input.begin() + static_cast<long>(input.size() * part / 4)));
    for (int i = 0; i < entry.damaged && !input.empty(); ++i) {
      support::Bytes bytes = input;
      for (unsigned changes = 1 + random() % 4; changes > 0; --changes)
        bytes[random() % bytes.size()] = static_cast<uint8_t>(random());
      run(entry.entry, bytes);
    }
  }
}

}  // namespace fuzz
