// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "fuzz/corpus.h"
#include "support/test.h"

namespace {

class Outside : public testing::TestWithParam<fuzz::Named_entry> {};

TEST_P(Outside, entry_bears_what_is_kept_and_its_damage) {
  fuzz::run_kept(GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    , Outside,
    testing::Values(fuzz::Named_entry{"section", fuzz::section}, fuzz::Named_entry{"descriptor", fuzz::descriptor},
                    fuzz::Named_entry{"packets", fuzz::packets}, fuzz::Named_entry{"description", fuzz::description, 5},
                    fuzz::Named_entry{"trace", fuzz::trace}, fuzz::Named_entry{"database", fuzz::database, 1},
                    fuzz::Named_entry{"imports", fuzz::imports}),
    testing::PrintToStringParamName());

}  // namespace
