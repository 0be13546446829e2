// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <array>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "si/iconv_decoder.h"
#include "si/text_converter.h"

// Receiver_profile::Texts::STANDARD: all of EN 300 468, Annex A. What comes out is valid UTF-8 without control
// characters, at any length, and silently: U+FFFD stands for what no table has. Half a character at the end, where a
// text was cut, is left out. Soft hyphens and emphasis go; 0x8A, CR and LF are line breaks, a tab is a blank.
class Standard_text : public Text_converter {
 public:
  // `charset` is the table of texts that announce none, as Receiver_profile has it. One that iconv does not know is
  // reported at verbosity 0, and counts as empty.
  explicit Standard_text(const std::string& charset);
  ~Standard_text() override;

  void convert(std::string* text, Lines lines) override;
  // Reads all descriptors so far, in the order of their numbers, as one: a character may be cut by the border of two,
  // and an item without a description goes on with the one before.
  std::string add_extended(const ExtendedEventDescriptor& part, Extended_texts& so_far, EIT_lang& language) override;

 private:
  static constexpr size_t ISO_8859_TABLES = 16;
  using Upper_half = std::array<char32_t, 128>;

  // Of one text that stands in these parts.
  std::string joined(const std::vector<std::string_view>& parts, Lines lines);
  void append(std::string_view selector, std::string_view bytes, std::u32string* out);
  void append_unannounced(std::string_view bytes, std::u32string* out);
  void append_iso_8859(unsigned table, std::string_view bytes, std::u32string* out);
  void append_pairs(std::unique_ptr<Iconv_decoder>& decoder, const char* table, unsigned first, std::string_view bytes,
                    std::u32string* out);

  std::unique_ptr<Iconv_decoder> charset_;  // that the host named
  // Made when the first text needs them.
  std::array<std::unique_ptr<Upper_half>, ISO_8859_TABLES> iso8859_;
  std::unique_ptr<Iconv_decoder> korean_;
  std::unique_ptr<Iconv_decoder> chinese_;
};
