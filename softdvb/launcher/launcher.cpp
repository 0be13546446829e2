// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/launcher/launcher.h"

#include <elf.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "softdvb/model/clock.h"
#include "softdvb/model/devices.h"
#include "softdvb/model/plug.h"
#include "softdvb/model/rules.h"
#include "softdvb/model/shared.h"
#include "softdvb/model/usage_error.h"

namespace softdvb {

namespace fs = std::filesystem;

// The run folder, removed at the end.
class Run_folder {
 public:
  explicit Run_folder(bool keep) : keep_(keep) {
    std::string name = (fs::temp_directory_path() / "softdvb-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr)
      throw std::runtime_error(name + ": " + strerror(errno));
    path_ = name;
  }
  // Whatever is left open in it does no harm, and an error at the end has nobody to be told to.
  ~Run_folder() {
    std::error_code ignored;
    if (!keep_)
      fs::remove_all(path_, ignored);
  }
  Run_folder(const Run_folder&) = delete;
  Run_folder& operator=(const Run_folder&) = delete;
  const std::string& path() const { return path_; }

 private:
  bool keep_;
  std::string path_;
};

// Beside the launcher when it was only built, in ../lib/softdvb when it is installed.
static std::string preload_library() {
  const fs::path here = fs::read_symlink("/proc/self/exe").parent_path();
  for (const char* place : {"libsoftdvb.so", "../lib/softdvb/libsoftdvb.so", SOFTDVB_LIBRARY}) {
    const fs::path file = fs::path(place).is_absolute() ? fs::path(place) : here / place;
    if (fs::exists(file))
      return fs::canonical(file).string();
  }
  throw std::runtime_error("libsoftdvb.so: not found beside " + here.string() + "/softdvb nor in ../lib/softdvb");
}

// As execvp would find it, but known before the start, because its file has to be looked into.
static std::string find_program(const std::string& name) {
  if (name.find('/') != std::string::npos)
    return name;
  const char* path = getenv("PATH");
  std::string folders = path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin";
  for (size_t at = 0; at <= folders.size();) {
    const size_t end = std::min(folders.find(':', at), folders.size());
    std::string file = folders.substr(at, end - at) + "/" + name;
    if (access(file.c_str(), X_OK) == 0)
      return file;
    at = end + 1;
  }
  return name;
}

// By hand, because this runs before each start and one question is not worth a library for ELF.
template <typename Header, typename Section, typename Dynamic>
static std::string needed_sanitizer(const std::string& image) {
  Header header;
  if (image.size() < sizeof header)
    return "";
  memcpy(&header, image.data(), sizeof header);
  for (unsigned i = 0; i < header.e_shnum; ++i) {
    Section section;
    // A file that is damaged or only looks like a program ends the search; starting it will tell.
    const uint64_t at = header.e_shoff + i * sizeof section;
    if (at + sizeof section > image.size())
      return "";
    memcpy(&section, image.data() + static_cast<size_t>(at), sizeof section);
    if (section.sh_type != SHT_DYNAMIC || section.sh_link >= header.e_shnum)
      continue;
    Section strings;
    const uint64_t strings_at = header.e_shoff + section.sh_link * sizeof strings;
    if (strings_at + sizeof strings > image.size())
      return "";
    memcpy(&strings, image.data() + static_cast<size_t>(strings_at), sizeof strings);
    for (uint64_t entry = section.sh_offset; entry + sizeof(Dynamic) <= section.sh_offset + section.sh_size;
         entry += sizeof(Dynamic)) {
      Dynamic dynamic;
      if (entry + sizeof dynamic > image.size())
        return "";
      memcpy(&dynamic, image.data() + static_cast<size_t>(entry), sizeof dynamic);
      const uint64_t name_at = strings.sh_offset + dynamic.d_un.d_val;
      if (dynamic.d_tag != DT_NEEDED || name_at >= image.size())
        continue;
      std::string name = image.c_str() + static_cast<size_t>(name_at);
      if (name.rfind("libasan.so", 0) == 0 || name.rfind("libtsan.so", 0) == 0)
        return name;
    }
  }
  return "";
}

// A sanitizer's runtime must be the first library of a program, so it has to be preloaded before ours.
static std::string sanitizer_of(const std::string& program) {
  std::error_code none;
  const auto size = fs::is_regular_file(program, none) ? fs::file_size(program, none) : 0;
  // Read in one go: programs are large, and every start waits for it.
  std::string image(none ? 0 : static_cast<size_t>(size), '\0');
  std::ifstream in(program, std::ios::binary);
  in.read(image.data(), static_cast<std::streamsize>(image.size()));
  if (image.size() < EI_NIDENT || memcmp(image.data(), ELFMAG, SELFMAG) != 0)
    return "";
  if (image[EI_CLASS] == ELFCLASS64)
    return needed_sanitizer<Elf64_Ehdr, Elf64_Shdr, Elf64_Dyn>(image);
  return needed_sanitizer<Elf32_Ehdr, Elf32_Shdr, Elf32_Dyn>(image);
}

// What libudev reads of the adapters, where libumockdev-preload looks for it. All sit on one bus device: a device
// without parent is silently left out by programs that group adapters by their bus.
static void make_sysfs(const std::string& run_dir, const Shared& s) {
  const fs::path sys = fs::path(run_dir) / "sysfs/sys";
  const fs::path bus = sys / "devices/platform/softdvb";
  for (const fs::path& folder : {bus, sys / "bus/platform", sys / "class/dvb"})
    fs::create_directories(folder);
  std::ofstream(bus / "uevent").flush();
  fs::create_symlink("../../../bus/platform", bus / "subsystem");
  for (int i = 0; i < s.adapter_count; ++i) {
    const Adapter& adapter = s.adapter[i];
    const std::string number = std::to_string(adapter.number);
    for (const Device device : {Device::FRONTEND, Device::DEMUX, Device::DVR}) {
      if (adapter.frontend != 0 && device != Device::FRONTEND)
        continue;
      const std::string node = device_name(adapter, device);  // "frontend0"
      const std::string name = "dvb" + number + "." + node;
      fs::create_directories(bus / "dvb" / name);
      fs::create_symlink("../../../../../class/dvb", bus / "dvb" / name / "subsystem");
      fs::create_symlink("../../devices/platform/softdvb/dvb/" + name, sys / "class/dvb" / name);
      std::ofstream(bus / "dvb" / name / "uevent")
          << "MAJOR=" << DEVICE_MAJOR << "\nMINOR=" << device_minor(adapter, device) << "\nDEVNAME=dvb/adapter"
          << number << "/" << node << "\nDVB_ADAPTER_NUM=" << number
          << "\nDVB_DEVICE_TYPE=" << node.substr(0, node.size() - 1) << "\nDVB_DEVICE_NUM=" << node.back() << "\n";
    }
  }
}

static void make_root(Shared& s, const std::string& root) {
  // Programs expect these folders to be there, as the system sets them up.
  for (const char* folder : {"dvbfiles", "tmp/zoneinfo"})
    fs::create_directories(fs::path(root) / folder);
  const std::string absolute = fs::canonical(root).string();
  if (absolute.size() >= MAX_PATH)
    throw std::runtime_error(absolute + ": the path is too long");
  absolute.copy(s.root_dir, absolute.size());
}

static void add_sanitizer_option(const char* variable, const std::string& option) {
  const char* before = getenv(variable);
  const std::string given = before != nullptr && before[0] != '\0' ? std::string(":") + before : "";
  setenv(variable, (option + given).c_str(), 1);  // what the user wants comes later and wins
}

static void set_environment(const std::string& run_dir, const std::string& root, const std::string& program) {
  std::string preload = sanitizer_of(program);
  if (!preload.empty())
    preload += ":";
  preload += preload_library();
  if (const char* before = getenv("LD_PRELOAD"); before != nullptr && before[0] != '\0')
    preload += std::string(":") + before;
  setenv("LD_PRELOAD", preload.c_str(), 1);
  // Programs that the command starts may be built with a sanitizer although it is not.
  add_sanitizer_option("ASAN_OPTIONS", "verify_asan_link_order=0");
  // A child that uses an adapter gets a thread of ours.
  add_sanitizer_option("TSAN_OPTIONS", "die_after_fork=0");
  setenv("SOFTDVB_STATE", (run_dir + "/state").c_str(), 1);
  setenv("SOFTDVB_CONTROL", (run_dir + "/control").c_str(), 1);
  setenv("SOFTDVB_ROOT", root.c_str(), 1);
}

// Lines written to the control file; what is wrong is said, and nothing else happens.
static void take_control_lines(Shared& s, int fifo, std::string& pending) {
  // A line may come in pieces, so what has no end yet is kept.
  char block[4096];
  ssize_t got = 0;
  while ((got = read(fifo, block, sizeof block)) > 0)
    pending.append(block, static_cast<size_t>(got));
  for (size_t end = 0; (end = pending.find('\n')) != std::string::npos; pending.erase(0, end + 1)) {
    try {
      run_control(s, pending.substr(0, end));
    } catch (const std::exception& e) {
      std::fprintf(stderr, "softdvb: %s\n", e.what());
    }
  }
}

// Ctrl-C reaches the command by itself; a signal sent to the launcher alone is passed on.
static void pass_on(int signals, pid_t child) {
  signalfd_siginfo info{};
  while (read(signals, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
    // The terminal sends its signals to the whole group; passed on, they would arrive twice.
    if (info.ssi_signo == SIGCHLD || info.ssi_code == SI_KERNEL)
      continue;
    kill(child, static_cast<int>(info.ssi_signo));
  }
}

// What comes with time. Returns how long to wait for the rest in real milliseconds, a second at most.
static int do_timed(Shared& s) {
  const Shared_lock lock(s);
  const uint64_t now = adapter_now_ns(s);
  const uint64_t next = plug_by_time(s, now);
  constexpr int64_t LONGEST_MS = 1000;
  constexpr int64_t MS_NS = 1000000;
  if (next == 0)
    return LONGEST_MS;
  const int64_t left = to_real_duration(s, static_cast<int64_t>(next > now ? next - now : 0)) / MS_NS;
  return static_cast<int>(std::min(left + 1, LONGEST_MS));
}

static int wait_for(pid_t child, Shared& s, int fifo, int signals) {
  std::string pending;
  while (true) {
    int status = 0;
    if (waitpid(child, &status, WNOHANG) == child) {
      // What was written just before the end is still taken, so that a mistake in it is told.
      take_control_lines(s, fifo, pending);
      return status;
    }
    pollfd p[2] = {{fifo, POLLIN, 0}, {signals, POLLIN, 0}};
    // Woken once a second as well, in case the end of the command was told to nobody.
    poll(p, fifo >= 0 ? 2 : 0, do_timed(s));
    take_control_lines(s, fifo, pending);
    pass_on(signals, child);
  }
}

int run_command(const Config& config, const std::vector<std::string>& command) {
  const Run_folder folder(config.keep);
  const std::string& run_dir = folder.path();
  const std::string program = find_program(command[0]);
  Shared* s = create_shared(run_dir + "/state");
  make_root(*s, config.root.empty() ? run_dir + "/root" : config.root);
  fill(*s, config, run_dir);
  // After the record is filled: only then the adapters and their numbers are known.
  for (int i = 0; i < s->adapter_count; ++i)
    make_device_nodes(s->adapter[i]);
  make_sysfs(run_dir, *s);
  const std::string control = run_dir + "/control";
  if (mkfifo(control.c_str(), 0600) != 0)
    throw std::runtime_error(control + ": " + strerror(errno));
  // Opened for writing too, or the file would be at its end after each of its writers.
  const int fifo = open(control.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (s->log_path[0] != '\0') {
    // Emptied here, once, since all processes append to it.
    std::ofstream log(s->log_path, std::ios::trunc);
    if (!log)
      throw std::runtime_error(std::string(s->log_path) + ": cannot be written");
  }

  sigset_t mask;
  sigset_t before;
  sigemptyset(&mask);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2, SIGCHLD})
    sigaddset(&mask, signal);
  // Blocked before the fork, so that none is lost between the start of the command and the first wait for it.
  sigprocmask(SIG_BLOCK, &mask, &before);
  const int signals = signalfd(-1, &mask, SFD_NONBLOCK | SFD_CLOEXEC);

  int report[2];
  // The pipe closes by itself when the exec succeeds, and carries the error when it does not.
  if (pipe2(report, O_CLOEXEC) != 0)
    throw std::runtime_error(std::string("pipe: ") + strerror(errno));
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (const std::string& word : command)
    arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  set_environment(run_dir, s->root_dir, program);
  const pid_t child = fork();
  if (child < 0)
    throw std::runtime_error(std::string("fork: ") + strerror(errno));
  if (child == 0) {
    sigprocmask(SIG_SETMASK, &before, nullptr);
    execv(program.c_str(), arguments.data());
    const int error = errno;
    (void)!write(report[1], &error, sizeof error);
    _exit(127);
  }
  close(report[1]);
  int error = 0;
  const bool failed = read(report[0], &error, sizeof error) == static_cast<ssize_t>(sizeof error);
  close(report[0]);
  if (failed) {
    waitpid(child, nullptr, 0);
    throw std::runtime_error(command[0] + ": cannot be run: " + strerror(error));
  }
  const int status = wait_for(child, *s, fifo, signals);
  if (!WIFSIGNALED(status))
    return WEXITSTATUS(status);
  // As shells tell of a signal.
  return 128 + WTERMSIG(status);
}

void control_running(const std::string& line) {
  const char* state = getenv("SOFTDVB_STATE");
  Shared* s = state != nullptr ? map_shared(state) : nullptr;
  if (s == nullptr)
    throw std::runtime_error("--control: no adapters are running here; use it in a command that softdvb started");
  run_control(*s, line);
}

}  // namespace softdvb
