#pragma once

#include <functional>
#include <string>
#include <string_view>

// Standard error, shared by the command and the library. The library writes its diagnostics to descriptor 2; while
// the command is quiet they are taken away and only looked through, so that people see one line and not a hundred.
namespace console {

// Writes `text` and a line break to the command's standard error.
void say(std::string_view text);

// The same without the line break: for the progress line.
void put(std::string_view text);

// Writes `text`, part of `what` ("the guide"), to standard output. Throws Failure when it cannot.
void print(std::string_view text, const std::string& what);

// Hands what has been printed over to the reader. Throws Failure when any of `what` could not be written.
void finish_printing(const std::string& what);

// Whether the command's standard error is a terminal, and how many columns and lines it has.
bool is_terminal();
int width();
int height();

// Takes the library's messages away during its life.
class Quiet_library {
 public:
  // Does nothing but set the level when `verbosity` is 0 or more: the messages then go to standard error as they are.
  explicit Quiet_library(int verbosity);
  ~Quiet_library();
  Quiet_library(const Quiet_library&) = delete;
  Quiet_library& operator=(const Quiet_library&) = delete;

  // From now on the library says all up to `level`, and `listener` gets each line when the messages are looked through.
  // For a quiet library only.
  void listen(int level, std::function<void(const std::string& line)> listener);

  // The result code of the first SQLite failure that means that the database cannot be written (disk full, read-only,
  // input/output error, damaged), or 0. Reads what the library has said up to now.
  int database_failure();

  // Throws Failure, naming `file`, after such a failure.
  void check_written(const std::string& file);

 private:
  void look_through(std::string_view messages);

  int pipe_read_ = -1;
  std::string line_;
  std::function<void(const std::string&)> listener_;
  int failure_ = 0;
  bool guide_ = false;  // it was an event that was refused
};

}  // namespace console
