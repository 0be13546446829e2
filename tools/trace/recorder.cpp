#include "tools/trace/recorder.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <system_error>

#include <fmt/format.h>

#include "tools/cli/failure.h"
#include "tools/trace/records.h"
#include "tools/trace/timeline.h"

namespace {

constexpr unsigned TASK_PARSE = 2;
constexpr unsigned TASK_MERGE = 3;
constexpr unsigned TS_IN0_DMA = 14;

unsigned ticks_now() {
  timespec now{};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);
  constexpr uint64_t PER_SECOND = TICKS_PER_SECOND;
  const uint64_t nanoseconds = static_cast<uint64_t>(now.tv_nsec);
  return static_cast<unsigned>(static_cast<uint64_t>(now.tv_sec) * PER_SECOND +
                               nanoseconds * (PER_SECOND / 1'000'000) / 1000);
}

// The number behind `before` in a message, of so many digits at most.
bool number_behind(std::string_view message, std::string_view before, int base, size_t digits, unsigned* number) {
  const size_t at = message.find(before);
  if (at == std::string_view::npos) {
    return false;
  }
  const std::string_view rest = message.substr(at + before.size(), digits);
  return std::from_chars(rest.data(), rest.data() + rest.size(), *number, base).ec == std::errc();
}

std::string filter_name(unsigned pid) {
  switch (pid) {
    case 0:
      return "PAT";
    case 1:
      return "CAT";
    case 16:
      return "NIT";
    case 17:
      return "SDT";
    case 18:
      return "EIT";
    case 20:
      return "TOT";
    default:
      return fmt::format("PMT {}", pid);
  }
}

std::string table_name(unsigned table) {
  switch (table) {
    case 0x00:
      return "PAT";
    case 0x01:
      return "CAT";
    case 0x02:
      return "PMT";
    case 0x40:
      return "NIT";
    case 0x42:
      return "SDT";
    case 0x70:
      return "TDT";
    case 0x73:
      return "TOT";
    default:
      return table >= 0x4E && table <= 0x6F ? "EIT" : "other";
  }
}

}  // namespace

void Trace_recorder::add(unsigned cmd, unsigned type, unsigned id, const char* name, const int* value) {
  const std::lock_guard lock(mutex_);
  unsigned data1 = 0;
  unsigned data2 = 0;
  timedoc_.tdoc_name(&data2, &data1, name);
  if (value != nullptr) {
    data2 = static_cast<unsigned>(*value);
  }
  words_.insert(words_.end(), {ticks_now(), cmd << 24 | type << 16 | id, data1, data2});
}

void Trace_recorder::note(const char* name, int value) {
  add(TRACE_NOTE, 0, 0, name, &value);
}

void Trace_recorder::start(unsigned type, unsigned id, const std::string& name) {
  add(TRACE_START, type, id, name.c_str(), nullptr);
}

void Trace_recorder::stop(unsigned type, unsigned id, const std::string& name) {
  add(TRACE_STOP, type, id, name.c_str(), nullptr);
}

std::vector<unsigned> Trace_recorder::words() const {
  const std::lock_guard lock(mutex_);
  return words_;
}

Library_listener::Library_listener(Trace_recorder* recorder) : recorder_(*recorder) {
  int ends[2];
  // Each message arrives by itself, when it is written: most have no line break.
  if (pipe2(ends, O_CLOEXEC | O_DIRECT) != 0) {
    throw Failure("cannot make a pipe: too many open files?");
  }
  // Room for bursts of messages, which take a page each; without it the library waits more often for the listener.
  (void)fcntl(ends[1], F_SETPIPE_SZ, 1 << 20);
  (void)fflush(stderr);
  own_stderr_ = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
  read_end_ = ends[0];
  (void)dup2(ends[1], STDERR_FILENO);
  (void)close(ends[1]);
  thread_ = std::thread(&Library_listener::listen, this);
  verbosity_kelvo = VERB_TRACE;
}

Library_listener::~Library_listener() {
  verbosity_kelvo = VERB_ERROR;
  (void)fflush(stderr);
  (void)dup2(own_stderr_, STDERR_FILENO);  // the pipe's last end to write: the thread reads it out and ends
  thread_.join();
  (void)close(own_stderr_);
  (void)close(read_end_);
}

void Library_listener::listen() {
  char message[4096];
  for (ssize_t n = 0; (n = read(read_end_, message, sizeof message)) > 0;) {
    hear({message, static_cast<size_t>(n)});
  }
  end_section();
}

void Library_listener::end_section() {
  if (!section_.empty()) {
    recorder_.stop(TRACE_EVENT, 0, section_);
    section_.clear();
  }
}

void Library_listener::end_filter(unsigned pid) {
  const auto filter = filters_.find(pid);
  if (filter != filters_.end()) {
    recorder_.stop(TRACE_OBJECT_2, 0, filter->second);
    filters_.erase(filter);
  }
}

void Library_listener::hear(std::string_view message) {
  unsigned number = 0;
  if (message.starts_with("Data scan loop")) {
    recorder_.start(TRACE_TASK, TASK_PARSE, "parse");
    parsing_ = true;
  } else if (message.starts_with("Reading data loop")) {
    end_section();
    recorder_.start(TRACE_INTERRUPT, TS_IN0_DMA);
    reading_ = true;
  } else if (number_behind(message, ">>>>> Table id ", 16, 8, &number)) {
    if (reading_) {
      recorder_.stop(TRACE_INTERRUPT, TS_IN0_DMA);
      reading_ = false;
    }
    section_ = table_name(number & 0xFF);
    recorder_.start(TRACE_EVENT, 0, section_);
  } else if (message.starts_with("Filter list contains")) {
    end_section();
    if (parsing_) {
      recorder_.stop(TRACE_TASK, TASK_PARSE, "parse");
      parsing_ = false;
    }
  } else if (message.starts_with("Master update") && !merging_) {
    recorder_.start(TRACE_TASK, TASK_MERGE, "merge");
    merging_ = true;
  } else if (message.starts_with("MSG: Captured") && merging_) {
    recorder_.stop(TRACE_TASK, TASK_MERGE, "merge");
    merging_ = false;
  } else if (number_behind(message, "setting HW for filter pid ", 10, 5, &number)) {
    if (filters_.try_emplace(number, filter_name(number)).second) {
      recorder_.start(TRACE_OBJECT_2, 0, filters_[number]);
    }
  } else if (number_behind(message, "-Fi", 16, 4, &number) || number_behind(message, "-Fpr", 16, 4, &number) ||
             number_behind(message, "-Fr", 16, 4, &number)) {
    end_filter(number);
  } else if (message.starts_with("Removed all filters")) {
    while (!filters_.empty()) {
      end_filter(filters_.begin()->first);
    }
  } else if (message.starts_with("ERROR: ")) {
    recorder_.note("err", ++errors_);
  }
}
