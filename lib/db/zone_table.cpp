// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/zone_table.h"

#include "base/log.h"

namespace sdbl {

std::optional<Stored_zone> Zone_table::find(const Multiplex& multiplex) const {
  Db_lock lock(connection_);  // so that the table stays
  if (!statements_.has_table("broadcast_zone"))
    return std::nullopt;
  Rows rows(statements_, __func__, 0,
            "SELECT country, region, offset_min, change_epoch, next_offset_min FROM broadcast_zone WHERE freq = $freq "
            "AND hf_conn = $hf_conn AND dvb_type = $dvb_type",
            multiplex.freq, number(multiplex.input.connector), number(multiplex.input.delivery));
  if (!rows.next())
    return std::nullopt;
  return Stored_zone{rows.text(0), rows.number(1), rows.number(2), rows.number(3), rows.number(4)};
}

void Zone_table::store(const Multiplex& multiplex, const Stored_zone& zone) {
  Db_lock lock(connection_);
  if (find(multiplex) == zone)
    return;
  if (!room_.has_room_for_a_row()) {
    KLOG(VERB_WARNING, "WARNING: The local time of %d Hz is not stored: %s\n", multiplex.freq,
         sqlite3_errstr(SQLITE_FULL));
    return;
  }
  if (!statements_.has_table("broadcast_zone") && !kelvo_log::sql_ok(schema_.create_broadcast_zone()))
    return;
  const Run run = statements_.run_silently(
      __func__, 0,
      "INSERT OR REPLACE INTO broadcast_zone (freq, hf_conn, dvb_type, country, region, offset_min, change_epoch, "
      "next_offset_min) VALUES ($freq, $hf_conn, $dvb_type, @country, $region, $offset, $change, $next)",
      multiplex.freq, number(multiplex.input.connector), number(multiplex.input.delivery), zone.country, zone.region,
      zone.offset_min, zone.change_epoch, zone.next_offset_min);
  if (!run.done)
    KLOG(VERB_WARNING, "WARNING: The local time of %d Hz is not stored: %s\n", multiplex.freq,
         sqlite3_errstr(run.code));
}

}  // namespace sdbl
