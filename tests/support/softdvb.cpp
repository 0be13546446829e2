// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "support/softdvb.h"

#include <dlfcn.h>

#include <stdexcept>

#include "support/command.h"
#include "support/support.h"
#include "support/test.h"

namespace support {

std::string softdvb_launcher() {
  return KELVO_SOFTDVB_LAUNCHER;
}

Softdvb_run run_program(const std::vector<std::string>& command) {
  const Command_result ended = run_command(command);
  return {ended.exit_code, ended.out, ended.err, {}};
}

Softdvb_run run_softdvb(const std::vector<std::string>& options, const std::vector<std::string>& command) {
  const Temp_dir folder;
  std::vector<std::string> all{softdvb_launcher()};
  all.insert(all.end(), options.begin(), options.end());
  all.insert(all.end(), {"--log", folder.file("log"), "--"});
  all.insert(all.end(), command.begin(), command.end());
  Softdvb_run run = run_program(all);
  run.log = read_file(folder.file("log"));
  return run;
}

bool under_softdvb() {
  return dlsym(RTLD_DEFAULT, "softdvb_control") != nullptr;
}

template <typename Function>
static Function* preloaded(const char* name) {
  void* found = dlsym(RTLD_DEFAULT, name);
  if (found == nullptr)
    throw std::runtime_error(std::string(name) + ": this program does not run under softdvb");
  return reinterpret_cast<Function*>(found);
}

void softdvb_control(const std::string& line) {
  EXPECT_EQ(preloaded<int(const char*)>("softdvb_control")(line.c_str()), 0) << line;
}

void softdvb_inject(int adapter, const std::vector<unsigned char>& packets) {
  EXPECT_EQ(preloaded<int(int, const void*, size_t)>("softdvb_inject")(adapter, packets.data(), packets.size()), 0);
}

long softdvb_play(int adapter, unsigned long packets) {
  return preloaded<long(int, unsigned long)>("softdvb_play")(adapter, packets);
}

}  // namespace support
