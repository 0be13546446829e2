// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <optional>

#include "base/multiplex.h"
#include "db/file_room.h"
#include "db/schema.h"
#include "db/statements.h"
#include "db/stored_zone.h"

namespace sdbl {

// The table broadcast_zone of the channel file. It exists once something has been stored; until then nothing is found,
// and nothing is printed. Any-thread.
class Zone_table {
 public:
  Zone_table(const Connection& connection, const Statements& statements, Schema& schema, File_room& room)
      : connection_(connection), statements_(statements), schema_(schema), room_(room) {}

  std::optional<Stored_zone> find(const Multiplex& multiplex) const;

  // In the place of the multiplex's last one; one that is stored already is not written. A failure, or no room for it,
  // is a warning.
  void store(const Multiplex& multiplex, const Stored_zone& zone);

 private:
  const Connection& connection_;
  const Statements& statements_;
  Schema& schema_;
  File_room& room_;
};

}  // namespace sdbl
