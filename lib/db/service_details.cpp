// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/service_details.h"

#include "base/log.h"

using kelvo_log::sql_ok;

namespace sdbl {

std::map<int, Channel_row::Detail> Service_details::all() const {
  std::map<int, Channel_row::Detail> details;
  Db_lock lock(connection_);  // so that the table stays
  if (!statements_.has_table("service_detail"))
    return details;
  Rows rows(statements_, __func__, 0,
            "SELECT channel, lcn, hd_lcn, visible, eit_schedule, eit_present_following, set_aside, list_name FROM "
            "service_detail");
  while (rows.next())
    details[rows.number(0)] = {rows.number(1), rows.number(2), rows.number(3), rows.number(4),
                               rows.number(5), rows.number(6), rows.text(7)};
  return details;
}

bool Service_details::store(int channel, const Channel_row::Detail& d) {
  Db_lock lock(connection_);
  if (!statements_.has_table("service_detail") && !sql_ok(schema_.create_service_detail()))
    return false;
  return sql_ok(sql_.exec(__func__,
                          "INSERT OR REPLACE INTO service_detail (channel, lcn, hd_lcn, visible, eit_schedule, "
                          "eit_present_following, set_aside, list_name) VALUES (%d, %d, %d, %d, %d, %d, %d, %Q);",
                          channel, d.lcn, d.hd_lcn, d.visible, d.eit_schedule, d.eit_present_following, d.set_aside,
                          d.list_name));
}

bool Service_details::remove(int channel) {
  Db_lock lock(connection_);
  return !statements_.has_table("service_detail") ||
         sql_ok(sql_.exec(__func__, "DELETE FROM service_detail WHERE channel = %d;", channel));
}

}  // namespace sdbl
