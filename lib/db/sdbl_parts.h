// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>
#include <utility>

#include "db/channel_list.h"
#include "db/connection.h"
#include "db/errors.h"
#include "db/event_cache.h"
#include "db/exports.h"
#include "db/file_room.h"
#include "db/guide.h"
#include "db/guide_events.h"
#include "db/guide_room.h"
#include "db/guide_services.h"
#include "db/one_shot.h"
#include "db/opening.h"
#include "db/scan_merge.h"
#include "db/scan_tables.h"
#include "db/schema.h"
#include "db/sdbl.h"
#include "db/service_details.h"
#include "db/statement_cache.h"
#include "db/statements.h"
#include "db/stream_details.h"
#include "db/tuner_table.h"
#include "db/tuning_table.h"
#include "db/zone.h"
#include "db/zone_table.h"

// What stands behind an Sdbl, each part after those that it uses. Inside the library, connector and delivery type
// travel as types of their own; the operations of Sdbl are where the plain numbers end.
class Sdbl::Parts {
 public:
  Parts(std::string file, Durability durability) : connection(std::move(file), durability) {}

  // What a host's tuning reads when it must not wait; see Tuner_table and Tuning_table.
  void remember_tunings() {
    tuner_table.remember();
    tunings.remember();
  }

  sdbl::Errors errors;
  sdbl::Connection connection;
  sdbl::One_shot sql{connection, errors};
  sdbl::Statement_cache cache{connection, errors};
  sdbl::Statements statements{connection, cache, errors};
  sdbl::Schema schema{connection, sql};
  sdbl::File_room room{connection, sql};
  sdbl::Opening opening{connection, sql, cache, schema};
  sdbl::Scan_tables scan_tables{connection, sql, statements, schema};
  sdbl::Channel_list channel_list{sql, statements};
  sdbl::Tuner_table tuner_table{connection, statements};
  sdbl::Tuning_table tunings{connection, statements, schema, room};
  sdbl::Stream_details stream_details{connection, sql, statements, schema};
  sdbl::Service_details service_details{connection, sql, statements, schema};
  sdbl::Zone zone{statements};
  sdbl::Zone_table zones{connection, statements, schema, room};
  sdbl::Guide_room guide_room{connection, room, statements, errors};
  sdbl::Scan_merge scan_merge{connection, sql, statements, errors, room, stream_details};
  sdbl::Event_cache event_cache;
  sdbl::Guide guide{connection, sql, statements, guide_room, errors};
  sdbl::Guide_services guide_services{statements};
  sdbl::Guide_events guide_events{connection, statements, schema, guide_room, errors};
  sdbl::Exports exports{connection, sql, guide_room};
};
