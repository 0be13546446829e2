// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The preloaded library's memory is its own: from libc's heap and moved without libc's (or a sanitizer's) memcpy. A
// sanitizer in the program would otherwise see half of what happens here, because it is blind while the program is in
// a call such as poll, and report races that are none. libsoftdvb.map
// keeps these definitions inside the library.
#include <stdlib.h>

#include <new>

#include "softdvb/model/real.h"

#ifndef __clang__
#pragma GCC optimize("no-tree-loop-distribute-patterns")  // which makes calls of memcpy out of loops like these
#endif

static void* take(size_t n) {
  void* at = SOFTDVB_REAL(malloc)(n == 0 ? 1 : n);
  if (at == nullptr)
    abort();
  return at;
}

void* operator new(size_t n) {
  return take(n);
}
void* operator new[](size_t n) {
  return take(n);
}
void* operator new(size_t n, const std::nothrow_t&) noexcept {
  return take(n);
}
void* operator new[](size_t n, const std::nothrow_t&) noexcept {
  return take(n);
}
void operator delete(void* at) noexcept {
  SOFTDVB_REAL(free)(at);
}
void operator delete[](void* at) noexcept {
  SOFTDVB_REAL(free)(at);
}
void operator delete(void* at, size_t) noexcept {
  SOFTDVB_REAL(free)(at);
}
void operator delete[](void* at, size_t) noexcept {
  SOFTDVB_REAL(free)(at);
}
void operator delete(void* at, const std::nothrow_t&) noexcept {
  SOFTDVB_REAL(free)(at);
}
void operator delete[](void* at, const std::nothrow_t&) noexcept {
  SOFTDVB_REAL(free)(at);
}

extern "C" {

void* memcpy(void* __restrict to, const void* __restrict from, size_t n) noexcept {
  auto* out = static_cast<unsigned char*>(to);
  const auto* in = static_cast<const unsigned char*>(from);
  for (size_t i = 0; i < n; ++i)
    out[i] = in[i];
  return to;
}

void* memmove(void* to, const void* from, size_t n) noexcept {
  auto* out = static_cast<unsigned char*>(to);
  const auto* in = static_cast<const unsigned char*>(from);
  if (out < in) {
    for (size_t i = 0; i < n; ++i)
      out[i] = in[i];
  } else {
    for (size_t i = n; i > 0; --i)
      out[i - 1] = in[i - 1];
  }
  return to;
}

void* memset(void* to, int byte, size_t n) noexcept {
  auto* out = static_cast<unsigned char*>(to);
  for (size_t i = 0; i < n; ++i)
    out[i] = static_cast<unsigned char>(byte);
  return to;
}

}  // extern "C"
