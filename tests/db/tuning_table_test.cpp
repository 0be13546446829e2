// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/tuning_table.h"

#include <linux/dvb/frontend.h>

#include <future>

#include "db/sdbl_parts.h"
#include "db_support.h"

using support::prints_at;
using support::prints_only_from;
using support::Texts;
using testing::HasSubstr;

namespace {

constexpr Input INPUT{Connector{2}, Delivery{1}};
constexpr int ASKED = 578000000;

std::string shown(const Stored_tuning& t) {
  std::ostringstream out;
  for (const int value : {t.freq, t.asked, t.system, t.pipe, t.bandwidth_hz, t.modulation, t.offset_hz, t.lock_ms})
    out << value << ' ';
  return out.str();
}

class Tuning_table : public db_support::Database_test {
 protected:
  sdbl::Tuning_table& tunings() { return sdbl().parts().tunings; }
  std::string found(int freq, const Input& input = INPUT) {
    const std::optional<Stored_tuning> tuning = tunings().find({input, freq});
    return tuning ? shown(*tuning) : "none";
  }
  Texts found_at(int freq) {
    Texts all;
    for (const Stored_tuning& tuning : tunings().at(INPUT, freq))
      all.push_back(shown(tuning));
    return all;
  }
  Texts tables() {
    return rows("SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE 'sqlite_%' ORDER BY rowid");
  }

  const Stored_tuning t_{ASKED, ASKED, SYS_DVBT, -1, 8000000, QAM_64, -166000, 260};
  const Stored_tuning pipe_0_{ASKED, ASKED, SYS_DVBT2, 0, 1712000, QAM_256, 0, 900};
  const Stored_tuning pipe_3_{ASKED + 3, ASKED, SYS_DVBT2, 3, 8000000, -1, 166000, 1900};
};

using Tuning_table_values = Tuning_table;

struct Value {
  const char* column;
  std::vector<const char*> good;
  std::vector<const char*> bad;
};

// Of a DVB-T2 row with pipe 3; what stands for one column while the others stay.
const Value VALUES[] = {
    {"freq", {"578000003"}, {"578000000", "578000004", "-578000003", "0", "NULL", "'x'"}},
    {"asked_freq", {"578000000"}, {"578000003", "578000001", "0", "-1", "NULL", "9223372036854775807"}},
    {"system", {"16"}, {"3", "0", "-1", "1", "17", "2147483647", "NULL", "'DVB-T2'"}},
    {"pipe", {"3"}, {"-2", "0", "2", "256", "NULL", "-1"}},
    {"bandwidth_hz",
     {"0", "1712000", "5000000", "6000000", "7000000", "8000000", "10000000", "NULL"},
     {"8", "1700000", "-1", "8000001", "2147483647"}},
    {"modulation", {"-1", "0", "5", "13"}, {"-2", "14", "2147483647", "-2147483648"}},
    {"offset_hz", {"0", "499999", "-499999"}, {"500000", "-500000", "2147483647", "-2147483648"}},
    {"lock_ms", {"0", "600000"}, {"-1", "600001", "2147483647"}},
};

}  // namespace

TEST_F(Tuning_table, of_a_file_without_one_finds_nothing_prints_nothing_and_writes_nothing) {
  const std::string before = support::read_file(file());
  EXPECT_THAT([&] { EXPECT_EQ(found(ASKED), "none"); }, prints_at(3, ""));
  EXPECT_THAT([&] { EXPECT_EQ(found_at(ASKED), Texts{}); }, prints_at(3, ""));
  EXPECT_EQ(support::read_file(file()), before);
  EXPECT_EQ(tables(), (Texts{"kanalid", "kanalid_lang", "estreams", "tuner_table"}));
}

TEST_F(Tuning_table, is_made_by_the_first_tuning_and_gives_back_what_was_stored) {
  EXPECT_TRUE(tunings().store(INPUT, t_));
  EXPECT_EQ(tables(), (Texts{"kanalid", "kanalid_lang", "estreams", "tuner_table", "tuned_multiplex"}));
  EXPECT_EQ(found(ASKED), shown(t_));
  EXPECT_EQ(table("tuned_multiplex"), (Texts{"578000000|2|1|578000000|3|-1|8000000|3|-166000|260"}));
  open();
  EXPECT_EQ(found(ASKED), shown(t_));
}

TEST_F(Tuning_table, a_later_tuning_takes_the_place_of_the_one_with_its_key) {
  tunings().store(INPUT, t_);
  EXPECT_TRUE(tunings().store(INPUT, pipe_0_));
  EXPECT_EQ(found(ASKED), shown(pipe_0_));
  EXPECT_EQ(found_at(ASKED), (Texts{shown(pipe_0_)}));
}

TEST_F(Tuning_table, pipes_of_a_frequency_have_rows_of_their_own_in_ascending_order) {
  for (const Stored_tuning& tuning : {pipe_3_, pipe_0_})
    EXPECT_TRUE(tunings().store(INPUT, tuning));
  EXPECT_EQ(found_at(ASKED), (Texts{shown(pipe_0_), shown(pipe_3_)}));
  EXPECT_EQ(found(ASKED + 3), shown(pipe_3_));
  EXPECT_EQ(found(ASKED + 1), "none");
  EXPECT_EQ(found_at(ASKED + 3), Texts{});
}

TEST_F(Tuning_table, inputs_are_told_apart) {
  tunings().store(INPUT, t_);
  for (const Input& other : {Input{Connector{1}, Delivery{2}}, Input{Connector{2}, Delivery{2}}}) {
    EXPECT_EQ(found(ASKED, other), "none");
    EXPECT_TRUE(tunings().at(other, ASKED).empty());
  }
}

TEST_F(Tuning_table_values, of_a_row_that_no_multiplex_can_have_are_not_believed) {
  for (const Value& value : VALUES) {
    for (const bool good : {true, false}) {
      for (const char* text : good ? value.good : value.bad) {
        ASSERT_TRUE(tunings().store(INPUT, pipe_3_));
        run(std::string("UPDATE tuned_multiplex SET ") + value.column + " = " + text);
        EXPECT_EQ(found_at(ASKED).size(), good ? 1u : 0u) << value.column << " = " << text;
        EXPECT_EQ(found(ASKED + 3) != "none", good) << value.column << " = " << text;
        run("DELETE FROM tuned_multiplex");
      }
    }
  }
}

TEST_F(Tuning_table_values, that_cannot_be_are_not_stored_and_what_was_stays) {
  ASSERT_TRUE(tunings().store(INPUT, t_));
  const auto changed = [&](auto change) {
    Stored_tuning tuning = t_;
    change(&tuning);
    return tuning;
  };
  for (const Stored_tuning& tuning : {
           changed([](Stored_tuning* t) { t->pipe = 0; }),  // DVB-T has none
           changed([](Stored_tuning* t) { t->system = SYS_DVBC_ANNEX_A; }),
           changed([](Stored_tuning* t) { t->asked = ASKED - 1; }),
           changed([](Stored_tuning* t) { t->lock_ms = -1; }),
           changed([](Stored_tuning* t) { t->bandwidth_hz = 8; }),
       }) {
    EXPECT_THAT([&] { EXPECT_FALSE(tunings().store(INPUT, tuning)); },
                prints_only_from(1, "WARNING: No tuning is stored for 578000000 Hz: its values cannot be\n"))
        << shown(tuning);
  }
  EXPECT_EQ(found_at(ASKED), (Texts{shown(t_)}));
}

TEST_F(Tuning_table, that_cannot_be_written_is_a_warning_and_harms_nothing) {
  run("PRAGMA query_only = 1");
  EXPECT_THAT([&] { EXPECT_FALSE(tunings().store(INPUT, t_)); },
              prints_only_from(1, HasSubstr("attempt to write a readonly database")));
  run("PRAGMA query_only = 0");
  ASSERT_TRUE(tunings().store(INPUT, t_));
  run("PRAGMA query_only = 1");
  EXPECT_THAT([&] { EXPECT_FALSE(tunings().store(INPUT, pipe_0_)); },
              prints_only_from(1,
                               "WARNING: The tuning of 578000000 Hz is not stored: attempt to write a readonly "
                               "database\n"));
  run("PRAGMA query_only = 0");
  EXPECT_EQ(found(ASKED), shown(t_));
  run("INSERT INTO kanalid (freq) VALUES (1)");
  EXPECT_EQ(number("SELECT count(*) FROM kanalid"), 1);
}

TEST_F(Tuning_table, goes_with_an_export_which_opens_and_is_exported_like_any_file) {
  tunings().store(INPUT, pipe_3_);
  run("INSERT INTO kanalid (freq, serv_name) VALUES (578000003, 'One')");
  const std::string copy = folder().file("copy.db");
  const std::string again = folder().file("again.db");
  EXPECT_EQ(support::messages_at(0,
                                 [&] {
                                   sdbl().backup_channel_database(copy.c_str());
                                   Sdbl copied(copy.c_str());
                                   copied.backup_channel_database(again.c_str());
                                 }),
            "");
  for (const std::string& name : {copy, again}) {
    Sdbl exported(name.c_str());
    const std::optional<Stored_tuning> tuning = exported.parts().tunings.find({INPUT, ASKED + 3});
    EXPECT_EQ(tuning ? shown(*tuning) : "none", shown(pipe_3_)) << name;
    EXPECT_EQ(exported.get_freq(1), ASKED + 3);
  }
}

TEST_F(Tuning_table, of_another_shape_is_left_as_it_is) {
  run("CREATE TABLE tuned_multiplex (freq int)");
  run("INSERT INTO tuned_multiplex VALUES (578000000)");
  EXPECT_THAT([&] { EXPECT_EQ(found(ASKED), "none"); }, prints_at(0, HasSubstr("no such column: ")));
  EXPECT_THAT([&] { EXPECT_FALSE(tunings().store(INPUT, t_)); }, prints_at(0, HasSubstr("has no column named ")));
  EXPECT_EQ(table("tuned_multiplex"), (Texts{"578000000"}));
}

// --- For threads that must not wait

namespace {

class Tunings_at_once : public Tuning_table {
 protected:
  std::string found_at_once(int freq) {
    const std::optional<Stored_tuning> tuning = tunings().find_at_once({INPUT, freq});
    return tuning ? shown(*tuning) : "none";
  }
  Texts stored() { return rows("SELECT freq, pipe, lock_ms FROM tuned_multiplex ORDER BY freq"); }

  // What keeps the table: another program's lock, or a thread that has the connection.
  template <typename Test>
  void with_each_keeper(Test test) {
    {
      support::Other_connection other(file());
      ASSERT_EQ(other.run("BEGIN EXCLUSIVE"), SQLITE_DONE);
      test("another program");
      ASSERT_EQ(other.run("COMMIT"), SQLITE_DONE);
    }
    sqlite3_mutex* const mutex = sqlite3_db_mutex(support::conn_of(sdbl()));
    std::promise<void> has;
    std::promise<void> over;
    std::thread thread([&] {
      sqlite3_mutex_enter(mutex);
      has.set_value();
      over.get_future().wait();
      sqlite3_mutex_leave(mutex);
    });
    has.get_future().wait();
    test("another thread");
    over.set_value();
    thread.join();
  }
};

}  // namespace

TEST_F(Tunings_at_once, find_what_was_read_last_while_the_table_is_kept) {
  ASSERT_TRUE(tunings().store(INPUT, t_));
  open();
  sdbl().parts().remember_tunings();
  with_each_keeper([this](const char* keeper) {
    EXPECT_THAT([&] { EXPECT_EQ(found_at_once(ASKED), shown(t_)); }, prints_at(3, "")) << keeper;
    EXPECT_EQ(found_at_once(ASKED + 3), "none") << keeper;
  });
  run("DELETE FROM tuned_multiplex");
  EXPECT_EQ(found_at_once(ASKED), "none") << "what another program has changed counts";
}

TEST_F(Tunings_at_once, store_what_waited_as_soon_as_the_table_is_free) {
  ASSERT_TRUE(tunings().store(INPUT, t_));
  with_each_keeper([this](const char* keeper) {
    EXPECT_THAT([&] { tunings().store_at_once(INPUT, pipe_3_); }, prints_at(3, "")) << keeper;
    Stored_tuning newer = pipe_3_;
    newer.lock_ms = 7;
    tunings().store_at_once(INPUT, newer);
    EXPECT_EQ(found_at_once(ASKED + 3), shown(newer)) << keeper;
    tunings().save_at_once();
  });
  EXPECT_EQ(stored(), (Texts{"578000000|-1|260"}));
  tunings().save_at_once();
  EXPECT_EQ(stored(), (Texts{"578000000|-1|260", "578000003|3|7"}));
  run("DELETE FROM tuned_multiplex");
  tunings().save_at_once();
  EXPECT_EQ(stored(), Texts{}) << "stored once";
}

TEST_F(Tunings_at_once, are_stored_by_the_first_one_in_a_table_of_their_own_without_waiting) {
  tunings().store_at_once(INPUT, t_);
  EXPECT_EQ(stored(), (Texts{"578000000|-1|260"}));
}

TEST_F(Tunings_at_once, that_can_never_be_stored_are_told_once) {
  run("CREATE TABLE tuned_multiplex (freq int)");
  EXPECT_THAT([&] { tunings().store_at_once(INPUT, t_); }, prints_at(0, HasSubstr("has no column named ")));
  EXPECT_THAT([&] { tunings().save_at_once(); }, prints_at(3, ""));
}

TEST_F(Tunings_at_once, fill_the_stored_parameters_while_their_table_is_kept) {
  const std::string line = "Fr:  578000000 Bw:  1 CrH:  2 CrL:  2 Mod:  3 TrM:  0 Grd:  0 Hir:  0";
  run("INSERT INTO tuner_table (freq, dvb_type, hf_conn, tuner_params) VALUES (578000000, 2, 1, '" + line + "')");
  open();
  const auto filled = [this](int freq) {
    dvb_frontend_parameters p{};
    const int result = sdbl().parts().tuner_table.fill_at_once({INPUT, freq}, &p);
    return std::to_string(result) + " " + std::to_string(p.frequency) + " " + std::to_string(p.u.ofdm.bandwidth);
  };
  EXPECT_EQ(filled(578000000), "1 578000000 1");
  with_each_keeper([&](const char* keeper) {
    EXPECT_THAT([&] { EXPECT_EQ(filled(578000000), "1 578000000 1"); }, prints_at(3, "")) << keeper;
    EXPECT_EQ(filled(578000001), "0 0 0") << keeper;
  });
}

TEST_F(Tunings_at_once, fail_as_an_unreadable_table_does_when_it_could_never_be_read) {
  support::Other_connection other(file());
  ASSERT_EQ(other.run("BEGIN EXCLUSIVE"), SQLITE_DONE);
  sdbl::Tuner_table table(sdbl().parts().connection, sdbl().parts().statements);
  dvb_frontend_parameters p{};
  EXPECT_THAT(
      [&] {
        EXPECT_EQ(table.fill_at_once({INPUT, ASKED}, &p), 1);
      },
      prints_at(1, "WARNING: Failed to get tuner data\n"));
}
