// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>

#include "softdvb/mux/json_node.h"

namespace softdvb_mux {

// The language and the character table of texts that do not name their own.
struct Text_defaults {
  std::string charset = "iso6937";
  std::string language = "eng";

  // `charset` and `language` of an object override those of the object around it.
  Text_defaults inside(const Json_node& node) const;
};

// Says in `problem` why a text cannot be written in that table; "" when it can.
// `charset` is one of charset_names(); control codes U+0086, U+0087 and U+008A (EN 300 468, A.1) keep their meaning in
// every table, a line feed is written as U+008A.
Bytes encode_text(const std::string& utf8, const std::string& charset, std::string* problem);

// A text as it stands in a description: "text", {"text": .., "charset": ..} or {"hex": ..}.
Bytes read_text(const Json_node& node, const Text_defaults& defaults, size_t max_bytes);

}  // namespace softdvb_mux
