// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "support/softdvb.h"

#include <dlfcn.h>
#include <spawn.h>

#include <stdexcept>

#include "support/support.h"
#include "support/test.h"

namespace support {

std::string softdvb_launcher() {
  return KELVO_SOFTDVB_LAUNCHER;
}

Softdvb_run run_program(const std::vector<std::string>& command) {
  const Temp_dir folder;
  const std::string out = folder.file("out");
  const std::string err = folder.file("err");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);  // what a test driver left open
  std::vector<char*> arguments;
  for (const std::string& word : command)
    arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  pid_t child = 0;
  const int error = posix_spawnp(&child, arguments[0], &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0)
    throw std::runtime_error(command[0] + ": " + strerror(error));
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  Softdvb_run run;
  run.exit_code = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  run.out = read_file(out);
  run.err = read_file(err);
  return run;
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
  EXPECT_EQ(0, preloaded<int(const char*)>("softdvb_control")(line.c_str())) << line;
}

void softdvb_inject(int adapter, const std::vector<unsigned char>& packets) {
  EXPECT_EQ(0, preloaded<int(int, const void*, size_t)>("softdvb_inject")(adapter, packets.data(), packets.size()));
}

long softdvb_play(int adapter, unsigned long packets) {
  return preloaded<long(int, unsigned long)>("softdvb_play")(adapter, packets);
}

}  // namespace support
