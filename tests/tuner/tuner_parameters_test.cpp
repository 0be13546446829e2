// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// What a tuner hands to its device: defaults, and what an earlier scan has stored for its input.

#include "tuner/fake_tuner.h"

namespace {

constexpr int VHF_FREQ = 177500000;
constexpr char DEFAULTS[] = " hp=9 lp=9 const=6 mode=3 guard=4 hier=0 inv=0";

// All of them, in the order of a stored line: "506000000 bw=0 hp=9 lp=9 const=6 mode=3 guard=4 hier=0 inv=0".
std::string text(const dvb_frontend_parameters& parameters) {
  const dvb_ofdm_parameters& ofdm = parameters.u.ofdm;
  char all[120];
  std::snprintf(all, sizeof all, "%u bw=%d hp=%d lp=%d const=%d mode=%d guard=%d hier=%d inv=%d", parameters.frequency,
                ofdm.bandwidth, ofdm.code_rate_HP, ofdm.code_rate_LP, ofdm.constellation, ofdm.transmission_mode,
                ofdm.guard_interval, ofdm.hierarchy_information, parameters.inversion);
  return all;
}

class Tuner_parameters_test : public Fake_tuner_test {
 protected:
  void store(int dvb_type, int hf_conn, int freq, const std::string& line) {
    const std::string values = std::to_string(freq) + ", " + std::to_string(dvb_type) + ", " + std::to_string(hf_conn);
    ASSERT_EQ(db.run("INSERT INTO tuner_table (freq, dvb_type, hf_conn, tuner_params) VALUES (" + values + ", '" +
                     line + "')"),
              SQLITE_DONE);
  }
  std::string tuned(int freq) {
    (void)tuner->tunetofreq(freq);
    return text(frontend.tuned());
  }
};

TEST_F(Tuner_parameters_test, a_new_tuner_stands_on_474_mhz_with_the_defaults) {
  const support::Stderr_capture capture;
  const Tuner another(frontend.path(), &db.sdbl(), CONNECTOR, TYPE);
  EXPECT_EQ(text(frontend.tuned()), std::string("474000000 bw=0") + DEFAULTS);
}

TEST_F(Tuner_parameters_test, without_stored_ones_the_defaults_are_used_with_7_mhz_up_to_the_last_frequency_of_vhf) {
  for (const char* expected : {"506000000 bw=0", "177500000 bw=1", "399999999 bw=1", "400000000 bw=0"})
    EXPECT_EQ(tuned(std::stoi(expected)), std::string(expected) + DEFAULTS);
}

TEST_F(Tuner_parameters_test, stored_ones_take_the_place_of_all_defaults) {
  store(CONNECTOR, TYPE, FREQ, "Fr: 506000000 Bw: 2 CrH: 3 CrL: 1 Mod: 3 TrM: 1 Grd: 2 Hir: 1");
  store(CONNECTOR, TYPE, VHF_FREQ, "Fr: 177500000 Bw: 0 CrH: 1 CrL: 2 Mod: 1 TrM: 0 Grd: 3 Hir: 2");
  EXPECT_EQ(tuned(FREQ), "506000000 bw=2 hp=3 lp=1 const=3 mode=1 guard=2 hier=1 inv=0");
  EXPECT_EQ(tuned(VHF_FREQ), "177500000 bw=0 hp=1 lp=2 const=1 mode=0 guard=3 hier=2 inv=0");
}

TEST_F(Tuner_parameters_test, a_short_line_leaves_the_defaults_for_the_rest) {
  store(CONNECTOR, TYPE, FREQ, "Fr: 506000000 Bw: 1 CrH: 3");
  EXPECT_EQ(tuned(FREQ), "506000000 bw=1 hp=3 lp=9 const=6 mode=3 guard=4 hier=0 inv=0");
}

// The database exchanges the two in its look-up: the line is found where the type is the tuner's connector.
TEST_F(Tuner_parameters_test, quirk_only_the_line_of_the_inputs_connector_and_type_exchanged_counts) {
  store(TYPE, CONNECTOR, FREQ, "Fr: 506000000 Bw: 2 CrH: 3 CrL: 1 Mod: 3 TrM: 1 Grd: 2 Hir: 1");
  EXPECT_EQ(tuned(FREQ), "506000000 bw=0 hp=9 lp=9 const=6 mode=3 guard=4 hier=0 inv=0");
  store(CONNECTOR, TYPE, FREQ, "Fr: 506000000 Bw: 1 CrH: 3 CrL: 1 Mod: 3 TrM: 1 Grd: 2 Hir: 1");
  EXPECT_EQ(tuned(FREQ), "506000000 bw=1 hp=3 lp=1 const=3 mode=1 guard=2 hier=1 inv=0");
}

}  // namespace
