// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/scan_merger.h"

#include "db/refresh.h"
#include "db/sdbl_parts.h"

namespace sdbl {

namespace {

class Plain_merger : public Scan_merger {
 public:
  explicit Plain_merger(Sdbl& database) : database_(database) {}

  Merge_end merge(int dvbnr, const Multiplex& multiplex, SCAN_STATE state, const Scan_details&,
                  std::vector<Channel_change>* changes) override {
    changes->clear();
    return database_.parts().scan_merge.run(dvbnr, multiplex, state);
  }

 private:
  Sdbl& database_;
};

class Refresh_merger : public Scan_merger {
 public:
  explicit Refresh_merger(Sdbl::Parts& database) : database_(database) {}

  Merge_end merge(int dvbnr, const Multiplex& multiplex, SCAN_STATE state, const Scan_details& details,
                  std::vector<Channel_change>* changes) override {
    return Refresh(database_, dvbnr, multiplex).run(state, details, changes);
  }

 private:
  Sdbl::Parts& database_;
};

}  // namespace

std::unique_ptr<Scan_merger> make_scan_merger(Sdbl& database, bool refresh) {
  if (refresh)
    return std::make_unique<Refresh_merger>(database.parts());
  return std::make_unique<Plain_merger>(database);
}

}  // namespace sdbl
