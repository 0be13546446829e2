// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>

class ExtendedEventDescriptor;
struct EIT_lang;
struct Extended_texts;

// One of the ways of Receiver_profile::Texts to turn DVB texts (EN 300 468, Annex A) into UTF-8. One thread at a time.
class Text_converter {
 public:
  // What becomes of the line breaks of a text, where control codes are known.
  enum class Lines {
    BLANKS,  // names and items, which stand in a line
    KEPT,    // descriptions: a line feed
  };

  virtual ~Text_converter() = default;
  Text_converter(const Text_converter&) = delete;
  Text_converter& operator=(const Text_converter&) = delete;

  // In place.
  virtual void convert(std::string* text, Lines lines) = 0;

  // One more extended event descriptor of a language: fills the long text, the list and the items of `language` from it
  // and from what `so_far` keeps of those before it. Returns the text for the trace.
  virtual std::string add_extended(const ExtendedEventDescriptor& part, Extended_texts& so_far, EIT_lang& language) = 0;

 protected:
  Text_converter() = default;

  // A copy.
  std::string utf8(std::string text, Lines lines) {
    convert(&text, lines);
    return text;
  }
};
