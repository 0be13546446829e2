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
  VERB_ERROR = 0,
  VERB_WARNING = 1,
  VERB_INFO = 2,
  VERB_PROGRESS = 3,
  VERB_TRACE = 4,
};

namespace kelvo_log {

inline bool enabled(int level) noexcept {
  return verbosity_kelvo.load(std::memory_order_relaxed) >= level;
}

// One formatted text to standard error, in one write where it fits a pipe's atomic size. Keeps errno.
void print(const char* format, ...) __attribute__((format(printf, 1, 2)));

// A result of SQLite that callers go on with: 0 (ok), 100 (row), 101 (done).
constexpr bool sql_ok(int code) noexcept {
  return code == 0 || code == 100 || code == 101;
}

}  // namespace kelvo_log

// Arguments are evaluated only when the level is on.
#define KLOG(level, ...)             \
  do {                               \
    if (kelvo_log::enabled(level))   \
      kelvo_log::print(__VA_ARGS__); \
  } while (false)

// For the few texts that appear at every level.
#define KLOG_ALWAYS(...) kelvo_log::print(__VA_ARGS__)
