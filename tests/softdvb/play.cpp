// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "softdvb/session.h"

// Plays the steps of its argument on the adapters that it runs with, and prints them with what came out; of several
// arguments each in a process of its own, one after the other.
int main(int count, char** arguments) {
  if (count == 2) {
    std::printf("%s\n", device::Session().play(arguments[1]).c_str());
    return 0;
  }
  for (int i = 1; i < count; ++i) {
    char* one[] = {arguments[0], arguments[i], nullptr};
    pid_t child = 0;
    int status = 0;
    if (posix_spawn(&child, arguments[0], nullptr, nullptr, one, environ) != 0 || waitpid(child, &status, 0) != child ||
        status != 0)
      return 1;
  }
  return 0;
}
