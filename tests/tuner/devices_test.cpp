// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// A Tuner of any_linux on imitations of the devices that people own. On the air of each adapter: DVB-T on 506 MHz and,
// with a lock that comes late, on 538 MHz; DVB-T2 on 514 MHz, and with all in pipe 2 on 522 MHz; on 530 MHz a signal
// too weak for a lock. Nothing on 602 MHz. Adapter 0 is FIRST_DEVICE of the table: an adapter's run has eight of them.
#include "support/database.h"
#include "support/softdvb.h"
#include "support/test.h"
#include "tuner/tuner.h"

namespace {

const char* name_of_outcome(int outcome) {
  const char* const NAMES[] = {"none",    "locked",    "no signal", "no lock",    "no stream",
                               "refused", "cancelled", "no device", "no firmware"};
  return NAMES[outcome];
}

std::string text(const Tuning_result& result) {
  std::string out = name_of_outcome(result.outcome);
  if (result.outcome == TUNING_LOCKED) {
    out += result.system == SYS_DVBT2 ? " T2 " : " T ";
    out += std::to_string(result.key);
    if (result.pipe >= 0)
      out += " pipe " + std::to_string(result.pipe);
    if (result.offset_hz != 0)
      out += " offset " + std::to_string(result.offset_hz);
  }
  return out;
}

std::string text(const Signal_value& value) {
  const char* const NAMES[] = {"-", "dB", "%", "rate", "driver", "box"};
  return NAMES[value.scale];
}

std::string scales(const Signal_readings& signal) {
  return text(signal.strength) + " " + text(signal.snr) + " " + text(signal.post_ber) + " " + text(signal.block_errors);
}

struct Device_case {
  const char* name;
  const char* systems;
  const char* t;       // 506 MHz
  const char* t2;      // 514 MHz
  const char* piped;   // 522 MHz
  const char* weak;    // 530 MHz
  const char* late;    // 538 MHz
  const char* scales;  // of strength, SNR, bit and block errors on 506 MHz
};

constexpr Device_case DEVICES[] = {
    {.name = "unkind",
     .systems = "T T2 ",
     .t = "locked T 506000000 offset 166000",
     .t2 = "locked T2 514000000 offset 166000",
     .piped = "locked T2 522000000 offset 166000",
     .weak = "no lock",
     .late = "locked T 538000000 offset 166000",
     .scales = "dB dB rate rate"},
    {.name = "rtl2832",
     .systems = "T ",
     .t = "locked T 506000000",
     .t2 = "no signal",
     .piped = "no signal",
     .weak = "no lock",
     .late = "locked T 538000000",
     .scales = "% dB rate -"},
    {.name = "si2168",
     .systems = "T T2 ",
     .t = "locked T 506000000",
     .t2 = "locked T2 514000000",
     .piped = "locked T2 522000000",
     .weak = "no lock",
     .late = "locked T 538000000",
     .scales = "dB dB rate rate"},
    {.name = "mn88472",
     .systems = "T T2 ",
     .t = "locked T 506000000",
     .t2 = "locked T2 514000000",
     .piped = "locked T2 522000002 pipe 2",
     .weak = "no lock",
     .late = "locked T 538000000",
     .scales = "% dB rate rate"},
    {.name = "cxd2820r",
     .systems = "T T2 ",
     .t = "locked T 506000000",
     .t2 = "locked T2 514000000",
     .piped = "locked T2 522000000",
     .weak = "no lock",
     .late = "locked T 538000000",
     .scales = "% dB rate driver"},
    {.name = "cxd2841er",
     .systems = "T T2 ",
     .t = "locked T 506000000 offset 1234",
     .t2 = "locked T2 514000000 offset 1234",
     .piped = "locked T2 522000000 offset 1234",
     .weak = "no lock",
     .late = "locked T 538000000 offset 1234",
     .scales = "dB dB rate rate"},
    {.name = "drxk",
     .systems = "T ",
     .t = "locked T 506000000",
     .t2 = "no signal",
     .piped = "no signal",
     .weak = "no lock",
     .late = "locked T 538000000",
     .scales = "% dB rate rate"},
    {.name = "stv0367",
     .systems = "T ",
     .t = "locked T 506000000",
     .t2 = "no signal",
     .piped = "no signal",
     .weak = "no lock",
     .late = "locked T 538000000",
     .scales = "dB dB rate rate"},
    {.name = "box",
     .systems = "T ",
     .t = "locked T 506000000",
     .t2 = "no signal",
     .piped = "no signal",
     .weak = "no lock",
     .late = "locked T 538000000",
     .scales = "% % rate rate"},
    {.name = "dib7000p",
     .systems = "T ",
     .t = "locked T 506000000",
     .t2 = "no signal",
     .piped = "no signal",
     .weak = "no lock",
     .late = "locked T 538000000",
     .scales = "dB dB rate rate"},
    {.name = "af9033",
     .systems = "T ",
     .t = "locked T 506000000",
     .t2 = "no signal",
     .piped = "no signal",
     .weak = "no lock",
     .late = "locked T 538000000",
     .scales = "dB dB rate rate"},
    {.name = "zl10353",
     .systems = "T ",
     .t = "locked T 506000000",
     .t2 = "no signal",
     .piped = "no signal",
     .weak = "no lock",
     .late = "locked T 538000000",
     .scales = "driver driver driver driver"},
};

class Devices_test : public testing::TestWithParam<int> {
 protected:
  Devices_test() { tuner_ = make(); }

  std::unique_ptr<Tuner> make() {
    const std::string path = "/dev/dvb/adapter" + std::to_string(GetParam() - FIRST_DEVICE) + "/frontend0";
    return std::make_unique<Tuner>(path.c_str(), &db_.sdbl(), 0, 0, Receiver_profile::any_linux());
  }
  std::string tune(int freq, int system = 0) {
    Tuning_request request;
    request.freq = freq;
    request.system = system;
    (void)tuner_->tune(request);
    return text(tuner_->last_tuning());
  }
  static const Device_case& device() { return DEVICES[GetParam()]; }

  support::Database db_;
  std::unique_ptr<Tuner> tuner_;
};

}  // namespace

TEST_P(Devices_test, finds_what_it_can_receive_and_says_why_not) {
  const Device_case& d = device();
  SCOPED_TRACE(d.name);
  std::string systems;
  for (const int system : tuner_->frontend_state().systems)
    systems += system == SYS_DVBT2 ? "T2 " : "T ";
  EXPECT_EQ(systems, d.systems);
  EXPECT_EQ(tune(602000000), "no signal");
  EXPECT_EQ(tune(506000000), d.t);
  EXPECT_EQ(scales(tuner_->signal()), d.scales);
  EXPECT_TRUE(tuner_->tuned_to(506000000));
  EXPECT_FALSE(tuner_->tuned_to(514000000));
  EXPECT_EQ(tune(514000000), d.t2);
  EXPECT_EQ(tune(522000000), d.piped);
  EXPECT_EQ(tune(530000000), d.weak);
  EXPECT_EQ(tune(538000000), d.late);
}

TEST_P(Devices_test, finds_again_what_it_has_stored) {
  const Device_case& d = device();
  SCOPED_TRACE(d.name);
  EXPECT_EQ(tune(506000000), d.t);
  EXPECT_EQ(tune(522000000), d.piped);
  const int key = tuner_->last_tuning().key;
  tuner_.reset();
  tuner_ = make();
  EXPECT_EQ(tune(506000000), d.t);
  EXPECT_EQ(tune(key), d.piped);
}

INSTANTIATE_TEST_SUITE_P(Adapters, Devices_test, testing::Range(FIRST_DEVICE, LAST_DEVICE + 1),
                         [](const auto& device) { return std::string(DEVICES[device.param].name); });
