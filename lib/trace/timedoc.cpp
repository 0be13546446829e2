// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "trace/timedoc.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "base/log.h"
#include "base/uninterrupted.h"

namespace {

// Requests of the trace device.
constexpr unsigned long TRACE_RESET = 0x20005400;
constexpr unsigned long TRACE_RECORD = 0x20005401;
constexpr unsigned long TRACE_PAUSE = 0x20005402;
constexpr unsigned long TRACE_CURRENT = 0x20005403;
constexpr unsigned long TRACE_SIZE = 0x20005404;
constexpr unsigned long TRACE_ADD = 0x20005405;

// The second word of a record: command, type and id. Notes and events have id 0, so their names tell them apart.
constexpr unsigned CONTROL_NOTE = 0x02000000;
constexpr unsigned CONTROL_EVENT_START = 0x01040000;
constexpr unsigned CONTROL_EVENT_END = 0x00040000;

constexpr int64_t PAGE = 4096;

// The first four characters of `name` from `from` on, the first in the most significant byte, zero bytes behind the
// end.
unsigned packed(std::string_view name, size_t from) {
  unsigned word = 0;
  for (size_t i = from; i < from + 4; ++i) {
    word = (word << 8) | (i < name.size() ? static_cast<unsigned char>(name[i]) : 0u);
  }
  return word;
}

void unpack(unsigned word, char* out) {
  for (int i = 0; i < 4; ++i)
    out[i] = static_cast<char>((word >> (24 - 8 * i)) & 0xFF);
}

}  // namespace

// The descriptor stays -1: requests to the device fail and change nothing, so that hosts may make them on every
// machine.
Timedoc::Timedoc() : device_(-1), output_(-1), name_{}, recording_(false) {
  KLOG(VERB_PROGRESS, "TimeDoctor TRACE disabled\n");
}

void Timedoc::tdoc_record() {
  if (recording_)
    return;
  KLOG(VERB_INFO, "Start timedoc recording");
  (void)ioctl(device_, TRACE_RECORD, 0);  // a failing device is silent
  recording_ = true;
}

// The state of the buffer is asked for after the pause, so that it no longer grows while it is printed.
void Timedoc::tdoc_pause() {
  if (!recording_)
    return;
  KLOG(VERB_INFO, "Pause Timedoc Recording. ");
  (void)ioctl(device_, TRACE_PAUSE, 0);  // as above
  recording_ = false;
  const int size = ioctl(device_, TRACE_SIZE, 0);
  const int current = ioctl(device_, TRACE_CURRENT, 0);
  // In 64 bits, because a hundred times the words of a large buffer do not fit into an int. An empty buffer is filled
  // by nothing.
  const int percent = size == 0 ? 0 : static_cast<int>(int64_t{current} * 100 / size);
  KLOG(VERB_INFO, "Current buffer %d of %d, %d %%\n", current, size, percent);
}

void Timedoc::tdoc_reset() {
  KLOG(VERB_INFO, "Clear TimeDoc Buffer\n");
  (void)ioctl(device_, TRACE_RESET, 0);  // as above
}

void Timedoc::add(unsigned control, unsigned data1, unsigned data2) {
  unsigned words[3] = {control, data1, data2};
  (void)ioctl(device_, TRACE_ADD, words);  // as above
}

void Timedoc::tdoc_note(const char* name, unsigned value) {
  add(CONTROL_NOTE, packed(name, 0), value);
}

void Timedoc::start_tdoc_ev(const char* name) {
  add(CONTROL_EVENT_START, packed(name, 0), packed(name, 4));
}

void Timedoc::end_tdoc_ev(const char* name) {
  add(CONTROL_EVENT_END, packed(name, 0), packed(name, 4));
}

void Timedoc::tdoc_name(unsigned* word2, unsigned* word1, const char* name) {
  *word1 = packed(name, 0);
  *word2 = packed(name, 4);
}

// The result lies in this object and is good until the next call, which is enough for one line of output.
char* Timedoc::get_tr_name(unsigned word) {
  unpack(word, name_);
  name_[4] = '\0';
  return name_;
}

char* Timedoc::get_tr_name(unsigned word2, unsigned word1) {
  unpack(word1, name_);
  unpack(word2, name_ + 4);
  name_[8] = '\0';
  return name_;
}

void Timedoc::set_output(int descriptor) {
  output_ = descriptor;
}

void Timedoc::printf_tdi(const char* fmt, ...) {
  char line[256];
  va_list arguments;
  va_start(arguments, fmt);
  // Longer lines are cut. Names have eight characters at most, so no line of the conversion is.
  const int length = vsnprintf(line, sizeof line, fmt, arguments);
  va_end(arguments);
  if (length < 0)
    return;
  size_t left = std::min(static_cast<size_t>(length), sizeof line - 1);
  // A pipe may take a part of a line only.
  for (const char* at = line; left > 0;) {
    const ssize_t n = uninterrupted([&] { return write(output_, at, left); });
    if (n <= 0)
      return;  // a full disk ends the line; there is nobody to tell
    at += n;
    left -= static_cast<size_t>(n);
  }
}

int Timedoc::lookup_insert_id(std::vector<TDI_lookup>* list, const char* name, int key, bool* inserted) {
  for (size_t i = 0; i < list->size(); ++i) {
    if ((*list)[i].key == key && (*list)[i].name == name) {
      *inserted = false;
      return static_cast<int>(i);
    }
  }
  *inserted = true;
  list->push_back({name, key});
  return static_cast<int>(list->size()) - 1;
}

void Timedoc::write_file(const char* file, const char* format) {
  const int words = ioctl(device_, TRACE_CURRENT, 0);
  const int64_t bytes = int64_t{ioctl(device_, TRACE_SIZE, 0)} * 4;
  // Rounded up: mappings are made of whole pages, and the buffer need not end with one.
  const auto mapped_size = static_cast<size_t>((bytes + PAGE - 1) / PAGE * PAGE);
  void* buffer = mmap(nullptr, mapped_size, PROT_READ, MAP_SHARED, device_, 0);
  if (buffer == MAP_FAILED) {
    KLOG(VERB_ERROR, "ERROR: mmap() failed, %p\n", buffer);
    return;
  }
  KLOG(VERB_INFO, "Mapped %d entries from Timedoc to %p\n", words, buffer);
  // The device may name more words than its buffer holds, or -1 for a failure: reading beyond the mapping would end the
  // host.
  const size_t count = std::min(words < 0 ? 0 : static_cast<size_t>(words), mapped_size / sizeof(unsigned));
  // Copied first: the buffer is shared with the device, which may go on recording while the file is written.
  std::vector<unsigned> copy(count);
  if (count > 0)
    memcpy(copy.data(), buffer, count * sizeof(unsigned));

  // A host may have set an output of its own, which is in force again afterwards.
  const int outer = output_;
  output_ = uninterrupted([=] { return open(file, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644); });
  if (output_ >= 0) {
    KLOG(VERB_INFO, "Writing data to %s format %s\n", file, format);
    if (strcmp(format, "log") == 0) {
      for (size_t i = 0; i + 4 <= count; i += 4) {
        printf_tdi("%08x %08x %08x %08x\n", copy[i], copy[i + 1], copy[i + 2], copy[i + 3]);
      }
    } else if (strcmp(format, "tdi") == 0) {
      convert_to_tdi(copy.data(), static_cast<int>(count));
    }
    close(output_);
  }
  output_ = outer;
  munmap(buffer, mapped_size);
}
