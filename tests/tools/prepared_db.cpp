// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/prepared_db.h"

#include <sqlite3.h>

#include <kelvo/kelvo.h>

#include "support/support.h"
#include "support/test.h"

void run_sql(const std::string& file, const std::string& sql) {
  sqlite3* connection = nullptr;
  ASSERT_EQ(sqlite3_open(file.c_str(), &connection), SQLITE_OK) << file;
  char* error = nullptr;
  EXPECT_EQ(sqlite3_exec(connection, sql.c_str(), nullptr, nullptr, &error), SQLITE_OK) << (error ? error : "");
  sqlite3_free(error);
  sqlite3_close(connection);
}

void make_prepared_db(const std::string& file) {
  (void)support::stderr_of([&file] { const Sdbl made(file.c_str()); });
  run_sql(file, R"(
    INSERT INTO kanalid (channel, freq, pat_prnr, pmt_pid, pcr_pid, network_id, orig_network_id, tstream_id, lcn,
                         serv_name, serv_type, prov_name, network_name, free_ca, scan_state, row_status)
    VALUES (1, 506000000, 1001, 100, 101, 8, 9, 7, 12, 'Kuldnokk', 1, 'Meedia', 'Võrk', 0, 1, 0),
           (2, 506000000, 1002, 110, 111, 8, 9, 7, 65535, 'Raadio', 2, 'Meedia', 'Võrk', 0, 1, 0),
           (3, 506000000, 1003, 120, 121, 8, 9, 7, 3, char(21) || 'Žluťoučký', 25, '', '', 1, 0, 0),
           (4, 650166666, 1, 130, 131, 8, 9, 6, 12, 'a' || char(27) || '[2J' || char(10) || 'b', 17,
            CAST(x'FF41' AS TEXT), 'Võrk', 1, 2, 0),
           (5, 650166666, 2, 0, 0, 8, 9, 6, 65535, '', 12, 'Meedia', 'Võrk', 0, 0, 2);
    INSERT INTO kanalid_lang (source_oid, lang, serv_name) VALUES (1, 'eng', 'Starling'), (1, 'est', '');
    INSERT INTO estreams (channel, es_pid, es_type, es_subtype, codec, languages, p1, p2, ca_sysid, ca_pid)
    VALUES (1, 257, 27, 0, '', '', 0, 0, 0, 0),
           (1, 258, 4, 0, '', 'est eng ', 0, 0, 0, 0),
           (1, 259, 6, -2147483647, 'AC3', 'est ', 0, 0, 0, 0),
           (1, 260, 6, -2147471358, '', 'est', 1, 0, 0, 0),
           (1, 261, 6, -2147467248, '', 'est', 0, 0, 0, 0),
           (1, 261, 6, -2147467248, '', 'rus', 0, 0, 0, 0),
           (2, 300, 3, 0, '', '', 0, 0, 0, 0),
           (3, 400, 2, 0, '', '', 0, 0, 2816, 1200),
           (3, 401, 15, 0, '', 'ces ', 0, 0, 2816, 1200),
           (3, 402, 5, 0, '', '', 0, 0, 256, 1201),
           (99, 500, 2, 0, '', '', 0, 0, 0, 0);
  )");
}
