// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "kelvo/now_and_next.h"

#include <optional>
#include <utility>

#include "db/connection.h"
#include "db/lookup.h"
#include "db/sdbl.h"
#include "db/sdbl_parts.h"
#include "kelvo/stored_text.h"

bool Now_and_next::read(int channel, const std::vector<std::string>& languages, int64_t at, Now_next* out) const {
  const Sdbl::Parts& parts = database_->parts();
  Now_next found;
  if (!sdbl::Lookup(parts.connection, parts.statements).now_and_next(channel, languages, at, &found))
    return false;
  Stored_text text;
  for (std::optional<Programme>* event : {&found.now, &found.next})
    if (event->has_value())
      text.show(&**event);
  *out = std::move(found);
  return true;
}

bool Now_and_next::read(int channel, const std::vector<std::string>& languages, Now_next* out) const {
  return read(channel, languages, sdbl::clock_now(), out);
}
