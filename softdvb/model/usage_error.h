// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <stdexcept>

namespace softdvb {

// A wrong option, configuration or control line; what() says where and what is wrong.
class Usage_error : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

}  // namespace softdvb
