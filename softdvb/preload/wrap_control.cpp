// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <stdio.h>
#include <stdlib.h>

#include <exception>
#include <string>

#include "softdvb/model/handles.h"
#include "softdvb/model/player.h"
#include "softdvb/model/real.h"
#include "softdvb/model/rules.h"
#include "softdvb/preload/control.h"

using namespace softdvb;

static int index_of(int number) {
  Shared* s = shared();
  const Adapter* a = s != nullptr ? find_adapter(*s, number) : nullptr;
  return a != nullptr ? static_cast<int>(a - s->adapter) : -1;
}

SOFTDVB_EXPORT int softdvb_control(const char* line) {
  if (shared() == nullptr)
    return -1;
  // The caller may be a program in C, which an exception must not reach.
  try {
    run_control(*shared(), line);
  } catch (const std::exception& e) {
    fprintf(stderr, "softdvb: %s\n", e.what());
    return -1;
  }
  const Device_lock lock;
  // Done when the call returns: a test looks at the effect in its next line.
  player_advance();
  player_wake();
  return 0;
}

SOFTDVB_EXPORT int softdvb_inject(int adapter, const void* packets, size_t size) {
  const int index = index_of(adapter);
  if (index < 0)
    return -1;
  const Device_lock lock;
  player_inject(index, static_cast<const uint8_t*>(packets), size);
  return 0;
}

SOFTDVB_EXPORT long softdvb_play(int adapter, unsigned long packets) {
  const int index = index_of(adapter);
  if (index < 0)
    return -1;
  const Device_lock lock;
  // How many there were tells a test that the stream is at its end.
  return static_cast<long>(player_step(index, packets));
}

// Programs that the command starts need our library, but not the runtime of a sanitizer that the command was built
// with: it would judge them by rules that they were not built for.
__attribute__((constructor)) static void clean_environment() {
  const char* before = getenv("LD_PRELOAD");
  if (before == nullptr || shared() == nullptr)
    return;
  std::string kept;
  std::string word;
  for (const char* at = before;; ++at) {
    if (*at != ':' && *at != ' ' && *at != '\0') {
      word += *at;
      continue;
    }
    const bool sanitizer = word.find("libasan.so") != std::string::npos || word.find("libtsan.so") != std::string::npos;
    if (!word.empty() && !sanitizer)
      kept += (kept.empty() ? "" : ":") + word;
    word.clear();
    if (*at == '\0')
      break;
  }
  if (kept != before)
    setenv("LD_PRELOAD", kept.c_str(), 1);
}
