// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// DVB text to UTF-8 (EN 300 468, Annex A), as far as iconv goes.
#include "si/plain_text.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include <dvbsi++/extended_event_descriptor.h>

#include "base/log.h"
#include "si/eit_lang.h"
#include "si/extended_texts.h"

namespace {

// UTF-8 takes at most four bytes for one of input, and the output lives on the stack.
constexpr size_t GROWTH = 4;
constexpr size_t LONGEST_OUTPUT = 8000;

constexpr size_t NO_TABLE = 12;  // there is no ISO-8859-12

// What iconv_open() answers when it fails.
iconv_t invalid_converter() {
  return reinterpret_cast<iconv_t>(static_cast<intptr_t>(-1));
}

bool is_valid(iconv_t converter) {
  return converter != invalid_converter();
}

void close_converter(iconv_t converter) {
  if (is_valid(converter))
    (void)iconv_close(converter);
}

iconv_t open_converter(const char* from) {
  const iconv_t converter = iconv_open("UTF-8", from);
  // Deliberate: these two are reported in other words than those of ISO 8859.
  if (!is_valid(converter))
    KLOG(VERB_ERROR, "ERROR: Cannot set conversion from %s to UTF-8, %s\n", from, std::strerror(errno));
  return converter;
}

// EN 300 468, A.1: of the table without a selector, the first half of a letter with an accent.
bool ends_in_accent(const std::string& text) {
  const auto last = static_cast<unsigned char>(text.back());
  return static_cast<unsigned char>(text.front()) >= 0x20 && last >= 0xC1 && last <= 0xCF;
}

}  // namespace

Plain_text::Plain_text() {
  for (size_t n = 1; n <= ISO_8859_TABLES; ++n) {
    iconv_t& converter = iso8859_[n - 1];
    converter = invalid_converter();
    if (n == NO_TABLE)
      continue;
    char from[16];
    (void)std::snprintf(from, sizeof from, "ISO-8859-%1d", static_cast<int>(n));
    converter = iconv_open("UTF-8", from);
    if (!is_valid(converter))
      KLOG(VERB_ERROR, "ERROR: Cannot set conversion %s to UTF-8, %s\n", from, std::strerror(errno));
  }
  iso6937_ = open_converter("ISO6937");
  iso10646_ = open_converter("10646-1:1993");
}

Plain_text::~Plain_text() {
  for (const iconv_t converter : iso8859_)
    close_converter(converter);
  close_converter(iso6937_);
  close_converter(iso10646_);
}

Plain_text::Choice Plain_text::choose(unsigned selector, size_t length, unsigned second, unsigned third) const {
  if (selector >= 0x20) {
    KLOG(VERB_TRACE, "6937\n");
    return {Way::CONVERTED, iso6937_, 0, selector};
  }
  if (selector <= 0x0B) {
    KLOG(VERB_TRACE, "short list iso8859-%d\n", static_cast<int>(selector) + 4);
    // Deliberate: an error names the table less one.
    return {Way::CONVERTED, iso8859_[selector + 4 - 1], 1, selector + 3};
  }
  switch (selector) {
    case 0x10: {
      const int table = static_cast<signed char>(third);  // NOLINT(bugprone-signed-char-misuse)
      KLOG(VERB_TRACE, "long list iso8859-%d\n", table);
      if (table >= 1 && table <= 15)
        return {Way::CONVERTED, iso8859_[static_cast<size_t>(table) - 1], 3, selector};
      KLOG(VERB_ERROR, "ERROR: Incorrect index in text long list conversion %d.%d", static_cast<int>(second), table);
      return {Way::UNSUPPORTED, invalid_converter(), 3, selector};
    }
    case 0x11:
      KLOG(VERB_TRACE, "iso10646-1\n");
      return {Way::CONVERTED, iso10646_, 1, selector};
    case 0x12:
      KLOG(VERB_WARNING, "WARNING: Korean charset not supported\n");
      break;
    case 0x13:
      KLOG(VERB_WARNING, "WARNING: Simplified Chinese chipset not supported\n");
      break;
    case 0x14:
      KLOG(VERB_WARNING, "WARNING: Traditional Chinese not supported\n");
      break;
    case 0x15:
      KLOG(VERB_TRACE, " UTF-8\n");
      return {Way::COPIED, invalid_converter(), 1, selector};
    case 0x1F:
      KLOG(VERB_ERROR, "ERROR: %d bytes to ETSI TR 101 162 specific encoding(type 0x1f) %x not supported\n",
           static_cast<int>(length), second);
      break;
    default:
      KLOG(VERB_ERROR, "ERROR:  %d bytes to Unknown decoding %x\n", static_cast<int>(length), selector);
      return {Way::REFUSED, invalid_converter(), 0, selector};
  }
  return {Way::UNSUPPORTED, invalid_converter(), 0, selector};
}

void Plain_text::convert(std::string* text, Lines) {
  const size_t length = text->size();
  if (length * GROWTH > LONGEST_OUTPUT) {
    KLOG(VERB_ERROR, "ERROR: String legth too large %d\n", static_cast<int>(length));
    return;
  }
  const auto byte = [&](size_t i) { return i < length ? static_cast<unsigned char>((*text)[i]) : 0u; };
  const unsigned selector = byte(0);
  if (selector == 0) {
    KLOG(VERB_WARNING, "WARNING: String input size 0 in dvb_text_to_utf8\n");
    return;
  }
  KLOG(VERB_TRACE, "converting %d input", static_cast<int>(length));

  const Choice choice = choose(selector, length, byte(1), byte(2));
  if (choice.way == Way::REFUSED)
    return;

  char output[LONGEST_OUTPUT];
  const size_t start = std::min(choice.start, length);
  char* in = text->data() + start;
  char* out = output;
  size_t in_left = length - start;
  const size_t in_size = in_left;
  size_t out_left = length * GROWTH;
  size_t result = 0;
  errno = 0;
  if (choice.way == Way::CONVERTED && in_left != 0) {
    if (is_valid(choice.converter)) {
      (void)iconv(choice.converter, nullptr, nullptr, nullptr, nullptr);
      result = iconv(choice.converter, &in, &in_left, &out, &out_left);
    } else {
      errno = EBADF;
      result = static_cast<size_t>(-1);
    }
  }
  // Deliberate: text that says it is UTF-8 is copied without counting as consumed, so it ends in the error below.
  if (choice.way != Way::UNSUPPORTED && result == 0 && in_left == 0) {
    text->assign(output, static_cast<size_t>(out - output));
    return;
  }
  const int error = errno;
  KLOG(VERB_ERROR, "ERROR: Conversion error: dvb_string_type %d, converted %x,  ret code %d, offending char %c\n",
       static_cast<int>(choice.reported), static_cast<unsigned>(in_size - in_left), static_cast<int>(result),
       in_left != 0 ? static_cast<unsigned char>(*in) : 0);
  if (kelvo_log::enabled(VERB_ERROR)) {
    errno = error;
    kelvo_log::print_errno("dvb_text_to_utf8:");
  }
}

std::string Plain_text::add_extended(const ExtendedEventDescriptor& part, Extended_texts& so_far, EIT_lang& language) {
  for (const ExtendedEvent* entry : *part.getItems()) {
    std::string description = utf8(entry->getItemDescription(), Lines::BLANKS);
    std::string item = utf8(entry->getItem(), Lines::BLANKS);
    // Deliberate: the description stands twice, and a comma follows the last item, too.
    language.ext_list += description + description + ":" + item + ",";
    language.items.emplace_back(std::move(description), std::move(item));
  }
  std::string text = part.getText();
  if (text.empty())
    return text;
  if (!so_far.torn.empty() && static_cast<unsigned char>(text.front()) >= 0x20) {
    language.ext_desc.resize(so_far.torn_at);
    text.insert(0, 1, so_far.torn.back());
    so_far.torn.pop_back();
    if (!so_far.torn.empty())
      language.ext_desc += utf8(so_far.torn, Lines::KEPT);
  }
  so_far.torn.clear();
  // Stays as broadcast when nothing follows.
  if (part.getDescriptorNumber() < part.getLastDescriptorNumber() && ends_in_accent(text)) {
    so_far.torn = text;
    so_far.torn_at = language.ext_desc.size();
  } else {
    convert(&text, Lines::KEPT);
  }
  language.ext_desc += text;
  return text;
}
