// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "fuzz/corpus.h"
#include "support/test.h"

namespace {

class Inside : public testing::TestWithParam<fuzz::Named_entry> {};

TEST_P(Inside, entry_bears_what_is_kept_and_its_damage) {
  fuzz::run_kept(GetParam());
}

INSTANTIATE_TEST_SUITE_P(, Inside,
                         testing::Values(fuzz::Named_entry{"siparse", fuzz::siparse, 3},
                                         fuzz::Named_entry{"text", fuzz::text},
                                         fuzz::Named_entry{"tuner_line", fuzz::tuner_line}),
                         testing::PrintToStringParamName());

}  // namespace
