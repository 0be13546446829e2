// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <stdexcept>

#include "base/export.h"

// A database file cannot be opened. The only exception that the library throws of its own: by the constructor of Sdbl,
// by Sdbl::open_db and by Sdbl::backup_channel_database.
class KELVO_EXPORT no_file_error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};
