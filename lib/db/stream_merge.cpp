// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/stream_merge.h"

#include <utility>
#include <vector>

#include "base/log.h"
#include "db/channel_row.h"

namespace sdbl {

void Stream_merge::renumber(int from, int to) {
  statements_.run(MERGE_OPERATION, dvbnr_,
                  "UPDATE estreams_scan_DVBNR SET channel = $oid_db where channel = $oid_scan;", to, from);
}

void Stream_merge::run() {
  KLOG(VERB_PROGRESS, "Master update PMT\n");
  std::vector<int> channels;
  Rows rows(statements_, MERGE_OPERATION, dvbnr_,
            "SELECT channel FROM kanalid WHERE hf_conn = $hfc AND dvb_type = $dvbt AND freq = "
            "$freq AND row_status != $rowstat;",
            number(multiplex_.input.connector), number(multiplex_.input.delivery), multiplex_.freq, ROW_OLD);
  while (rows.next())
    channels.push_back(rows.number(0));
  rows.end();
  statements_.run(MERGE_OPERATION, dvbnr_, "UPDATE estreams_scan_DVBNR SET row_status = $row_status", ROW_NEW);
  for (const int channel : channels)
    merge_channel(channel);

  if (added_ != 0 || deleted_ != 0) {
    KLOG(VERB_INFO, "estreams modified, reindexing");
    statements_.run(MERGE_OPERATION, dvbnr_, "REINDEX estreams");
  }
}

void Stream_merge::merge_channel(int channel) {
  KLOG(VERB_PROGRESS, "Streams for ch %d (Scan = Main): ", channel);
  statements_.run(MERGE_OPERATION, dvbnr_, "UPDATE estreams  SET row_status = $row_status where channel = $channel;",
                  ROW_OLD, channel);

  std::vector<std::pair<int, int>> equal;  // scan row, master row
  Rows rows(statements_, MERGE_OPERATION, dvbnr_,
            "SELECT s.oid, e.oid FROM  estreams e, estreams_scan_DVBNR s WHERE e.es_pid = s.es_pid AND e.es_type = "
            "s.es_type AND e.es_subtype = s.es_subtype AND e.codec = s.codec AND e.languages = s.languages AND "
            "e.lang_codes = s.lang_codes AND e.p1 = s.p1 AND e.p2 = s.p2 AND e.ca_sysid = s.ca_sysid AND e.ca_pid = "
            "s.ca_pid AND e.channel = $oid1 and s.channel = $oid2",
            channel, channel);
  while (rows.next())
    equal.emplace_back(rows.number(0), rows.number(1));
  rows.end();
  for (const auto& [scan_row, master_row] : equal) {
    KLOG(VERB_PROGRESS, "%d = ", scan_row);
    KLOG(VERB_PROGRESS, "%d ", master_row);
    statements_.run(MERGE_OPERATION, dvbnr_, "UPDATE estreams_scan_DVBNR SET row_status = $row_status where OID = $oid",
                    ROW_CONFIRMED, scan_row);
    statements_.run(MERGE_OPERATION, dvbnr_, "UPDATE estreams SET row_status = $row_status where OID = $oid",
                    ROW_CONFIRMED, master_row);
  }
  KLOG(VERB_PROGRESS, "\n");

  const Run inserted = statements_.run(
      MERGE_OPERATION, dvbnr_,
      "INSERT INTO estreams SELECT * from estreams_scan_DVBNR where row_status = $row_status and channel = $channel",
      ROW_NEW, channel);
  if (inserted.changes != 0) {
    KLOG(VERB_INFO, "Added %d estream entries for channel %d\n", inserted.changes, channel);
    added_ += inserted.changes;
    changed_.insert(channel);
  } else if (equal.empty()) {
    return;  // its PMT was not received: the streams stay as they are
  }

  const Run deleted =
      statements_.run(MERGE_OPERATION, dvbnr_,
                      "DELETE FROM estreams WHERE  row_status = $row_status AND channel = $channel", ROW_OLD, channel);
  if (deleted.changes != 0) {
    KLOG(VERB_INFO, "Deleted %d estream entries for channel %d\n", deleted.changes, channel);
    deleted_ += deleted.changes;
    changed_.insert(channel);
  }
}

}  // namespace sdbl
