// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Programs that look for adapters through libudev see the folder `sysfs` of the run folder, through
// libumockdev-preload. That library has to be loaded from the start and hides all of /sys, so only programs that load
// libudev get it: they begin anew with it before anything of them has run.
#include <dlfcn.h>
#include <errno.h>
#include <link.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "softdvb/model/real.h"
#include "softdvb/model/shared.h"

struct udev;
extern "C" udev* udev_new();

namespace softdvb {

static const char* const UMOCKDEV = "libumockdev-preload.so.0";

static bool is_loaded(const char* library) {
  return dl_iterate_phdr(
             [](dl_phdr_info* info, size_t, void* name) {
               return strstr(info->dlpi_name, static_cast<const char*>(name)) != nullptr ? 1 : 0;
             },
             const_cast<char*>(library)) != 0;
}

static __attribute__((constructor)) void begin_anew_with_umockdev(int, char** arguments, char**) {
  const Shared* s = shared();
  if (s == nullptr || !is_loaded("/libudev.so") || is_loaded(UMOCKDEV))
    return;
  // The loader only complains of a library that it cannot preload, on the program's standard error.
  void* found = dlopen(UMOCKDEV, RTLD_LAZY | RTLD_LOCAL);
  char program[MAX_PATH];
  const ssize_t n = SOFTDVB_REAL(readlink)("/proc/self/exe", program, sizeof program - 1);
  if (found == nullptr || n <= 0)
    return;
  program[n] = '\0';
  const char* before = getenv("LD_PRELOAD");
  const std::string preload = (before != nullptr ? before + std::string(":") : "") + UMOCKDEV;
  setenv("LD_PRELOAD", preload.c_str(), 1);
  setenv("UMOCKDEV_DIR", (std::string(s->run_dir) + "/sysfs").c_str(), 1);
  execv(program, arguments);
}

}  // namespace softdvb

SOFTDVB_EXPORT udev* udev_new() {
  if (softdvb::shared() != nullptr && !softdvb::is_loaded(softdvb::UMOCKDEV))
    fprintf(stderr, "softdvb: %s looks for adapters through libudev, which finds none here without %s (umockdev)\n",
            program_invocation_short_name, softdvb::UMOCKDEV);
  return SOFTDVB_REAL(udev_new)();
}
