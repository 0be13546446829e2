// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Part of every test program: no test sets the machine's clock, also when what it tests does what it should not. The
// calls that set it end here and fail the test. Under the software adapter they go on to it, which records them. Both
// this process and those that it starts have given up the right as well, for calls that come another way.
//
// The functions are weak: a test that answers such a call by itself defines it.
#include <dlfcn.h>
#include <link.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/timex.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#define KELVO_NO_CLOCK extern "C" [[gnu::weak, gnu::visibility("default")]]

extern "C" int stime(const time_t* t) noexcept;

namespace {

// Failures are those of a process that never had it.
[[gnu::constructor]] void give_up_the_right() {
  (void)prctl(PR_CAPBSET_DROP, CAP_SYS_TIME, 0, 0, 0);
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3]{};
  if (syscall(SYS_capget, &header, sets) != 0)
    return;
  __user_cap_data_struct& set = sets[CAP_TO_INDEX(CAP_SYS_TIME)];
  const uint32_t others = ~CAP_TO_MASK(CAP_SYS_TIME);
  set.effective &= others;
  set.permitted &= others;
  set.inheritable &= others;
  (void)syscall(SYS_capset, &header, sets);
}

template <typename Function>
Function* next(const char* name, Function* /* the one here */) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// The software adapter's library, null when it is not loaded. A sanitizer's may stand before it.
void* adapter_library() {
  std::string file;
  (void)dl_iterate_phdr(
      [](dl_phdr_info* info, size_t, void* found) {
        if (std::strstr(info->dlpi_name, "libsoftdvb.so") == nullptr)
          return 0;
        *static_cast<std::string*>(found) = info->dlpi_name;
        return 1;
      },
      &file);
  return file.empty() ? nullptr : dlopen(file.c_str(), RTLD_LAZY | RTLD_NOLOAD);
}

void* const library_of_adapter = adapter_library();  // once: later there may be no memory

// Null when the software adapter is not loaded.
template <typename Function>
Function* adapter(const char* name, Function* /* the one here */) {
  return library_of_adapter != nullptr ? reinterpret_cast<Function*>(dlsym(library_of_adapter, name)) : nullptr;
}

template <typename Function, typename... Arguments>
int set_on_adapter_only(const char* name, Function* here, Arguments... arguments) {
  if (Function* const recorded = adapter(name, here))
    return recorded(arguments...);
  ADD_FAILURE() << name << " would have set the machine's clock";
  errno = EPERM;
  return -1;
}

}  // namespace

KELVO_NO_CLOCK int settimeofday(const timeval* tv, const struct timezone* zone) noexcept {
  return set_on_adapter_only("settimeofday", settimeofday, tv, zone);
}

KELVO_NO_CLOCK int clock_settime(clockid_t clock, const timespec* t) noexcept {
  return set_on_adapter_only("clock_settime", clock_settime, clock, t);
}

KELVO_NO_CLOCK int stime(const time_t* t) noexcept {
  return set_on_adapter_only("stime", stime, t);
}

// Those that follow answer questions, too.

KELVO_NO_CLOCK int adjtime(const timeval* by, timeval* left) noexcept {
  return by == nullptr ? next("adjtime", adjtime)(by, left) : set_on_adapter_only("adjtime", adjtime, by, left);
}

KELVO_NO_CLOCK int adjtimex(timex* t) noexcept {
  return t->modes == 0 ? next("adjtimex", adjtimex)(t) : set_on_adapter_only("adjtimex", adjtimex, t);
}

KELVO_NO_CLOCK int ntp_adjtime(timex* t) noexcept {
  return t->modes == 0 ? next("ntp_adjtime", ntp_adjtime)(t) : set_on_adapter_only("ntp_adjtime", ntp_adjtime, t);
}

KELVO_NO_CLOCK int clock_adjtime(clockid_t clock, timex* t) noexcept {
  return t->modes == 0 ? next("clock_adjtime", clock_adjtime)(clock, t)
                       : set_on_adapter_only("clock_adjtime", clock_adjtime, clock, t);
}
