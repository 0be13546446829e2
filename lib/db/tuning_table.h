// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <map>
#include <optional>
#include <tuple>
#include <vector>

#include "base/multiplex.h"
#include "base/mutex.h"
#include "db/file_room.h"
#include "db/schema.h"
#include "db/statements.h"
#include "db/stored_tuning.h"

namespace sdbl {

// The table tuned_multiplex of the channel file. It exists once something has been stored; until then nothing is found,
// and nothing is printed. The file may have been written by anybody: a row with a value that no multiplex can have is
// not found either. Any-thread.
class Tuning_table {
 public:
  Tuning_table(const Connection& connection, const Statements& statements, Schema& schema, File_room& room)
      : connection_(connection), statements_(statements), schema_(schema), room_(room) {}

  // The tuning of one multiplex, by the frequency that it is known by. Nothing, printed, when the file cannot be read.
  std::optional<Stored_tuning> find(const Multiplex& key) const;

  // All that locked on a frequency asked for, pipes in ascending order. Less or nothing, printed, when the file cannot
  // be read.
  std::vector<Stored_tuning> at(const Input& input, int asked_freq) const;

  // Stores a tuning, in the place of the one with its key. False, with a warning, when there is no room, it could not
  // be written or is one that find() would not believe; what was stored stays then.
  bool store(const Input& input, const Stored_tuning& tuning);

  // find() and store() for threads that must not wait. While other statements or programs keep the table, what was read
  // or stored last is found, and what is stored waits for save_at_once(), which is to be called now and then.
  std::optional<Stored_tuning> find_at_once(const Multiplex& key);
  void store_at_once(const Input& input, const Stored_tuning& tuning);
  void save_at_once();

  // Reads the whole table for find_at_once(), unless it would have to wait. Prints nothing.
  void remember();

 private:
  using Key = std::tuple<int, int, int>;  // freq, hf_conn and dvb_type
  static Key key_of(const Input& input, int freq);
  void read_all();
  // True when it is written, or never will be, which is printed.
  bool write_at_once(const Key& key, const Stored_tuning& tuning);

  const Connection& connection_;
  const Statements& statements_;
  Schema& schema_;
  File_room& room_;

  Mutex lock_{Lock_rank::DATABASE_LEAF, "tunings as read last"};  // guards the following; a leaf
  std::map<Key, Stored_tuning> read_;
  std::map<Key, Stored_tuning> unsaved_;
};

}  // namespace sdbl
