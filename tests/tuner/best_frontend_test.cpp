// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Which frontend of an adapter is used, and how it is asked. The devices are files of this program: adapter 7 has what
// a test says.
#include <fcntl.h>
#include <linux/dvb/frontend.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>

#include <cstdarg>

#include "support/test.h"
#include "support/text.h"
#include "tuner/tuner.h"

using support::Texts;

namespace {

struct Fake {
  std::vector<uint8_t> systems;
  bool hides_from_readers = false;  // until it is locked, as some drivers do
  bool enumerates = true;
  fe_type type = FE_OFDM;
  int error = 0;  // of each opening
  int busy = 0;   // of openings for writing
};

std::vector<Fake> fakes;
std::map<int, std::pair<size_t, int>> handles;  // frontend and flags
Texts opened;

const std::string FOLDER = "/dev/dvb/adapter7/frontend";

int open_fake(const std::string& path, int flags) {
  const size_t number = std::stoul(path.substr(FOLDER.size()));
  if (number >= fakes.size()) {
    errno = ENOENT;
    return -1;
  }
  const bool writes = (flags & O_ACCMODE) != O_RDONLY;
  opened.push_back(std::to_string(number) + (writes ? " write" : " read"));
  const int error = fakes[number].error != 0 ? fakes[number].error : writes ? fakes[number].busy : 0;
  if (error != 0) {
    errno = error;
    return -1;
  }
  const int handle = static_cast<int>(syscall(SYS_openat, AT_FDCWD, "/dev/null", O_RDWR | O_CLOEXEC));
  handles[handle] = {number, flags};
  return handle;
}

int ioctl_fake(const Fake& fake, int flags, unsigned long request, void* argument) {
  if (request == FE_GET_INFO) {
    auto* info = static_cast<dvb_frontend_info*>(argument);
    *info = {};
    std::strcpy(info->name, "fake");
    info->type = fake.type;
    info->frequency_min = 174000000;
    info->frequency_max = 862000000;
    return 0;
  }
  const bool reads = (flags & O_ACCMODE) == O_RDONLY;
  if (request != FE_GET_PROPERTY || !fake.enumerates || (reads && fake.hides_from_readers)) {
    errno = EINVAL;
    return -1;
  }
  dtv_property& property = static_cast<dtv_properties*>(argument)->props[0];
  EXPECT_EQ(property.cmd, uint32_t{DTV_ENUM_DELSYS});
  property.u.buffer.len = static_cast<uint32_t>(fake.systems.size());
  std::copy(fake.systems.begin(), fake.systems.end(), property.u.buffer.data);
  return 0;
}

// "frontend1 T T2", or "frontend0 errno 13".
std::string best() {
  opened.clear();
  const Frontend_state state = Tuner::best_frontend(7);
  std::string text = state.path.substr(state.path.rfind('/') + 1);
  if (state.error != 0)
    return text + " errno " + std::to_string(state.error);
  for (const int system : state.systems)
    text += system == SYS_DVBT2 ? " T2" : " T";
  return text;
}

Fake with(std::vector<uint8_t> systems) {
  Fake fake;
  fake.systems = std::move(systems);
  return fake;
}

}  // namespace

extern "C" int open(const char* path, int flags, ...) {
  if (std::string(path).starts_with(FOLDER))
    return open_fake(path, flags);
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

extern "C" int ioctl(int handle, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  const auto fake = handles.find(handle);
  if (fake == handles.end())
    return static_cast<int>(syscall(SYS_ioctl, handle, request, argument));
  return ioctl_fake(fakes[fake->second.first], fake->second.second, request, argument);
}

TEST(Best_frontend, is_the_first_with_t2_else_with_t) {
  struct Case {
    const char* legend;
    std::vector<Fake> frontends;
    const char* expected;
  };
  const Case cases[] = {
      {"one for T", {with({SYS_DVBT})}, "frontend0 T"},
      {"the second one has T2", {with({SYS_DVBT}), with({SYS_DVBT, SYS_DVBT2, SYS_DVBC_ANNEX_A})}, "frontend1 T T2"},
      {"both have T2", {with({SYS_DVBT2, SYS_DVBT}), with({SYS_DVBT, SYS_DVBT2})}, "frontend0 T2 T"},
      {"cable first", {with({SYS_DVBC_ANNEX_A}), with({SYS_DVBT})}, "frontend1 T"},
      {"cable among its own systems first", {with({SYS_DVBC_ANNEX_A, SYS_DVBC_ANNEX_C, SYS_DVBT})}, "frontend0 T"},
      {"none of both", {with({SYS_DVBS}), with({SYS_DVBC_ANNEX_A})}, "frontend0"},
      {"nothing there", {}, "frontend0 errno 2"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.legend);
    fakes = c.frontends;
    EXPECT_EQ(best(), c.expected);
  }
}

TEST(Best_frontend, is_asked_by_readers_which_load_no_firmware) {
  fakes = {with({SYS_DVBT}), with({SYS_DVBT2})};
  EXPECT_EQ(best(), "frontend1 T2");
  EXPECT_EQ(opened, (Texts{"0 read", "1 read"}));
}

TEST(Best_frontend, is_asked_by_a_writer_where_readers_get_no_answer) {
  fakes = {with({SYS_DVBT})};
  fakes[0].hides_from_readers = true;
  EXPECT_EQ(best(), "frontend0 T");
  EXPECT_EQ(opened, (Texts{"0 read", "0 write"}));
}

TEST(Best_frontend, counts_as_dvb_t_by_its_type_where_nobody_gets_an_answer) {
  for (const int busy : {0, EBUSY}) {
    fakes = {with({})};
    fakes[0].enumerates = false;
    fakes[0].busy = busy;
    EXPECT_EQ(best(), "frontend0 T");
    fakes[0].type = FE_QAM;
    EXPECT_EQ(best(), "frontend0");
  }
}

TEST(Best_frontend, has_the_reason_why_it_cannot_be_opened) {
  fakes = {with({SYS_DVBT})};
  fakes[0].error = EACCES;
  EXPECT_EQ(best(), "frontend0 errno " + std::to_string(EACCES));
}

TEST(Probe, names_all_systems_and_those_that_are_used) {
  fakes = {with({SYS_DVBC_ANNEX_A, SYS_DVBT, SYS_DVBH, SYS_DVBT2, SYS_DVBS2, SYS_ISDBT})};
  const Frontend_state state = Tuner::probe("/dev/dvb/adapter7/frontend0");
  EXPECT_EQ(state.all_systems,
            (std::vector<int>{SYS_DVBC_ANNEX_A, SYS_DVBT, SYS_DVBH, SYS_DVBT2, SYS_DVBS2, SYS_ISDBT}));
  EXPECT_EQ(state.systems, (std::vector<int>{SYS_DVBT, SYS_DVBT2}));
  EXPECT_EQ(state.lowest_hz, 174000000);
}

TEST(Probe, takes_the_type_for_the_system_where_the_driver_names_none) {
  const std::pair<fe_type, int> cases[] = {
      {FE_OFDM, SYS_DVBT}, {FE_QAM, SYS_DVBC_ANNEX_A}, {FE_QPSK, SYS_DVBS}, {FE_ATSC, SYS_ATSC}};
  for (const auto& [type, system] : cases) {
    fakes = {with({})};
    fakes[0].enumerates = false;
    fakes[0].type = type;
    const Frontend_state state = Tuner::probe("/dev/dvb/adapter7/frontend0");
    EXPECT_EQ(state.all_systems, std::vector<int>{system});
    // Those of satellites are told in kHz.
    EXPECT_EQ(state.lowest_hz, type == FE_QPSK ? 174000000000 : 174000000);
  }
}
