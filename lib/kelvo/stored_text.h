// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>

#include "db/programme.h"
#include "si/standard_text.h"

// Texts of the database, made fit to be shown: valid UTF-8 without control characters. With Receiver_profile::Texts::
// PLAIN they may stand there as they were broadcast, with a selector byte in front, or with two characters joined to
// one (docs/quirks.md). One thread. Not installed.
class Stored_text {
 public:
  using Lines = Text_converter::Lines;

  std::string shown(const std::string& stored, Lines lines = Lines::BLANKS);
  // All texts of an event.
  void show(Programme* event);

  // In small letters, for comparisons; `text` is UTF-8. Other letters than those of ASCII stay where the system lacks
  // the locale C.UTF-8.
  static std::string lower_case(const std::string& text);

 private:
  std::string converted(std::string text, Lines lines);

  Standard_text standard_{""};
};
