// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <atomic>

#include "base/export.h"

// How much the library writes to standard error; shared by all its objects, any-thread. Default 0.
//   below 0  nothing but the few texts that are printed always
//   0        errors           (texts that begin "ERROR: ")
//   1        and warnings     (texts that begin "WARNING: ")
//   2, 3     and progress
//   4        and a trace of every section and statement
// Hosts set it with Kelvo::set_verbosity, or by assigning to it.
//
// The texts themselves are interface: hosts' scripts search for them. Spelling, blanks and missing newlines included.
extern KELVO_EXPORT std::atomic<int> verbosity_kelvo;

enum : int {
  VERB_ALWAYS = -1,  // the level that listeners get for a text that is printed at every verbosity
  VERB_ERROR = 0,
  VERB_WARNING = 1,
  VERB_INFO = 2,
  VERB_PROGRESS = 3,
  VERB_TRACE = 4,
};

// Who gets the library's messages besides, or instead of, standard error. One for the whole process: messages come from
// all objects. Set with Kelvo::set_message_listener.
struct Message_listener {
  // Called with each message, on the thread that it comes from; several threads may call at once. `text` is valid
  // during the call, and as it would be printed: with its newline or without, sometimes a part of a line. Must return
  // soon and must not call the library. Null for nobody.
  void (*message)(void* data, int level, const char* text) = nullptr;
  void* data = nullptr;    // handed to `message`; not owned
  int level = VERB_ERROR;  // messages up to this level, whatever the verbosity is
  bool print = true;       // false: nothing goes to standard error
};
