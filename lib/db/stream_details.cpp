// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/stream_details.h"

#include <memory>
#include <string>
#include <utility>

namespace sdbl {

namespace {

std::string quoted(const std::string& text) {
  const std::unique_ptr<char, void (*)(void*)> sql(sqlite3_mprintf("%Q", text.c_str()), sqlite3_free);
  return sql != nullptr ? sql.get() : "''";
}

// "(1,'a',2)", with a comma before it unless it is the first row.
template <typename... Values>
void add_row(std::string& rows, const Values&... values) {
  const auto text = [](const auto& value) {
    if constexpr (std::is_same_v<std::decay_t<decltype(value)>, int>)
      return std::to_string(value);
    else
      return quoted(value);
  };
  rows += rows.empty() ? "(" : ",(";
  bool first = true;
  ((rows += (std::exchange(first, false) ? "" : ",") + text(values)), ...);
  rows += ')';
}

}  // namespace

void Stream_details::found(int adapter, int program, Programme_streams streams) {
  if (adapter >= 0 && static_cast<size_t>(adapter) < found_.size())
    found_[static_cast<size_t>(adapter)][program] = std::move(streams);
}

void Stream_details::clear(int adapter) {
  if (adapter >= 0 && static_cast<size_t>(adapter) < found_.size())
    found_[static_cast<size_t>(adapter)].clear();
}

bool Stream_details::exists() const {
  return statements_.first_number(__func__, 0,
                                  "SELECT count(*) FROM sqlite_master WHERE type = 'table' AND name IN "
                                  "('stream_detail', 'stream_language', 'stream_ca')") == 3;
}

Programme_streams Stream_details::read(int channel) const {
  Programme_streams out;
  Db_lock lock(connection_);  // so that the tables stay
  if (!exists())
    return out;
  Rows streams(
      statements_, __func__, 0,
      "SELECT es_pid, es_type, component_tag, kind, codec, profile FROM stream_detail WHERE channel = $channel ORDER "
      "BY oid",
      channel);
  while (streams.next())
    out.streams.push_back({streams.number(0),
                           streams.number(1),
                           streams.number(2),
                           streams.text(3),
                           streams.text(4),
                           streams.text(5),
                           {}});
  streams.end();

  Rows languages(statements_, __func__, 0,
                 "SELECT es_pid, lang, role, page FROM stream_language WHERE channel = $channel ORDER BY oid", channel);
  while (languages.next())
    for (Stream_detail& stream : out.streams)
      if (stream.es_pid == languages.number(0))
        stream.languages.push_back({languages.text(1), languages.text(2), languages.number(3)});
  languages.end();

  Rows ca(statements_, __func__, 0,
          "SELECT es_pid, ca_sysid, ca_pid FROM stream_ca WHERE channel = $channel ORDER BY oid", channel);
  while (ca.next())
    out.ca.push_back({ca.number(0), ca.number(1), ca.number(2)});
  ca.end();
  return out;
}

std::vector<Stream_details::Change> Stream_details::changes(const std::map<int, Programme_streams>& found,
                                                            const Multiplex& multiplex) const {
  std::vector<Change> all;
  Rows services(statements_, __func__, 0,
                "SELECT channel, pat_prnr FROM kanalid WHERE hf_conn = $hf_conn AND dvb_type = $dvb_type AND freq = "
                "$freq",
                number(multiplex.input.connector), number(multiplex.input.delivery), multiplex.freq);
  while (services.next())
    if (const auto programme = found.find(services.number(1)); programme != found.end())
      all.push_back({services.number(0), &programme->second});
  services.end();
  std::erase_if(all, [this](const Change& change) { return read(change.channel) == *change.streams; });
  return all;
}

// A statement for each table and not for each stream.
void Stream_details::write(const std::vector<Change>& changes) {
  std::string channels, details, languages, ca;
  for (const auto& [channel, programme] : changes) {
    channels += (channels.empty() ? "" : ",") + std::to_string(channel);
    for (const Stream_detail& stream : programme->streams) {
      add_row(details, channel, stream.es_pid, stream.es_type, stream.component_tag, stream.kind, stream.codec,
              stream.profile);
      for (const Stream_language& language : stream.languages)
        add_row(languages, channel, stream.es_pid, language.code, language.role, language.page);
    }
    for (const Stream_ca& system : programme->ca)
      add_row(ca, channel, system.es_pid, system.ca_sysid, system.ca_pid);
  }
  const struct {
    const char* table;
    const char* columns;
    const std::string& rows;
  } tables[] = {{"stream_detail", "channel, es_pid, es_type, component_tag, kind, codec, profile", details},
                {"stream_language", "channel, es_pid, lang, role, page", languages},
                {"stream_ca", "channel, es_pid, ca_sysid, ca_pid", ca}};
  for (const auto& [table, columns, rows] : tables) {
    // Channels that the host has deleted are tidied up at this opportunity.
    sql_.exec(__func__, "DELETE FROM %s WHERE channel IN (%s) OR channel NOT IN (SELECT channel FROM kanalid);", table,
              channels.c_str());
    if (!rows.empty())
      sql_.exec(__func__, "INSERT INTO %s (%s) VALUES %s;", table, columns, rows.c_str());
  }
}

bool Stream_details::any(int adapter) const {
  return adapter >= 0 && static_cast<size_t>(adapter) < found_.size() && !found_[static_cast<size_t>(adapter)].empty();
}

int Stream_details::store(int adapter, const Multiplex& multiplex) {
  if (adapter < 0 || static_cast<size_t>(adapter) >= found_.size())
    return 0;
  const std::map<int, Programme_streams> found = std::exchange(found_[static_cast<size_t>(adapter)], {});
  if (found.empty())
    return 0;
  Db_lock lock(connection_);
  const std::vector<Change> changed = changes(found, multiplex);
  if (changed.empty() || (!exists() && !schema_.create_stream_tables()))
    return 0;
  write(changed);
  return static_cast<int>(changed.size());
}

}  // namespace sdbl
