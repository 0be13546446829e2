// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dlfcn.h>

#include <atomic>

// SOFTDVB_REAL(read)(fd, buf, n) calls the next `read` behind this library: libc's, or a sanitizer's before libc's.
// Looked up at first use, because interposed functions are called before any constructor has run.
#define SOFTDVB_REAL(function)                                             \
  (reinterpret_cast<decltype(&::function)>([]() noexcept {                 \
    static std::atomic<void*> next_##function{nullptr};                    \
    void* at_##function = next_##function.load(std::memory_order_relaxed); \
    if (at_##function == nullptr) {                                        \
      at_##function = ::dlsym(RTLD_NEXT, #function);                       \
      next_##function.store(at_##function, std::memory_order_relaxed);     \
    }                                                                      \
    return at_##function;                                                  \
  }()))

// Marks the definitions that take the place of libc's.
#define SOFTDVB_EXPORT extern "C" __attribute__((visibility("default")))
