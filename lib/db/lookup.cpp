// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/lookup.h"

#include <strings.h>

#include <algorithm>
#include <map>
#include <optional>
#include <utility>

#include "db/channel_row.h"

namespace sdbl {

namespace {

// True when all rows have been read.
bool ended_well(Rows& rows) {
  const bool all = rows.code() == SQLITE_DONE;
  return rows.end() == SQLITE_OK && all;
}

Listed_channel channel_of(const Rows& row) {
  Listed_channel channel;
  channel.channel = row.number(0);
  const int lcn = row.number(1);
  channel.number = lcn > 0 && lcn < NO_LCN ? lcn : -1;
  channel.name = row.text(2);
  channel.provider = row.text(3);
  channel.network = row.text(4);
  channel.type = row.number(5);
  channel.freq = row.number(6);
  channel.service_id = row.number(7);
  channel.original_network_id = row.number(8);
  channel.transport_stream_id = row.number(9);
  channel.scrambled = row.number(10) != 0;
  // One whose PMT has never come is named by its multiplex all the same.
  channel.lost = row.number(11) == SERVICE_LOST && row.number(12) != ROW_NEW;
  return channel;
}

// The first row, if there is any; false when it cannot be read.
bool read_event(Rows& rows, std::optional<Programme>* event) {
  if (rows.next()) {
    Programme found;
    found.entry = rows.number(0);
    found.event_id = rows.number(1);
    found.start = rows.number(2);
    found.duration_sec = rows.number(3);
    found.running_status = rows.number(4);
    *event = std::move(found);
    while (rows.next()) {
    }
  }
  return ended_well(rows);
}

}  // namespace

bool Lookup::channels(std::vector<Named_channel>* out) const {
  Db_lock lock(connection_);  // so that all is of one moment
  std::vector<Named_channel> all;
  std::map<int, size_t> places;
  Rows services(statements_, __func__, 0,
                "SELECT channel, lcn, serv_name, prov_name, network_name, serv_type, freq, pat_prnr, orig_network_id, "
                "tstream_id, free_ca, scan_state, row_status FROM kanalid ORDER BY channel");
  while (services.next()) {
    places[services.number(0)] = all.size();
    all.push_back({channel_of(services), {}});
  }
  if (!ended_well(services))
    return false;
  const auto at = [&](int channel) -> Named_channel* {
    const auto place = places.find(channel);
    return place != places.end() ? &all[place->second] : nullptr;
  };

  if (statements_.has_table("service_detail")) {
    Rows hidden(statements_, __func__, 0, "SELECT channel FROM service_detail WHERE visible = 0");
    while (hidden.next())
      if (Named_channel* service = at(hidden.number(0)))
        service->channel.hidden = true;
    if (!ended_well(hidden))
      return false;
  }

  Rows names(statements_, __func__, 0, "SELECT source_oid, serv_name FROM kanalid_lang ORDER BY oid");
  while (names.next())
    if (Named_channel* service = at(names.number(0)); service != nullptr && *names.text(1) != '\0')
      service->names.emplace_back(names.text(1));
  if (!ended_well(names))
    return false;
  *out = std::move(all);
  return true;
}

bool Lookup::now_and_next(int channel, const std::vector<std::string>& languages, int64_t at, Now_next* out) const {
  Db_lock lock(connection_);
  const int then = saturated(at);
  Now_next found;
  {
    Rows now(statements_, __func__, 0,
             "SELECT entry, ev_id, start_epoch, dur_sec, run_status FROM epglist WHERE channel = $channel AND "
             "start_epoch <= $then AND start_epoch + dur_sec > $still ORDER BY start_epoch DESC LIMIT 1",
             channel, then, then);
    if (!read_event(now, &found.now))
      return false;
  }
  Rows next(statements_, __func__, 0,
            "SELECT entry, ev_id, start_epoch, dur_sec, run_status FROM epglist WHERE channel = $channel AND "
            "start_epoch > $then ORDER BY start_epoch LIMIT 1",
            channel, then);
  if (!read_event(next, &found.next))
    return false;
  for (std::optional<Programme>* event : {&found.now, &found.next})
    if (event->has_value() && !read_texts(languages, &**event))
      return false;
  *out = std::move(found);
  return true;
}

bool Lookup::read_texts(const std::vector<std::string>& languages, Programme* event) const {
  Rows texts(statements_, __func__, 0,
             "SELECT lang, ev_name, ev_desc, ext_desc FROM epglist_lang WHERE source_oid = $entry ORDER BY oid",
             event->entry);
  const auto rank = [&languages](const std::string& language) {
    return std::find_if(languages.begin(), languages.end(),
                        [&](const std::string& wanted) { return strcasecmp(wanted.c_str(), language.c_str()) == 0; }) -
           languages.begin();
  };
  // By these: has it a title; in which language; the first one stored stays.
  std::optional<std::pair<bool, std::ptrdiff_t>> best;
  while (texts.next()) {
    const std::pair<bool, std::ptrdiff_t> order(*texts.text(1) == '\0', rank(texts.text(0)));
    if (best && !(order < *best))
      continue;
    best = order;
    event->language = texts.text(0);
    event->title = texts.text(1);
    event->description = texts.text(2);
    event->extended = texts.text(3);
  }
  return ended_well(texts);
}

}  // namespace sdbl
