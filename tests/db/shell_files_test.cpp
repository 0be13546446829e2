// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/shell_files.h"

#include <dlfcn.h>
#include <pthread.h>
#include <signal.h>

#include "base/thread.h"
#include "support/support.h"
#include "support/test.h"

namespace {

thread_local sigset_t mask_of_command;  // what the last one began with

// Lies between the library and libc. A command begins with the mask that its caller has; some shells clear it later, so
// that it cannot be read there.
using System = int (*)(const char*);

class Command_thread : public COrbelThreadKelvo {
 public:
  explicit Command_thread(std::string file) : COrbelThreadKelvo(nullptr), file_(std::move(file)) {}
  void Execute(void*) override {
    succeeded = sdbl::run_shell("echo done > %s", sdbl::shell_quoted(file_).c_str());
    of_command = mask_of_command;
    (void)pthread_sigmask(SIG_SETMASK, nullptr, &after);
  }

  bool succeeded = false;
  sigset_t of_command{};
  sigset_t after{};

 private:
  std::string file_;
};

std::vector<int> members(const sigset_t& set) {
  std::vector<int> signals;
  for (const int signal : {SIGINT, SIGTERM, SIGUSR1, SIGCHLD, SIGALRM})
    if (sigismember(&set, signal) == 1)
      signals.push_back(signal);
  return signals;
}

}  // namespace

extern "C" int system(const char* command) {
  (void)pthread_sigmask(SIG_SETMASK, nullptr, &mask_of_command);
  return reinterpret_cast<System>(dlsym(RTLD_NEXT, "system"))(command);
}

// Everything that zic, cp, rm and mv are has to end with the signals that end the host's other commands.
TEST(Shell_command, of_a_library_s_thread_begins_with_the_signals_blocked_that_the_host_has) {
  const support::Temp_dir folder;
  for (const std::vector<int>& of_host : {std::vector<int>{}, std::vector<int>{SIGTERM, SIGUSR1}}) {
    sigset_t wanted;
    sigset_t before;
    (void)sigemptyset(&wanted);
    for (const int signal : of_host)
      (void)sigaddset(&wanted, signal);
    ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &wanted, &before), 0);
    Command_thread thread(folder.file("made"));
    EXPECT_EQ(thread.Start(nullptr), 0);
    EXPECT_EQ(thread.Stop(), 0);
    ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &before, nullptr), 0);
    EXPECT_TRUE(thread.succeeded);
    EXPECT_EQ(support::read_file(folder.file("made")), "done\n");
    EXPECT_EQ(members(thread.of_command), of_host);
    EXPECT_EQ(members(thread.after), (std::vector<int>{SIGINT, SIGTERM, SIGUSR1, SIGCHLD, SIGALRM})) << "as before";
  }
}

TEST(Shell_command, of_a_host_s_thread_has_its_signals) {
  sigset_t own;
  ASSERT_EQ(pthread_sigmask(SIG_SETMASK, nullptr, &own), 0);
  EXPECT_TRUE(sdbl::run_shell("true"));
  EXPECT_EQ(members(mask_of_command), members(own));
}
