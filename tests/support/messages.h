// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "support/support.h"
#include "support/test.h"
#include "support/verbosity.h"

// What the library prints, by verbosity. Each of these sets the verbosity while an action runs and puts it back.
namespace support {

// What `action` writes to standard error at this verbosity.
template <typename Action>
std::string messages_at(int level, Action&& action) {
  const Verbosity verbosity(level);
  return stderr_of(std::forward<Action>(action));
}

// EXPECT_THAT([&] { sdbl.merge(); }, prints_at(1, "WARNING: ...\n")): what the action prints at `level` is this text,
// or fulfils this matcher.
MATCHER_P2(prints_at, level, text,
           std::string(negation ? "does not print" : "prints") + " at " + std::to_string(level) + " what " +
               testing::DescribeMatcher<std::string>(text)) {
  const std::string printed = messages_at(level, arg);
  *result_listener << "at " << level << " it prints " << testing::PrintToString(printed);
  return testing::Matches(testing::SafeMatcherCast<const std::string&>(text))(printed);
}

// The same, and one level below the action prints nothing. The action runs twice, first at the lower level: for one
// that cannot be repeated, compare messages_at() of two fresh objects.
MATCHER_P2(prints_only_from, level, text,
           std::string(negation ? "does not print" : "prints") + " only from " + std::to_string(level) + " what " +
               testing::DescribeMatcher<std::string>(text)) {
  const std::string below = messages_at(level - 1, arg);
  const std::string printed = messages_at(level, arg);
  *result_listener << "at " << level - 1 << " it prints " << testing::PrintToString(below) << ", at " << level << " "
                   << testing::PrintToString(printed);
  return below.empty() && testing::Matches(testing::SafeMatcherCast<const std::string&>(text))(printed);
}

}  // namespace support
