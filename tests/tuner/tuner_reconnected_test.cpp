// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The input of a Kelvo's tuner, also after it was disconnected and connected again.
#include <linux/dvb/frontend.h>
#include <sys/ioctl.h>

#include "kelvo/kelvo.h"
#include "support/database.h"
#include "support/softdvb.h"
#include "support/test.h"

namespace {

constexpr int FREQ = 506000000;
constexpr int CONNECTOR = 3;
constexpr int TYPE = 1;

// The bandwidth that the device is tuned to, as another program sees it; -1 without an answer.
int tuned_bandwidth() {
  const int device = open("/dev/dvb/adapter0/frontend0", O_RDONLY | O_CLOEXEC);
  dvb_frontend_parameters parameters{};
  const int result = ioctl(device, FE_GET_FRONTEND, &parameters);
  close(device);
  return result < 0 ? -1 : static_cast<int>(parameters.u.ofdm.bandwidth);
}

TEST(Tuner_reconnected_test, looks_for_the_parameters_of_the_same_input) {
  ASSERT_TRUE(support::under_softdvb());
  support::Database db;
  // The look-up exchanges the two. A line for the input the other way round would be of 7 MHz.
  ASSERT_EQ(db.run("INSERT INTO tuner_table (freq, dvb_type, hf_conn, tuner_params) "
                   "VALUES (506000000, 3, 1, 'Fr: 506000000 Bw: 2')"),
            SQLITE_DONE);
  ASSERT_EQ(db.run("INSERT INTO tuner_table (freq, dvb_type, hf_conn, tuner_params) "
                   "VALUES (506000000, 1, 3, 'Fr: 506000000 Bw: 1')"),
            SQLITE_DONE);
  const support::Stderr_capture capture;  // a tuner that goes says that its last pass failed
  Kelvo kelvo(0, CONNECTOR, TYPE, &db.sdbl(), true, nullptr);
  EXPECT_EQ(tuned_bandwidth(), 0);
  (void)kelvo.tune_to_freq(FREQ, -1, nullptr, nullptr);
  EXPECT_EQ(tuned_bandwidth(), 2);
  kelvo.set_tuner(false);
  kelvo.set_tuner(true);
  EXPECT_EQ(tuned_bandwidth(), 0);
  (void)kelvo.tune_to_freq(FREQ, -1, nullptr, nullptr);
  EXPECT_EQ(tuned_bandwidth(), 2);
}

}  // namespace
