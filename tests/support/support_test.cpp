// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// What the tests stand on: matchers that can fail, a verbosity that comes back, databases that go away.

#include "support/database.h"
#include "support/messages.h"

using support::messages_at;
using support::prints_at;
using support::prints_only_from;
using support::Texts;
using testing::HasSubstr;
using testing::Not;

namespace {

const auto print_the_verbosity = [] { std::fprintf(stderr, "level %d", verbosity_kelvo.load()); };
const auto print_from_2 = [] {
  if (verbosity_kelvo >= 2)
    std::fputs("from 2", stderr);
};

}  // namespace

TEST(Messages, are_printed_at_the_level_and_the_verbosity_is_put_back) {
  EXPECT_EQ(messages_at(3, print_the_verbosity), "level 3");
  EXPECT_EQ(verbosity_kelvo, 0);
  EXPECT_THAT(print_the_verbosity, prints_at(3, "level 3"));
  EXPECT_THAT(print_the_verbosity, prints_at(3, HasSubstr("3")));
  EXPECT_THAT(print_the_verbosity, Not(prints_at(2, "level 3")));
}

TEST(Messages, prints_only_from_wants_the_text_and_silence_below) {
  EXPECT_THAT(print_from_2, prints_only_from(2, "from 2"));
  EXPECT_THAT(print_from_2, prints_only_from(2, HasSubstr("2")));
  EXPECT_THAT(print_from_2, Not(prints_only_from(2, "other")));
  EXPECT_THAT(print_from_2, Not(prints_only_from(1, "from 2"))) << "nothing yet";
  EXPECT_THAT(print_from_2, Not(prints_only_from(3, "from 2"))) << "not silent at 2";
  EXPECT_EQ(verbosity_kelvo, 0);
}

TEST(Database, rows_are_texts_of_the_library_s_own_connection) {
  support::Database db;
  db->create_temp_tables(0);
  EXPECT_EQ(db.run("CREATE TEMP TABLE t (a, b)"), SQLITE_DONE);
  EXPECT_EQ(db.run("INSERT INTO t VALUES (5, NULL), (6, 'six')"), SQLITE_DONE);
  EXPECT_EQ(db.table("temp.t"), (Texts{"5|NULL", "6|six"}));
  EXPECT_EQ(db.number("SELECT a FROM t"), 5);
  EXPECT_EQ(db.rows("SELECT count(*) FROM kanalid_scan_0"), Texts{"0"});
  EXPECT_EQ(db.number("SELECT channel FROM kanalid"), -9999);
  EXPECT_EQ(db.text("SELECT channel FROM kanalid"), "no row");
  EXPECT_EQ(db.rows("SELECT x"), Texts{"error: no such column: x"});
}

TEST(Database, stays_when_it_is_opened_again_and_goes_with_its_folder) {
  std::string file;
  {
    support::Database db;
    file = db.file();
    db.run("CREATE TABLE t (a)");
    db.run("INSERT INTO t VALUES (7)");
    db.open();
    EXPECT_EQ(db.table("t"), Texts{"7"});
    EXPECT_EQ(support::Other_connection(file).rows("SELECT a FROM t"), Texts{"7"});
    EXPECT_TRUE(std::filesystem::exists(db.guide_file()));
  }
  EXPECT_FALSE(std::filesystem::exists(file));
}

TEST(Text, counts_and_lines) {
  EXPECT_EQ(support::count_of("a-b-a", "a"), 2u);
  EXPECT_EQ(support::lines_of("one\n\ntwo"), (Texts{"one", "", "two"}));
  EXPECT_EQ(support::visible("a\n\x05z"), "a\\n\\5z");
  int asked = 0;
  EXPECT_TRUE(support::wait_for([&] { return ++asked == 3; }));
  EXPECT_FALSE(support::wait_for([] { return false; }, std::chrono::milliseconds(5)));
}
