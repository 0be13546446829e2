// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <linux/dvb/frontend.h>

#include "db_support.h"

using support::messages_at;
using support::prints_only_from;
using support::stderr_of;
using support::Texts;
using testing::HasSubstr;

namespace {

constexpr char LINE[] = "Fr:  506000000 Bw:  0 CrH:  3 CrL:  3 Mod:  3 TrM:  2 Grd:  0 Hir:  0";

struct Fields {
  int bandwidth = 0;
  int constellation = 2;
  int hierarchy = 0;
  int code_rate_hp = 2;
  int code_rate_lp = 2;
  int guard_interval = 0;
  int transmission_mode = 1;
};

// The numbers in the order of a line, behind the frequency and the inversion.
std::string shown(const dvb_frontend_parameters& p) {
  std::ostringstream out;
  out << p.frequency << " " << p.inversion << ": " << p.u.ofdm.bandwidth << " " << p.u.ofdm.code_rate_HP << " "
      << p.u.ofdm.code_rate_LP << " " << p.u.ofdm.constellation << " " << p.u.ofdm.transmission_mode << " "
      << p.u.ofdm.guard_interval << " " << p.u.ofdm.hierarchy_information;
  return out.str();
}

const dvb_frontend_parameters BEFORE = [] {
  dvb_frontend_parameters all{};
  all.frequency = 7;
  all.inversion = INVERSION_AUTO;
  all.u.ofdm = {BANDWIDTH_AUTO,      FEC_AUTO,      FEC_AUTO, QAM_AUTO, TRANSMISSION_MODE_4K,
                GUARD_INTERVAL_AUTO, HIERARCHY_AUTO};
  return all;
}();
const std::string UNTOUCHED = "0 " + shown(BEFORE);

class Tuner_table : public db_support::Database_test {
 protected:
  void store(const Fields& f, int type = 1, int connector = 1, int freq = FREQ) {
    sdbl().terrestrial_tuner_info(type, connector, freq, f.bandwidth, f.constellation, f.hierarchy, f.code_rate_hp,
                                  f.code_rate_lp, f.guard_interval, f.transmission_mode);
  }
  Texts lines() { return rows("SELECT tuner_params FROM tuner_table"); }
  // The result, and what has become of parameters that were BEFORE.
  std::string filled(int freq, int connector = 1) {
    dvb_frontend_parameters out = BEFORE;
    const int result = sdbl().fill_frontend_control(connector, 1, freq, &out);
    return std::to_string(result) + " " + shown(out);
  }
};

// One field, the values it may have and what is stored for each; then values that it may not have.
struct Mapping {
  const char* legend;
  int Fields::*field;
  const char* label;
  std::vector<std::pair<int, int>> stored;
  std::vector<int> invalid;
};

const Mapping MAPPINGS[] = {
    {"bandwidth", &Fields::bandwidth, "Bw: ", {{0, 0}, {1, 1}, {2, 2}}, {3, 4, 7, -1, INT_MAX, INT_MIN}},
    {"constellation", &Fields::constellation, "Mod: ", {{0, 0}, {1, 1}, {2, 3}}, {3, 4, -1, INT_MAX, INT_MIN}},
    {"hierarchy", &Fields::hierarchy, "Hir: ", {{0, 0}, {1, 1}, {2, 2}, {3, 3}, {4, 0}, {6, 2}, {7, 3}, {-1, 3}}, {}},
    {"code rate HP", &Fields::code_rate_hp, "CrH: ", {{0, 1}, {1, 2}, {2, 3}, {3, 5}, {4, 7}}, {5, 6, 7, -1, INT_MAX}},
    {"code rate LP", &Fields::code_rate_lp, "CrL: ", {{0, 1}, {1, 2}, {2, 3}, {3, 5}, {4, 7}}, {5, 6, 7, -1, INT_MAX}},
    {"guard interval", &Fields::guard_interval, "Grd: ", {{0, 0}, {1, 1}, {2, 2}, {3, 3}}, {4, -1, INT_MAX, INT_MIN}},
    {"transmission mode", &Fields::transmission_mode, "TrM: ", {}, {3, 4, -1, INT_MAX}},
};

}  // namespace

TEST_F(Tuner_table, a_line_has_its_exact_form_and_outlives_the_connection) {
  store(Fields{});
  EXPECT_EQ(rows("SELECT freq, dvb_type, hf_conn, tuner_params FROM tuner_table"),
            (Texts{std::string("506000000|1|1|") + LINE}));
  sdbl().close_db();
  sdbl().open_db();
  EXPECT_EQ(filled(FREQ), "1 506000000 0: 0 3 3 3 2 0 0");
}

TEST_F(Tuner_table, every_valid_value_is_converted) {
  int freq = 1;
  for (const Mapping& mapping : MAPPINGS)
    for (const auto& [value, stored] : mapping.stored) {
      Fields fields;
      fields.*mapping.field = value;
      store(fields, 1, 1, ++freq);
      const std::string expected = mapping.label + std::string(" ") + std::to_string(stored);
      EXPECT_THAT(rows("SELECT tuner_params FROM tuner_table WHERE freq = " + std::to_string(freq)),
                  testing::ElementsAre(HasSubstr(expected)))
          << mapping.legend << " " << value;
    }
}

TEST_F(Tuner_table, quirk_transmission_modes_1_and_2_are_exchanged) {
  int freq = 1;
  for (const auto& [value, stored] : std::vector<std::pair<int, std::string>>{{0, "0"}, {1, "2"}, {2, "1"}}) {
    Fields fields;
    fields.transmission_mode = value;
    store(fields, 1, 1, ++freq);
    EXPECT_THAT(rows("SELECT tuner_params FROM tuner_table WHERE freq = " + std::to_string(freq)),
                testing::ElementsAre(HasSubstr("TrM:  " + stored)));
  }
}

TEST_F(Tuner_table, every_invalid_value_stores_nothing_and_warns) {
  for (const Mapping& mapping : MAPPINGS)
    for (const int value : mapping.invalid) {
      Fields fields;
      fields.*mapping.field = value;
      EXPECT_THAT([&] { store(fields); }, prints_only_from(1, "WARNING: Incorrect parameters for linux-dvb\n"))
          << mapping.legend << " " << value;
    }
  EXPECT_EQ(lines(), Texts{});
}

TEST_F(Tuner_table, the_same_parameters_again_change_nothing_and_other_ones_in_any_field_are_another_line) {
  EXPECT_THAT([&] { store(Fields{}); }, prints_only_from(1, std::string("WARNING: Dvb parameters ") + LINE + "\n"));
  EXPECT_EQ(lines(), (Texts{LINE}));
  for (const Mapping& mapping : MAPPINGS) {
    Fields changed;
    changed.*mapping.field = changed.*mapping.field == 1 ? 0 : 1;
    EXPECT_THAT(messages_at(1, [&] { store(changed); }), HasSubstr("WARNING: Updating parameters for dvb-t tuner\n"))
        << mapping.legend;
  }
  EXPECT_THAT(messages_at(1, [&] { store(Fields{}); }), testing::Not(HasSubstr("Updating")));
}

TEST_F(Tuner_table, quirk_a_stored_line_is_never_updated) {
  store(Fields{});
  Fields changed;
  changed.bandwidth = 1;
  EXPECT_EQ(messages_at(1, [&] { store(changed); }),
            "WARNING: Dvb parameters Fr:  506000000 Bw:  1 CrH:  3 CrL:  3 Mod:  3 TrM:  2 Grd:  0 Hir:  0\n"
            "WARNING: Updating parameters for dvb-t tuner\n");
  EXPECT_EQ(lines(), (Texts{LINE}));
  EXPECT_EQ(stderr_of([&] { store(changed); }), "");
  EXPECT_EQ(lines(), (Texts{LINE}));
}

// The update is a place off: it looks for the type as frequency, the connector as type, and connector 0.
TEST_F(Tuner_table, quirk_a_changed_line_is_written_where_the_type_is_the_frequency) {
  run("INSERT INTO tuner_table (freq, dvb_type, hf_conn, tuner_params) VALUES (506000000, 2, 1, 'old')");
  run("INSERT INTO tuner_table (freq, dvb_type, hf_conn, tuner_params) VALUES (1, 2, 0, 'hit')");
  run("INSERT INTO tuner_table (freq, dvb_type, hf_conn, tuner_params) VALUES (1, 2, 2, 'other connector')");
  run("INSERT INTO tuner_table (freq, dvb_type, hf_conn, tuner_params) VALUES (1, 1, 0, 'other type')");
  run("INSERT INTO tuner_table (freq, dvb_type, hf_conn, tuner_params) VALUES (2, 2, 0, 'other frequency')");
  store(Fields{}, 1, 2);
  EXPECT_EQ(lines(), (Texts{"old", LINE, "other connector", "other type", "other frequency"}));
}

TEST_F(Tuner_table, statements_are_these_with_their_numbers) {
  const std::string select =
      "SELECT tuner_params from tuner_table where freq = $freq AND dvb_type = $type AND hf_conn = $hf_con <- 506000000 "
      "2 1";
  const auto traced = [](const auto& action) { return support::statements_in(messages_at(4, action)); };
  EXPECT_EQ(
      traced([this] { store(Fields{}, 1, 2); }),
      (Texts{select,
             "INSERT into tuner_table (freq, dvb_type,hf_conn, tuner_params) VALUES ( $freq, $dvb_type, $hf_conn, "
             "@tuner_params)  <- 506000000 1 2"}));
  run("UPDATE tuner_table SET dvb_type = 2, hf_conn = 1");
  EXPECT_EQ(traced([this] { store(Fields{}, 1, 2); }), Texts{select}) << "the same parameters";
  Fields changed;
  changed.bandwidth = 1;
  EXPECT_EQ(traced([&] { store(changed, 1, 2); }),
            (Texts{select,
                   "UPDATE tuner_table SET tuner_params = @dvbt_param where freq = $freq AND dvb_type = $type AND "
                   "hf_conn = $hf_con  <- 1 2 0"}));
  dvb_frontend_parameters out{};
  EXPECT_EQ(traced([&] { (void)sdbl().fill_frontend_control(1, 2, FREQ, &out); }), Texts{select});
}

TEST_F(Tuner_table, each_number_of_a_line_fills_the_field_of_its_label_and_the_inversion_is_off) {
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"a stored line", "", "1 506000000 0: 0 3 3 3 2 0 0"},
      {"another value in each", "Fr:  177500000 Bw:  1 CrH:  2 CrL:  3 Mod:  6 TrM:  4 Grd:  5 Hir:  7",
       "1 177500000 0: 1 2 3 6 4 5 7"},
      {"fewer numbers", "Fr:  506000000 Bw:  1 CrH:  2 nonsense", "1 506000000 0: 1 2 9 6 3 4 4"},
      {"nonsense", "hello", "1 7 0: 3 9 9 6 3 4 4"},
  };
  for (const auto& [legend, line, expected] : cases) {
    run("DELETE FROM tuner_table");
    store(Fields{});
    if (*line != 0)
      run(std::string("UPDATE tuner_table SET tuner_params = '") + line + "'");
    EXPECT_EQ(filled(FREQ), expected) << legend;
    EXPECT_EQ(filled(FREQ + 1), UNTOUCHED) << legend << ", another frequency";
    EXPECT_EQ(filled(FREQ, 2), UNTOUCHED) << legend << ", another connector";
  }
  run("UPDATE tuner_table SET tuner_params = NULL");
  EXPECT_EQ(filled(FREQ), "1 7 0: 3 9 9 6 3 4 4");
}

TEST_F(Tuner_table, quirk_connector_and_type_are_exchanged_in_lookups) {
  store(Fields{}, 1, 2);  // type 1, connector 2
  EXPECT_EQ(rows("SELECT dvb_type, hf_conn FROM tuner_table"), (Texts{"1|2"}));
  dvb_frontend_parameters out{};
  EXPECT_EQ(sdbl().fill_frontend_control(1, 2, FREQ, &out), 0);
  EXPECT_EQ(sdbl().fill_frontend_control(2, 1, FREQ, &out), 1);
}

TEST_F(Tuner_table, quirk_connector_and_type_different_store_once_and_then_fail_each_time) {
  store(Fields{}, 1, 2);
  EXPECT_THAT(stderr_of([&] { store(Fields{}, 1, 2); }),
              testing::StartsWith("ERROR: Sqlite_step failed for INSERT into tuner_table (freq, dvb_type,hf_conn, "
                                  "tuner_params) VALUES ( $freq, $dvb_type, $hf_conn, @tuner_params)  , error UNIQUE "
                                  "constraint failed: tuner_table.freq, tuner_table.hf_conn, tuner_table.dvb_type\n"));
  EXPECT_EQ(lines(), (Texts{LINE}));
}

TEST_F(Tuner_table, quirk_a_failing_database_returns_non_zero_and_fills_nothing) {
  run("DROP TABLE tuner_table");
  dvb_frontend_parameters out;
  std::memset(&out, 0x5A, sizeof out);
  const dvb_frontend_parameters before = out;
  EXPECT_THAT(messages_at(1, [&] { EXPECT_NE(sdbl().fill_frontend_control(1, 1, FREQ, &out), 0); }),
              testing::EndsWith("WARNING: Failed to get tuner data\n"));
  EXPECT_EQ(std::memcmp(&out, &before, sizeof out), 0);
  EXPECT_THAT(messages_at(1, [&] { store(Fields{}); }), testing::EndsWith("WARNING: failed to access tuner_table\n"));
  EXPECT_THAT(stderr_of([&] { sdbl().fill_frontend_control(1, 1, FREQ, &out); }), testing::Not(HasSubstr("WARNING")));
  EXPECT_THAT(stderr_of([&] { store(Fields{}); }), testing::Not(HasSubstr("WARNING")));
}
