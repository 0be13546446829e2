// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "base/messages.h"

namespace support {

// The library's verbosity during the life of this object.
class Verbosity {
 public:
  explicit Verbosity(int level) : before_(verbosity_kelvo.exchange(level)) {}
  ~Verbosity() { verbosity_kelvo = before_; }
  Verbosity(const Verbosity&) = delete;
  Verbosity& operator=(const Verbosity&) = delete;

 private:
  const int before_;
};

}  // namespace support
