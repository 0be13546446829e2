#include "tools/cli/console.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <fmt/format.h>
#include <kelvo/kelvo.h>

#include "tools/cli/failure.h"

namespace console {

namespace {

// The command's own way to standard error; another descriptor than 2 while the library is quiet.
int own_stderr = STDERR_FILENO;

void write_all(std::string_view text) {
  while (!text.empty()) {
    const ssize_t n = write(own_stderr, text.data(), text.size());
    if (n <= 0) {
      return;  // Nobody reads it; there is no better place to say so.
    }
    text.remove_prefix(static_cast<size_t>(n));
  }
}

constexpr const char* EVENT_REFUSED = "ERROR: eit_for_service: rc is ";

// Result code in a line such as "ERROR: SQL_exec: 13 @ ..." or "ERROR: SQLite RUN rc 13 at ...", else 0.
int result_code(const std::string& line) {
  for (const char* start : {"ERROR: SQL_exec: ", "ERROR: SQLite RUN rc ", "ERROR: SQLite reset rc ", EVENT_REFUSED}) {
    const size_t at = line.find(start);
    if (at != std::string::npos) {
      return std::atoi(line.c_str() + at + std::string_view(start).size());
    }
  }
  return 0;
}

}  // namespace

void put(std::string_view text) {
  write_all(text);
}

void say(std::string_view text) {
  write_all(std::string(text) + "\n");
}

void print(std::string_view text, const std::string& what) {
  if (fwrite(text.data(), 1, text.size(), stdout) != text.size()) {
    throw Failure(fmt::format("cannot write {}: {}", what, strerror(errno)));
  }
}

void finish_printing(const std::string& what) {
  if (fflush(stdout) != 0) {
    throw Failure(fmt::format("cannot write {}: {}", what, strerror(errno)));
  }
  if (ferror(stdout) != 0) {
    throw Failure("cannot write " + what);
  }
}

bool is_terminal() {
  return isatty(own_stderr) == 1;
}

int width() {
  winsize size{};
  return ioctl(own_stderr, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

int height() {
  winsize size{};
  return ioctl(own_stderr, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 ? size.ws_row : 24;
}

Quiet_library::Quiet_library(int verbosity) {
  if (verbosity >= 0) {
    verbosity_kelvo = verbosity;
    return;
  }
  verbosity_kelvo = VERB_ERROR;
  int ends[2];
  // Nobody waits for this pipe: when it is full, messages are lost and the library goes on.
  if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
    throw Failure("cannot make a pipe: too many open files?");
  }
  (void)fflush(stderr);
  own_stderr = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
  pipe_read_ = ends[0];
  (void)dup2(ends[1], STDERR_FILENO);
  (void)close(ends[1]);
}

Quiet_library::~Quiet_library() {
  if (pipe_read_ < 0) {
    return;
  }
  (void)fflush(stderr);
  (void)dup2(own_stderr, STDERR_FILENO);
  (void)close(own_stderr);
  own_stderr = STDERR_FILENO;
  (void)close(pipe_read_);
}

void Quiet_library::listen(int level, std::function<void(const std::string& line)> listener) {
  listener_ = std::move(listener);
  (void)fcntl(pipe_read_, F_SETPIPE_SZ, 1 << 20);  // as far as it may be; progress is wordy
  verbosity_kelvo = level;
}

int Quiet_library::database_failure() {
  char buffer[4096];
  ssize_t n = 0;
  while (pipe_read_ >= 0 && (n = read(pipe_read_, buffer, sizeof buffer)) > 0) {
    look_through({buffer, static_cast<size_t>(n)});
  }
  return failure_;
}

void Quiet_library::check_written(const std::string& file) {
  const int code = database_failure();
  if (code == SQLITE_FULL && guide_) {
    throw Failure(file + ": no room for more events: the disk is full, or the guide is as large as it may be");
  }
  if (code != 0) {
    throw Failure(
        fmt::format("{}: cannot be written: {}", file, code == SQLITE_FULL ? "disk full" : sqlite3_errstr(code)));
  }
}

void Quiet_library::look_through(std::string_view messages) {
  for (const char c : messages) {
    if (c != '\n') {
      line_ += c;
      continue;
    }
    const int code = result_code(line_) & 0xFF;
    if (failure_ == 0 && (code == SQLITE_FULL || code == SQLITE_IOERR || code == SQLITE_READONLY ||
                          code == SQLITE_CORRUPT || code == SQLITE_NOTADB)) {
      failure_ = code;
      guide_ = line_.find(EVENT_REFUSED) != std::string::npos;
    }
    if (listener_) {
      listener_(line_);
    }
    line_.clear();
  }
}

}  // namespace console
