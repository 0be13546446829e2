// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <dlfcn.h>
#include <sys/mman.h>

#include <cstdarg>

#include "support/messages.h"
#include "support/trace_records.h"
#include "trace/timedoc.h"

// A trace device at the libc boundary: this program's ioctl() and mmap() come before the C library's, and answer for
// the descriptor -1 that the recorder uses.

namespace {

struct Device {
  std::vector<unsigned long> requests;
  std::vector<std::vector<unsigned>> added;
  int current = -1;
  int size = -1;
  unsigned* memory = nullptr;  // nullptr: cannot be mapped
  size_t mapped = 0;
  size_t unmapped = 0;
  int protection = 0;
  int flags = 0;
};

Device* device = nullptr;

// Looked up each time: ThreadSanitizer calls mmap() before it can guard a static variable.
template <typename Function>
Function* following(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

enum : unsigned long { RESET = 0x20005400, RECORD, PAUSE, CURRENT, SIZE, ADD };

}  // namespace

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  if (device == nullptr || fd != -1)
    return following<int(int, unsigned long, void*)>("ioctl")(fd, request, argument);
  device->requests.push_back(request);
  switch (request) {
    case CURRENT:
      return device->current;
    case SIZE:
      return device->size;
    case ADD:
      device->added.emplace_back(static_cast<const unsigned*>(argument), static_cast<const unsigned*>(argument) + 3);
      return 0;
    default:
      return 0;
  }
}

extern "C" void* mmap(void* address, size_t length, int protection, int flags, int fd, off_t offset) noexcept {
  if (device == nullptr || fd != -1 || (flags & MAP_ANONYMOUS) != 0)
    return following<void*(void*, size_t, int, int, int, off_t)>("mmap")(address, length, protection, flags, fd,
                                                                         offset);
  device->mapped = length;
  device->protection = protection;
  device->flags = flags;
  return device->memory != nullptr ? device->memory : MAP_FAILED;
}

extern "C" int munmap(void* address, size_t length) noexcept {
  if (device != nullptr && address == device->memory) {
    device->unmapped = length;
    return 0;
  }
  return following<int(void*, size_t)>("munmap")(address, length);
}

namespace {

using support::messages_at;

class Timedoc_device : public testing::Test {
 protected:
  Timedoc_device() { device = &device_; }
  ~Timedoc_device() override { device = nullptr; }

  // The device holds these words, and room for `size` in all.
  void holds(std::vector<unsigned> words, int size) {
    memory_ = std::move(words);
    device_.current = static_cast<int>(memory_.size());
    device_.size = size;
    memory_.resize(4096);
    device_.memory = memory_.data();
  }
  std::string mapped_message() const {
    std::ostringstream text;
    text << "Mapped " << device_.current << " entries from Timedoc to " << static_cast<void*>(device_.memory) << "\n";
    return text.str();
  }
  std::string said_at(int level, const std::string& path, const char* format) {
    return messages_at(level, [&] { timedoc_.write_file(path.c_str(), format); });
  }
  std::string file() const { return support::read_file(path_); }

  Device device_;
  std::vector<unsigned> memory_;
  support::Temp_dir dir_;
  std::string path_ = dir_.file("trace");
  Timedoc timedoc_;
};

TEST_F(Timedoc_device, log_lines_are_the_whole_records) {
  holds({1, 0x02000000, 0x6E6F7465, 0xFFFFFFFF, 0xABCDEF01, 0, 0, 0, 5, 6}, 1025);
  EXPECT_EQ(said_at(2, path_, "log"), mapped_message() + "Writing data to " + path_ + " format log\n");
  EXPECT_EQ(file(), "00000001 02000000 6e6f7465 ffffffff\nabcdef01 00000000 00000000 00000000\n");
  EXPECT_EQ(device_.requests, (std::vector<unsigned long>{CURRENT, SIZE}));
  EXPECT_EQ(std::tie(device_.mapped, device_.unmapped), std::tuple(8192u, 8192u));
  EXPECT_EQ(std::tie(device_.protection, device_.flags), std::tuple(PROT_READ, MAP_SHARED));
  struct stat status {};
  ASSERT_EQ(stat(path_.c_str(), &status), 0);
  const mode_t mask = umask(0);
  (void)umask(mask);
  EXPECT_EQ(status.st_mode & 0777, 0644 & ~mask);
}

TEST_F(Timedoc_device, whole_pages_are_mapped_as_they_are) {
  holds({}, 1024);
  timedoc_.write_file(path_.c_str(), "log");
  EXPECT_EQ(device_.mapped, 4096u);
  EXPECT_EQ(file(), "");
}

TEST_F(Timedoc_device, tdi_replaces_what_the_file_held_and_the_output_is_as_before) {
  holds({1, 0x02000000, 0x6E6F7465, 7}, 1024);
  support::write_file(path_, std::string(1000, 'x'));
  const int other = open(dir_.file("other").c_str(), O_RDWR | O_CREAT, 0600);
  timedoc_.set_output(other);
  EXPECT_EQ(said_at(0, path_, "tdi"), "");
  timedoc_.printf_tdi("still here\n");
  close(other);
  EXPECT_EQ(file(), trace_records::HEADER + "NAM 7 0 note\nOCC 7 0 0\nDSC 1 0 7\nEND\n");
  EXPECT_EQ(support::read_file(dir_.file("other")), "still here\n");
}

TEST_F(Timedoc_device, another_format_leaves_the_file_empty) {
  holds({1, 2, 3, 4}, 1024);
  EXPECT_EQ(said_at(2, path_, "svg"), mapped_message() + "Writing data to " + path_ + " format svg\n");
  EXPECT_EQ(file(), "");
}

TEST_F(Timedoc_device, a_file_that_cannot_be_opened_is_silent_and_nothing_is_written) {
  holds({1, 2, 3, 4}, 1024);
  const std::string missing = dir_.file("no-folder/trace");
  EXPECT_EQ(said_at(2, missing, "log"), mapped_message());
  EXPECT_EQ(device_.unmapped, 4096u);
  EXPECT_NE(access(missing.c_str(), F_OK), 0);
  EXPECT_EQ(said_at(1, missing, "log"), "");
}

TEST_F(Timedoc_device, a_buffer_that_cannot_be_mapped_is_an_error) {
  device_.current = 4;
  device_.size = 1024;
  EXPECT_EQ(said_at(0, path_, "log"), "ERROR: mmap() failed, 0x" + std::string(2 * sizeof(void*), 'f') + "\n");
  EXPECT_NE(access(path_.c_str(), F_OK), 0);
  EXPECT_EQ(said_at(-1, path_, "log"), "");
}

TEST_F(Timedoc_device, more_words_than_the_buffer_has_are_not_read) {
  holds({9, 9, 9, 9}, 4);
  device_.current = 1 << 30;
  timedoc_.write_file(path_.c_str(), "log");
  EXPECT_EQ(file().size(), 1024u / 4 * 36);
}

TEST_F(Timedoc_device, requests_are_made_once_and_events_are_packed) {
  holds({}, 8);
  device_.current = 4;
  const std::string said = messages_at(2, [&] {
    timedoc_.tdoc_pause();
    timedoc_.tdoc_reset();
    timedoc_.tdoc_record();
    timedoc_.tdoc_record();
    timedoc_.tdoc_note("note and more", 0xFFFFFFFE);
    timedoc_.start_tdoc_ev("scanning on");
    timedoc_.end_tdoc_ev("\xC3\xB5");
    timedoc_.tdoc_pause();
    timedoc_.tdoc_pause();
  });
  EXPECT_EQ(said,
            "Clear TimeDoc Buffer\nStart timedoc recordingPause Timedoc Recording. Current buffer 4 of 8, 50 %\n");
  EXPECT_EQ(device_.requests, (std::vector<unsigned long>{RESET, RECORD, ADD, ADD, ADD, PAUSE, SIZE, CURRENT}));
  EXPECT_EQ(device_.added, (std::vector<std::vector<unsigned>>{{0x02000000, 0x6E6F7465, 0xFFFFFFFE},
                                                               {0x01040000, 0x7363616E, 0x6E696E67},
                                                               {0x00040000, 0xC3B50000, 0}}));
}

TEST_F(Timedoc_device, a_pause_says_how_full_the_buffer_is) {
  const auto said = [&](int current, int size) {
    device_.current = current;
    device_.size = size;
    return messages_at(2, [&] {
      timedoc_.tdoc_record();
      timedoc_.tdoc_pause();
    });
  };
  const std::string begin = "Start timedoc recordingPause Timedoc Recording. Current buffer ";
  EXPECT_EQ(said(0, 0), begin + "0 of 0, 0 %\n");
  EXPECT_EQ(said(3'000'000, 1'000'000'000), begin + "3000000 of 1000000000, 0 %\n");
}

}  // namespace
