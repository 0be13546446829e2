// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// A file of trace records, in each form, to everything that is made of it: lines, JSON, a picture.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <pugixml.hpp>
#include <string>

#include <nlohmann/json.hpp>

#include "base/messages.h"
#include "fuzz/entries.h"
#include "tools/cli/failure.h"
#include "tools/trace/print.h"
#include "tools/trace/records.h"
#include "trace/timedoc.h"

namespace {

void show(const std::vector<unsigned>& words, bool picture) {
  const Timeline timeline = make_timeline(words);
  std::string out;
  const auto sink = [&out](std::string_view piece) { out += piece; };
  if (picture) {
    print_trace_svg(timeline, "a trace", sink);
    pugi::xml_document document;
    if (!document.load_string(out.c_str()))
      std::abort();
  } else {
    print_trace_json(timeline, sink);
    if (!nlohmann::json::accept(out))
      std::abort();
  }
}

void convert(std::vector<unsigned> words) {
  static const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
  static Timedoc timedoc;
  verbosity_kelvo = -1;
  timedoc.set_output(nowhere);
  timedoc.convert_to_tdi(words.data(), static_cast<int>(words.size()));
}

}  // namespace

int fuzz::trace(const uint8_t* data, size_t size) {
  static const int fd = memfd_create("trace", MFD_CLOEXEC);
  if (size == 0)
    return 0;
  constexpr Trace_source SOURCES[] = {Trace_source::DETECT, Trace_source::LITTLE, Trace_source::BIG, Trace_source::LOG};
  if (ftruncate(fd, 0) != 0 || pwrite(fd, data + 1, size - 1, 0) != static_cast<ssize_t>(size - 1))
    std::abort();
  try {
    const Trace_words trace = read_trace("/proc/self/fd/" + std::to_string(fd), SOURCES[data[0] & 3]);
    if (trace.words.size() % 4 != 0)
      std::abort();
    if ((data[0] & 4) != 0)
      convert(trace.words);
    else
      show(trace.words, (data[0] & 8) != 0);
  } catch (const Failure&) {
    // one line for whoever named the file
  }
  return 0;
}
