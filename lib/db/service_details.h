// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <map>
#include <vector>

#include "db/channel_row.h"
#include "db/schema.h"
#include "db/statements.h"

namespace sdbl {

// The table service_detail of the channel file: what the air says of a service beside the columns of kanalid. It exists
// once something has been stored; until then nothing is found, and nothing is printed. Any-thread.
class Service_details {
 public:
  Service_details(const Connection& connection, One_shot& sql, const Statements& statements, Schema& schema)
      : connection_(connection), sql_(sql), statements_(statements), schema_(schema) {}

  // By channel.
  std::map<int, Channel_row::Detail> all() const;

  // False, printed, when it could not be written.
  bool store(int channel, const Channel_row::Detail& detail);
  bool remove(int channel);

 private:
  const Connection& connection_;
  One_shot& sql_;
  const Statements& statements_;
  Schema& schema_;
};

}  // namespace sdbl
