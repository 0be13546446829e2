// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// A tuner on a frontend that is not for DVB-T, and one whose monitor cannot start.

#include "support/database.h"
#include "support/messages.h"
#include "support/softdvb.h"
#include "tuner/tuner.h"

namespace {

// What making a tuner prints at `level`; it is tuned all the same.
std::string printed_by_constructor(int level) {
  EXPECT_TRUE(support::under_softdvb());
  support::Database db;
  std::unique_ptr<Tuner> tuner;
  const support::Stderr_capture capture;  // a pass of the monitor may fail while the device is closed
  const std::string text = support::messages_at(
      level, [&] { tuner = std::make_unique<Tuner>("/dev/dvb/adapter0/frontend0", &db.sdbl(), 0, 0); });
  EXPECT_EQ(tuner->fe_freq(), 474000000);
  tuner.reset();
  return text;
}

}  // namespace

TEST(Wrong_type, is_an_error_with_the_frontend_s_name_and_the_tuner_goes_on) {
  EXPECT_EQ(printed_by_constructor(0), "ERROR: Fronetnd softdvb DVB-C 0 cannot OFDM");
  EXPECT_EQ(printed_by_constructor(-1), "");
}

#ifndef __SANITIZE_THREAD__  // whose runtime goes past everybody else's pthread_create
TEST(No_thread, is_an_error_and_the_tuner_works_without_its_monitor) {
  constexpr char TOLD[] =
      "ERROR: Cannot start the signal monitor of /dev/dvb/adapter0/frontend0: Resource temporarily unavailable\n";
  support::softdvb_control("fault pthread_create = EAGAIN");  // the adapter needs none for this
  EXPECT_THAT(printed_by_constructor(0), testing::HasSubstr(TOLD));
  EXPECT_THAT(printed_by_constructor(-1), testing::Not(testing::HasSubstr(TOLD)));
}
#endif
