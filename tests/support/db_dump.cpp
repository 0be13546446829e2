// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "support/db_dump.h"

#include <sqlite3.h>

#include "support/support.h"
#include "support/test.h"
#include "support/text.h"

namespace support {

namespace {

struct Close {
  void operator()(sqlite3* db) const { sqlite3_close(db); }
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};

using Rows = std::vector<std::vector<std::string>>;

Rows query(sqlite3* db, const std::string& sql, std::vector<std::string>* columns = nullptr) {
  sqlite3_stmt* raw = nullptr;
  if (sqlite3_prepare_v2(db, sql.c_str(), -1, &raw, nullptr) != SQLITE_OK) {
    ADD_FAILURE() << sql << ": " << sqlite3_errmsg(db);
    return {};
  }
  const std::unique_ptr<sqlite3_stmt, Close> statement(raw);
  const int count = sqlite3_column_count(raw);
  if (columns != nullptr) {
    for (int i = 0; i < count; ++i)
      columns->emplace_back(sqlite3_column_name(raw, i));
  }
  Rows rows;
  int code = 0;
  while ((code = sqlite3_step(raw)) == SQLITE_ROW) {
    std::vector<std::string> row;
    for (int i = 0; i < count; ++i) {
      const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(raw, i));
      row.emplace_back(text != nullptr ? text : "NULL");
    }
    rows.push_back(std::move(row));
  }
  if (code != SQLITE_DONE)
    ADD_FAILURE() << sql << ": " << sqlite3_errmsg(db);
  return rows;
}

// One line, with what would break it made visible.
std::string line(const std::vector<std::string>& row) {
  std::string text;
  for (const std::string& value : row)
    text += (&value != &row.front() ? "|" : "") + visible(value);
  return text + "\n";
}

void add_table(std::string* out, sqlite3* db, const std::string& title, const std::string& sql) {
  std::vector<std::string> columns;
  const Rows rows = query(db, sql, &columns);
  *out += "== " + title + "\n" + line(columns);
  for (const auto& row : rows)
    *out += line(row);
}

void add_event_summary(std::string* out, sqlite3* db) {
  *out += "== events\nservice|events|texts|checksum\n";
  const std::string service =
      "ifnull((SELECT freq || '/' || pat_prnr FROM kanalid k WHERE k.channel = e.channel), '?')";
  for (const auto& row :
       query(db, "SELECT " + service + ", channel, count(*) FROM epglist e GROUP BY channel ORDER BY 1")) {
    Bytes all;
    size_t texts = 0;
    for (const auto& event :
         query(db, "SELECT start_epoch, dur_sec, content_id, rating, entry FROM epglist WHERE channel = " + row[1] +
                       " ORDER BY start_epoch")) {
      const std::string head = event[0] + "|" + event[1] + "|" + event[2] + "|" + event[3];
      all.insert(all.end(), head.begin(), head.end());
      for (const auto& text : query(db,
                                    "SELECT lang, ev_name, ev_desc, ext_desc, ext_list FROM epglist_lang "
                                    "WHERE source_oid = " +
                                        event[4] + " ORDER BY lang")) {
        const std::string one = line(text);
        all.insert(all.end(), one.begin(), one.end());
        ++texts;
      }
    }
    char sum[16];
    std::snprintf(sum, sizeof sum, "%08x", mpeg_crc32(all.data(), all.size()));
    *out += line({row[0], row[2], std::to_string(texts), sum});
  }
}

std::unique_ptr<sqlite3, Close> open_database(const std::string& db_file) {
  sqlite3* raw = nullptr;
  const int code = sqlite3_open_v2(db_file.c_str(), &raw, SQLITE_OPEN_READONLY, nullptr);
  std::unique_ptr<sqlite3, Close> db(raw);
  if (code != SQLITE_OK) {
    ADD_FAILURE() << db_file << ": " << sqlite3_errmsg(raw);
    return nullptr;
  }
  const std::string guide = db_file.substr(0, db_file.rfind('.')) + "_epg.db";
  if (std::filesystem::exists(guide))
    query(raw, "ATTACH DATABASE '" + guide + "' AS epg_db");
  return db;
}

}  // namespace

std::string query_database(const std::string& db_file, const std::string& sql) {
  std::string out;
  if (const auto db = open_database(db_file)) {
    for (const auto& row : query(db.get(), sql))
      out += line(row);
  }
  return out;
}

std::string dump_database(const std::string& db_file, const Dump_options& options) {
  const auto db = open_database(db_file);
  if (db == nullptr)
    return "";
  sqlite3* const raw = db.get();
  const std::string name = "ifnull((SELECT freq || '/' || pat_prnr FROM kanalid k WHERE k.channel = ";
  const std::string number = options.numbers ? "channel, " : "";
  std::string out;
  add_table(&out, raw, "kanalid",
            "SELECT " + number +
                "revision, hf_conn, dvb_type, freq, pat_prnr, pmt_pid, network_id, orig_network_id, tstream_id, lcn, "
                "pcr_pid, serv_name, serv_type, prov_name, network_name, run_status, free_ca, scan_state, row_status, "
                "CASE modified WHEN 0 THEN '0' ELSE 'set' END AS modified "
                "FROM kanalid ORDER BY freq, hf_conn, dvb_type, pat_prnr");
  add_table(&out, raw, "kanalid_lang",
            "SELECT " + name +
                "source_oid), source_oid) AS service, lang, serv_name, prov_name, network_name "
                "FROM kanalid_lang ORDER BY 1, 2");
  add_table(&out, raw, "estreams",
            "SELECT " + name +
                "e.channel), e.channel) AS service, revision, es_pid, es_type, es_subtype, codec, "
                "languages, lang_codes, p1, p2, ca_sysid, ca_pid, row_status "
                "FROM estreams e ORDER BY 1, es_pid, languages, p1, p2");
  add_table(&out, raw, "tuner_table",
            "SELECT freq, hf_conn, dvb_type, tuner_params FROM tuner_table ORDER BY freq, hf_conn, dvb_type");
  if (!options.events) {
    add_event_summary(&out, raw);
    return out;
  }
  const std::string limit = options.guide ? "" : " LIMIT 0";
  add_table(&out, raw, "epglist",
            "SELECT " + name +
                "e.channel), e.channel) AS service, start_epoch, revision, ymd_bcd, hms_bcd, dur_bcd, "
                "dur_sec, content_id, rating, run_status, free_ca, ev_id, pat_prnr FROM epglist e ORDER BY 1, 2" +
                limit);
  add_table(&out, raw, "epglist_lang",
            "SELECT ifnull((SELECT " + name +
                "e.channel), e.channel) || ' ' || start_epoch FROM epglist e "
                "WHERE e.entry = l.source_oid), '?') AS event, lang, ev_name, ev_desc, ext_desc, ext_list "
                "FROM epglist_lang l ORDER BY 1, 2" +
                limit);
  return out;
}

void expect_reference(const std::string& name, const std::string& text) {
  const std::string file = std::string(KELVO_SOURCE_DIR) + "/tests/data/" + name;
  if (std::getenv("KELVO_COLLECT") != nullptr) {
    std::filesystem::create_directories(std::filesystem::path(file).parent_path());
    write_file(file, text);
    return;
  }
  if (!std::filesystem::exists(file)) {
    ADD_FAILURE() << "There is no reference " << file << ". If this is right, collect it with KELVO_COLLECT=1:\n"
                  << text;
    return;
  }
  const std::string expected = read_file(file);
  if (expected == text)
    return;
  const Texts left = lines_of(expected);
  const Texts right = lines_of(text);
  const auto [wanted, found] = std::mismatch(left.begin(), left.end(), right.begin(), right.end());
  if (wanted == left.end() && found == right.end())
    ADD_FAILURE() << file << ": differs in its line ends";
  else
    ADD_FAILURE() << file << ":" << wanted - left.begin() + 1 << ":\n  expected "
                  << (wanted != left.end() ? *wanted : "the end") << "\n  found    "
                  << (found != right.end() ? *found : "the end")
                  << "\nIf the change is meant, collect the reference with KELVO_COLLECT=1.";
}

}  // namespace support
