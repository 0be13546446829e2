// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <array>
#include <map>
#include <vector>

#include "base/multiplex.h"
#include "db/schema.h"
#include "db/statements.h"
#include "db/stream_detail.h"

namespace sdbl {

// The tables stream_detail, stream_language and stream_ca of the channel file. They exist once something has been
// stored; until then nothing is found, and nothing is printed. What a scan reads is kept here, by adapter, until it is
// merged. found(), clear(), any() and store() are for the worker of the adapter; read() is any-thread.
class Stream_details {
 public:
  Stream_details(const Connection& connection, One_shot& sql, const Statements& statements, Schema& schema)
      : connection_(connection), sql_(sql), statements_(statements), schema_(schema) {}

  // What the PMT of a programme says; the last one counts. An adapter outside 0 to 3 is not kept.
  void found(int adapter, int program, Programme_streams streams);
  void clear(int adapter);
  bool any(int adapter) const;

  // Behind a merge, which gives the services their numbers: what was found takes the place of what is stored. Services
  // of which nothing was found stay as they are. Returns how many services had other details before; new ones count.
  int store(int adapter, const Multiplex& multiplex);

  // What is stored of a channel; empty without anything.
  Programme_streams read(int channel) const;

 private:
  struct Change {
    int channel;
    const Programme_streams* streams;
  };

  bool exists() const;
  std::vector<Change> changes(const std::map<int, Programme_streams>& found, const Multiplex& multiplex) const;
  void write(const std::vector<Change>& changes);

  const Connection& connection_;
  One_shot& sql_;
  const Statements& statements_;
  Schema& schema_;
  std::array<std::map<int, Programme_streams>, 4> found_;  // by adapter and programme number
};

}  // namespace sdbl
