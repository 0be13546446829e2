// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <optional>

#include "db/connection.h"

namespace sdbl {

// Keeps other programs away from the channel file for several statements, so that none of them fails half-way because
// of a lock; the connection's mutex is held as long. The wait for other programs is one for all statements, and nobody
// has to wait for the connection meanwhile. REQUIRES: the thread does not hold the connection's mutex.
class File_hold {
 public:
  // Waits up to the busy time-out.
  explicit File_hold(const Connection& connection);
  ~File_hold();
  File_hold(const File_hold&) = delete;
  File_hold& operator=(const File_hold&) = delete;

  // True when another program kept the file locked all the time. A file that cannot be held for another reason, as when
  // it cannot be written, is not busy: the statements say what is wrong with it.
  bool busy() const { return busy_; }

 private:
  int take();
  void let_go();

  const Connection& connection_;
  std::optional<Db_lock> lock_;
  bool held_ = false;
  bool busy_ = false;
};

}  // namespace sdbl
