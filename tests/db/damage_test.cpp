// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db_support.h"

using db_support::Other_connection;
using support::messages_at;
using support::Texts;
using testing::HasSubstr;
using testing::MatchesRegex;

namespace {

constexpr char CHANNELS_DAMAGED[] = " is damaged: nothing is stored until a copy is in its place (";
constexpr char GUIDE_DAMAGED[] = " is damaged: the guide is not used until the file is out of the way (";

// Files with pages of every kind, and what becomes of them.
class Damage : public db_support::Database_test {
 protected:
  Damage() {
    (void)messages_at(-1, [&] {
      run("BEGIN");
      for (int i = 1; i <= 400; ++i) {
        const std::string n = std::to_string(i);
        run("INSERT INTO kanalid (freq, pat_prnr, serv_name) VALUES (506000000, " + n + ", 'Service " + n + "')");
        run("INSERT INTO epglist (channel, start_epoch, ev_id) VALUES (" + n + ", 4000000000, 1)");
        run("INSERT INTO epglist_lang (source_oid, lang, ext_desc) VALUES (" + n + ", 'eng', 'An event')");
      }
      run("INSERT INTO kanalid (freq, pat_prnr, serv_name) VALUES (506000000, 0, hex(zeroblob(10000)))");
      run("INSERT INTO epglist_lang (source_oid, ext_desc) VALUES (0, hex(zeroblob(10000)))");
      run("CREATE TABLE spare (a text)");
      run("INSERT INTO spare VALUES (hex(zeroblob(10000)))");
      run("DROP TABLE spare");
      run("COMMIT");
      close();
    });
  }

  // A page of this kind, found by what SQLite says of its files; 0 where there is none.
  static int page(const std::string& path, const std::string& which) {
    return std::stoi("0" + Other_connection(path).rows("SELECT coalesce((" + which + "), 0)").front());
  }
  static void overwrite(const std::string& path, long offset, const std::string& bytes) {
    std::fstream out(path, std::ios::in | std::ios::out | std::ios::binary);
    out.seekp(offset);
    out << bytes;
    ASSERT_TRUE(out.good());
  }
  // What opening, a little work and closing print; whether the files changed by it.
  std::string used() {
    const std::string channels = support::read_file(file()), guide = support::read_file(guide_file());
    const std::string printed = messages_at(0, [&] { open(); });
    (void)messages_at(-1, [&] {
      sdbl().create_temp_tables(0);
      sdbl().pat_for_network(0, TYPE, CONN, FREQ, 5000, 5, 110);
      sdbl().pmt_channel_number(0, TYPE, CONN, FREQ, 5000, 300, SCAN_PAT);
      sdbl().update_master_scan_data(0, TYPE, CONN, FREQ, SCAN_PAT);
      db_support::store_event(sdbl(), 1, 1900000000);
      close();
    });
    channels_changed_ = support::read_file(file()) != channels;
    guide_changed_ = support::read_file(guide_file()) != guide;
    return printed;
  }
  Database_error remembered() {
    Database_error error;
    sdbl().first_error(&error);
    return error;
  }

  bool channels_changed_ = false;
  bool guide_changed_ = false;
};

struct Page_kind {
  const char* name;
  const char* channels;  // how to find one in each file
  const char* guide;
};

constexpr Page_kind KINDS[] = {
    {"the schema's", "SELECT max(pageno) FROM dbstat WHERE name = 'sqlite_schema'",
     "SELECT max(pageno) FROM dbstat WHERE name = 'sqlite_schema'"},
    {"the inner page of a table", "SELECT pageno FROM dbstat WHERE name = 'kanalid' AND pagetype = 'internal'",
     "SELECT pageno FROM dbstat WHERE name = 'epglist' AND pagetype = 'internal'"},
    {"the leaf of a table", "SELECT max(pageno) FROM dbstat WHERE name = 'kanalid' AND pagetype = 'leaf'",
     "SELECT max(pageno) FROM dbstat WHERE name = 'epglist_lang' AND pagetype = 'leaf'"},
    {"the inner page of an index",
     "SELECT pageno FROM dbstat WHERE name = 'kanalid_otsi_idx' AND pagetype = 'internal'",
     "SELECT pageno FROM dbstat WHERE name = 'epg_ch_start_idx' AND pagetype = 'internal'"},
    {"the leaf of an index", "SELECT max(pageno) FROM dbstat WHERE name = 'kanalid_otsi_idx' AND pagetype = 'leaf'",
     "SELECT max(pageno) FROM dbstat WHERE name = 'epg_ch_start_idx' AND pagetype = 'leaf'"},
    {"the rest of a long text", "SELECT min(pageno) FROM dbstat WHERE name = 'kanalid' AND pagetype = 'overflow'",
     "SELECT min(pageno) FROM dbstat WHERE name = 'epglist_lang' AND pagetype = 'overflow'"},
};

constexpr long PAGE = 4096;
constexpr long HEADER = 100;

}  // namespace

TEST_F(Damage, whole_files_are_opened_without_a_word) {
  EXPECT_EQ(used(), "");
  EXPECT_TRUE(channels_changed_);
  EXPECT_TRUE(guide_changed_);
}

// Each kind of page is overwritten, by other bytes or by none.
TEST_F(Damage, a_damaged_page_of_any_kind_is_found_at_opening_and_the_file_is_not_written_to) {
  const std::string channels = support::read_file(file()), guide = support::read_file(guide_file());
  for (const Page_kind& kind : KINDS)
    for (const bool in_guide : {false, true})
      for (const char byte : {'\0', '\xA5'}) {
        SCOPED_TRACE(std::string(kind.name) + (in_guide ? " of the guide" : " of the channels") +
                     (byte == '\0' ? ", zeros" : ", rubbish"));
        support::write_file(file(), channels);
        support::write_file(guide_file(), guide);
        const std::string path = in_guide ? guide_file() : file();
        const int number = page(path, in_guide ? kind.guide : kind.channels);
        ASSERT_GT(number, 0);
        // The file's own header on the first page stays, or it would be no database.
        const long from = number == 1 ? HEADER : 0;
        overwrite(path, (number - 1) * PAGE + from, std::string(static_cast<size_t>(PAGE - from), byte));
        const std::string printed = used();
        if (in_guide) {
          EXPECT_THAT(printed, MatchesRegex("ERROR: .*/dvb_epg.db is damaged: [^\n]*\n"));
          EXPECT_THAT(printed, HasSubstr(GUIDE_DAMAGED));
          EXPECT_TRUE(channels_changed_) << "channels go on";
          EXPECT_FALSE(guide_changed_);
        } else {
          EXPECT_THAT(printed, testing::StartsWith("ERROR: " + file() + CHANNELS_DAMAGED));
          EXPECT_FALSE(channels_changed_);
        }
      }
}

TEST_F(Damage, a_row_without_its_entry_in_an_index_is_found) {
  const std::string before = support::read_file(file());
  open();
  run("INSERT INTO kanalid (freq, pat_prnr, serv_name) VALUES (506000000, 401, 'x')");
  const int leaf = number("SELECT max(pageno) FROM dbstat WHERE name = 'kanalid_otsi_idx' AND pagetype = 'leaf'");
  close();
  overwrite(file(), (leaf - 1) * PAGE, before.substr(static_cast<size_t>((leaf - 1) * PAGE), PAGE));
  EXPECT_THAT(used(), MatchesRegex("ERROR: .*/dvb.db is damaged: nothing is stored until a copy is in its place "
                                   "\\([^\n]*kanalid_otsi_idx\\)\n"));
}

TEST_F(Damage, what_ends_too_early_is_found) {
  for (const std::string& path : {file(), guide_file()}) {
    const std::string whole = support::read_file(path);
    const size_t one_page = PAGE;
    for (const size_t length : {whole.size() / 2, whole.size() - one_page, one_page, size_t{5000}}) {
      support::write_file(path, whole.substr(0, length));
      EXPECT_THAT(used(), HasSubstr("ERROR: " + path + " is damaged: ")) << length;
      EXPECT_TRUE(support::read_file(path) == whole.substr(0, length)) << "written to";
    }
    support::write_file(path, whole);
  }
}

TEST_F(Damage, is_told_to_the_host_and_what_can_be_read_is_read) {
  overwrite(file(), (page(file(), KINDS[4].channels) - 1) * PAGE, std::string(PAGE, '\0'));
  overwrite(guide_file(), (page(guide_file(), KINDS[2].guide) - 1) * PAGE, std::string(PAGE, '\0'));
  (void)messages_at(-1, [&] { open(); });
  EXPECT_EQ(remembered().code, SQLITE_CORRUPT);
  EXPECT_STREQ(remembered().operation, "open_db");
  EXPECT_EQ(sdbl().get_freq(1), FREQ);
  EXPECT_EQ(run("DELETE FROM kanalid"), SQLITE_READONLY);
  EXPECT_EQ(rows("SELECT * FROM epglist"), (Texts{"error: no such table: epglist"}));
  sdbl().forget_errors();
  (void)messages_at(-1, [&] {
    sdbl().close_db();
    sdbl().open_db();
  });
  EXPECT_EQ(remembered().code, SQLITE_CORRUPT) << "opened again";
  (void)messages_at(-1, [&] { close(); });
}

TEST_F(Damage, of_a_file_that_another_program_is_writing_is_not_looked_for) {
  const Other_connection other(file());
  ASSERT_EQ(other.run("BEGIN EXCLUSIVE"), SQLITE_DONE);
  overwrite(guide_file(), (page(guide_file(), KINDS[2].guide) - 1) * PAGE, std::string(PAGE, '\0'));
  std::string printed;
  EXPECT_THAT(messages_at(0, [&] { open(); }), testing::Not(HasSubstr(CHANNELS_DAMAGED)));
  EXPECT_EQ(other.run("COMMIT"), SQLITE_DONE);
  (void)messages_at(-1, [&] { close(); });
}

// A database without a file of its own, or that its copies would not find.
TEST(Names_of_databases, empty_ones_and_uris_are_refused_in_one_line) {
  for (const char* name : {"", "file:", "file:a.db", "file:///tmp/a.db?mode=ro"}) {
    std::string what;
    EXPECT_EQ(messages_at(0,
                          [&] {
                            try {
                              Sdbl sdbl(name);
                            } catch (const no_file_error& error) {
                              what = error.what();
                            }
                          }),
              std::string("ERROR: \"") + name + "\" does not name a database file: give a path\n");
    EXPECT_EQ(what, "Unable to open file");
  }
  EXPECT_THROW((void)messages_at(-1, [] { Sdbl sdbl(nullptr); }), no_file_error);
}

TEST(Names_of_databases, other_odd_ones_are_files) {
  const support::Temp_dir dir;
  for (const char* name : {"file.db", "FILE:a.db", "a file:b.db", "%41.db", "a?mode=ro.db"}) {
    EXPECT_EQ(messages_at(0, [&] { Sdbl sdbl(dir.file(name).c_str()); }), "") << name;
    EXPECT_TRUE(std::filesystem::exists(dir.file(name))) << name;
  }
}
