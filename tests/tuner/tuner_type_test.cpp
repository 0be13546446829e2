// A tuner on a frontend that is not for DVB-T, and one whose monitor cannot start.
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "db/sdbl.h"
#include "support/softdvb.h"
#include "support/support.h"
#include "support/verbosity.h"
#include "tuner/tuner.h"

TEST(Wrong_type, is_an_error_with_the_frontend_s_name_and_the_tuner_goes_on) {
  ASSERT_TRUE(support::under_softdvb());
  const support::Temp_dir folder;
  Sdbl database(folder.file("dvb.db").c_str());
  for (const int level : {0, -1}) {
    const support::Verbosity verbosity(level);
    std::unique_ptr<Tuner> tuner;
    EXPECT_EQ(level == 0 ? "ERROR: Fronetnd softdvb DVB-C 0 cannot OFDM" : "", support::stderr_of([&] {
                tuner = std::make_unique<Tuner>("/dev/dvb/adapter0/frontend0", &database, 0, 0);
              }));
    EXPECT_EQ(474000000, tuner->fe_freq()) << "tuned all the same";
    const support::Stderr_capture capture;  // a pass of the monitor may fail while the device is closed
    tuner.reset();
  }
}

#ifndef __SANITIZE_THREAD__  // whose runtime goes past everybody else's pthread_create
TEST(No_thread, is_an_error_and_the_tuner_works_without_its_monitor) {
  const support::Temp_dir folder;
  Sdbl database(folder.file("dvb.db").c_str());
  support::softdvb_control("fault pthread_create = EAGAIN");  // the adapter needs none for this
  for (const int level : {0, -1}) {
    const support::Verbosity verbosity(level);
    std::unique_ptr<Tuner> tuner;
    const std::string text =
        support::stderr_of([&] { tuner = std::make_unique<Tuner>("/dev/dvb/adapter0/frontend0", &database, 0, 0); });
    constexpr char TOLD[] =
        "ERROR: Cannot start the signal monitor of /dev/dvb/adapter0/frontend0: Resource temporarily unavailable\n";
    EXPECT_EQ(level == 0, text.find(TOLD) != std::string::npos) << text;
    EXPECT_EQ(474000000, tuner->fe_freq());
  }
}
#endif
