// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db_support.h"

using db_support::Other_connection;
using support::messages_at;
using support::prints_only_from;
using support::stderr_of;
using support::Texts;
using testing::HasSubstr;
using testing::MatchesRegex;

namespace {

class Channel_export : public db_support::Database_test {
 protected:
  Channel_export() {
    run("INSERT INTO kanalid (freq, serv_name) VALUES (506000000, 'One')");
    run("INSERT INTO epglist (channel) VALUES (1)");
    sdbl().create_temp_tables(0);
    run("INSERT INTO kanalid_scan_0 (freq) VALUES (7)");
  }

  // What an export prints.
  std::string exported(const std::string& file, int level = 0) {
    return messages_at(level, [&] { sdbl().backup_channel_database(file.c_str()); });
  }
  void expect_channels_in(const std::string& file) {
    ASSERT_TRUE(std::filesystem::exists(file)) << file;
    Other_connection copy(file);
    EXPECT_EQ(copy.rows("SELECT channel, freq, serv_name FROM kanalid"), (Texts{"1|506000000|One"}));
    EXPECT_EQ(copy.rows("SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE 'sqlite_%' ORDER "
                        "BY rowid"),
              (Texts{"kanalid", "kanalid_lang", "estreams", "tuner_table"}));
    EXPECT_FALSE(std::filesystem::exists(this->file() + "_exp"));
  }

  const std::string copy_ = folder().file("copy.db");
};

using Guide_export = Channel_export;

}  // namespace

TEST_F(Channel_export, copies_the_channel_tables_alone_replaces_an_existing_file_and_announces_itself) {
  support::write_file(copy_, std::string(100000, 'x'));
  EXPECT_EQ(exported(copy_), "");
  expect_channels_in(copy_);
  EXPECT_THAT(exported(copy_, 1),
              MatchesRegex("WARNING: Exporting channel data to to .*/copy.db WARNING: Completed in [0-9]+ msec\n"));
  expect_channels_in(copy_);
  std::filesystem::remove(copy_);
  EXPECT_EQ(exported(copy_), "");
  expect_channels_in(copy_);
}

TEST_F(Channel_export, goes_across_file_systems) {
  const std::string elsewhere = db_support::folder_elsewhere(folder().path());
  if (elsewhere.empty())
    GTEST_SKIP() << "no second file system";
  exported(elsewhere + "/copy.db");
  expect_channels_in(elsewhere + "/copy.db");
  std::filesystem::remove_all(elsewhere);
}

TEST_F(Channel_export, odd_file_names_reach_no_shell) {
  for (const char* name : {"it's.db", "a b.db", "$(touch pwned).db", "`touch pwned`.db", "a;touch pwned;.db", "*.db",
                           "a\"b.db", "-rf.db", "new\nline.db"}) {
    exported(folder().file(name));
    expect_channels_in(folder().file(name));
  }
  EXPECT_FALSE(std::filesystem::exists("pwned"));
}

TEST_F(Channel_export, a_relative_name_that_looks_like_an_option_is_a_file) {
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(folder().path());
  exported("--help.db");
  expect_channels_in(folder().file("--help.db"));
  std::filesystem::current_path(before);
}

TEST_F(Channel_export, unwritable_target_is_reported_by_mv_and_harms_nothing) {
  const std::string target = folder().file("none/copy.db");
  EXPECT_THAT(exported(target), testing::AllOf(HasSubstr("mv: "), HasSubstr(target)));
  EXPECT_FALSE(std::filesystem::exists(target));
  EXPECT_EQ(sdbl().get_freq(1), 506000000);
  // What is left behind is replaced by the next export.
  exported(copy_);
  expect_channels_in(copy_);
}

TEST_F(Channel_export, quirk_temporary_file_is_named_after_the_original_and_must_be_makeable) {
  std::filesystem::create_directory(file() + "_exp");
  std::string what;
  const std::string text = stderr_of([&] {
    try {
      sdbl().backup_channel_database(folder().file("copy.db").c_str());
    } catch (const no_file_error& error) {
      what = error.what();
    }
  });
  EXPECT_EQ(what, "Unable to open epg file %s");
  EXPECT_THAT(text,
              HasSubstr("ERROR: FLUSH: Cannot open database " + file() + "_exp, error unable to open database file\n"));
  EXPECT_THAT(
      messages_at(
          -1, [&] { EXPECT_THROW(sdbl().backup_channel_database(folder().file("copy.db").c_str()), no_file_error); }),
      testing::Not(HasSubstr("ERROR")));
  EXPECT_FALSE(std::filesystem::exists(folder().file("copy.db")));
}

TEST_F(Channel_export, of_a_closed_database_copies_nothing) {
  sdbl().close_db();
  EXPECT_THAT(exported(copy_), testing::Not(HasSubstr("ERROR")));
  EXPECT_EQ(std::filesystem::file_size(copy_), 0u);
}

TEST_F(Guide_export, without_a_file_name_prints_an_error_and_touches_nothing) {
  const auto before = std::filesystem::last_write_time(guide_file());
  EXPECT_THAT([&] { sdbl().backup_database(true); }, prints_only_from(0, "ERROR: Backup file name not set!"));
  EXPECT_EQ(rows("SELECT count(*) FROM epglist"), (Texts{"1"}));  // an old event, still there
  EXPECT_EQ(std::filesystem::last_write_time(guide_file()), before);
  EXPECT_EQ(messages_at(-1, [&] { sdbl().backup_database(false); }), "");
}

TEST_F(Guide_export, without_the_folder_of_the_temporary_file_prints_an_error) {
  if (std::filesystem::exists("/dvbfiles"))
    GTEST_SKIP() << "/dvbfiles is there";
  sdbl().set_backup_file_name(copy_.c_str());
  const std::string error =
      "ERROR: Cannot open export file in /dvbfiles/epg_export_tmp.db, unable to open database file\n";
  EXPECT_THAT([&] { sdbl().backup_database(true); }, prints_only_from(0, error));
  EXPECT_FALSE(std::filesystem::exists(folder().file("copy_epg.db")));
  EXPECT_EQ(rows("SELECT count(*) FROM epglist"), (Texts{"0"}));
  EXPECT_THAT(messages_at(1, [&] { sdbl().backup_database(true); }),
              MatchesRegex("WARNING: Exporting attached epg database epg_db to .*/copy.db WARNING: Remove_old_entries "
                           "done in [0-9]+ msec, removed 0 entries. " +
                           error));
}
