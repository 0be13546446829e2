// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <memory>
#include <string>

#include "si/text_converter.h"

struct Receiver_profile;

// Turns DVB texts (EN 300 468, Annex A) into UTF-8; Siparse::dvb_text_to_utf8() has the contract. One thread at a time.
class Dvb_text {
 public:
  using Lines = Text_converter::Lines;

  // As Receiver_profile::Texts::PLAIN. Prints an error for each table that iconv does not know.
  Dvb_text();
  // From now on as `profile` says. Before-start.
  void read_as(const Receiver_profile& profile);

  // In place.
  void convert(std::string* text, Lines lines = Lines::BLANKS) { way_->convert(text, lines); }
  // A copy.
  std::string utf8(std::string text, Lines lines = Lines::BLANKS) {
    convert(&text, lines);
    return text;
  }

  // Of an extended event descriptor; see Text_converter.
  std::string add_extended(const ExtendedEventDescriptor& part, Extended_texts& so_far, EIT_lang& language) {
    return way_->add_extended(part, so_far, language);
  }

 private:
  std::unique_ptr<Text_converter> way_;
};
