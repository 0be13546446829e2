// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <dirent.h>
#include <dlfcn.h>
#include <sys/sysmacros.h>

#include "softdvb/device_support.h"

// Run under softdvb.
namespace fs = std::filesystem;
using device::Fd;
using device::result;
using Names = std::vector<std::string>;

template <class Read>
static Names names_by(Read read, const char* folder) {
  Names names;
  DIR* list = opendir(folder);
  if (list == nullptr)
    return names;
  while (const auto* entry = read(list))
    if (entry->d_name[0] != '.')
      names.emplace_back(entry->d_name);
  closedir(list);
  std::sort(names.begin(), names.end());
  return names;
}

// By both calls. Where places in folders have 32 bits only the second is sure to read a file system of today.
static Names names_in(const char* folder) {
  const Names names = names_by(readdir64, folder);
  if (sizeof(off_t) == 8) {
    EXPECT_EQ(names_by(readdir, folder), names);
  }
  return names;
}

static std::string in_root(const std::string& path) {
  return std::string(getenv("SOFTDVB_ROOT")) + path;
}

TEST(Devices, are_listed) {
  EXPECT_EQ(names_in("/dev/dvb"), (Names{"adapter0", "adapter2"}));
  EXPECT_EQ(names_in("/dev/dvb/adapter2"), (Names{"demux0", "dvr0", "frontend0"}));
  EXPECT_EQ(access("/dev/dvb/adapter0/frontend0", R_OK | W_OK), 0);
  EXPECT_EQ(result(access("/dev/dvb/adapter1/frontend0", F_OK)), -ENOENT);
}

TEST(Devices, others_do_not_exist) {
  for (const char* path : {"/dev/dvb/adapter1/demux0", "/dev/dvb/adapter0/ca0", "/dev/dvb/adapter0/sec0",
                           "/dev/dvb/adapter0/frontend1", "/dev/dvb0.frontend0", "/dev/dvb/adapter00x/demux0"})
    EXPECT_EQ(result(open(path, O_RDONLY)), -ENOENT) << path;
}

TEST(Devices, are_character_devices) {
  struct stat st {};
  ASSERT_EQ(stat("/dev/dvb/adapter2/demux0", &st), 0);
  EXPECT_TRUE(S_ISCHR(st.st_mode));
  EXPECT_EQ(major(st.st_rdev), 212u);
  const Fd fd(open("/dev/dvb/adapter2/demux0", O_RDONLY));
  struct stat open_one {};
  ASSERT_EQ(fstat(fd, &open_one), 0);
  EXPECT_TRUE(S_ISCHR(open_one.st_mode));
  EXPECT_EQ(st.st_rdev, open_one.st_rdev);
  EXPECT_TRUE(fs::is_character_file("/dev/dvb/adapter0/frontend0"));
}

// Programs built with fortification or large files open by other names.
TEST(Devices, are_opened_by_every_variant_of_the_call) {
  constexpr char PATH[] = "/dev/dvb/adapter0/demux0";
  constexpr int FLAGS = O_RDONLY | O_NONBLOCK;
  using Open = int (*)(const char*, int);
  using Openat = int (*)(int, const char*, int);
  std::vector<std::pair<std::string, int>> fds = {{"open64", open64(PATH, FLAGS)},
                                                  {"openat", openat(AT_FDCWD, PATH, FLAGS)},
                                                  {"openat64", openat64(-1, PATH, FLAGS)}};
  for (const char* name : {"__open_2", "__open64_2"})
    fds.emplace_back(name, reinterpret_cast<Open>(dlsym(RTLD_DEFAULT, name))(PATH, FLAGS));
  for (const char* name : {"__openat_2", "__openat64_2"})
    fds.emplace_back(name, reinterpret_cast<Openat>(dlsym(RTLD_DEFAULT, name))(AT_FDCWD, PATH, FLAGS));
  for (const auto& [name, fd] : fds) {
    EXPECT_GE(fd, 0) << name;
    EXPECT_EQ(ioctl(fd, DMX_STOP), 0) << name;
    EXPECT_EQ(fcntl(fd, F_GETFL), FLAGS) << name;
    EXPECT_EQ(close(fd), 0) << name;
  }
}

// As players do that look for adapters in the folder.
TEST(Devices, are_opened_from_an_open_folder) {
  const Fd adapter(open("/dev/dvb/adapter2", O_RDONLY | O_DIRECTORY));
  const Fd folder(open("/dev/dvb", O_PATH | O_DIRECTORY));
  ASSERT_GE(adapter, 0);
  ASSERT_GE(folder, 0);
  for (const int fd : {openat(adapter, "demux0", O_RDONLY), openat(folder, "adapter2/demux0", O_RDONLY)}) {
    EXPECT_GE(fd, 0);
    EXPECT_EQ(ioctl(fd, DMX_STOP), 0);
    EXPECT_EQ(close(fd), 0);
  }
  EXPECT_EQ(result(openat(folder, "adapter1/demux0", O_RDONLY)), -ENOENT);
  EXPECT_EQ(result(openat(folder, "demux0", O_RDONLY)), -ENOENT);
  const support::Temp_dir other;
  support::write_file(other.file("demux0"), "x");
  const Fd elsewhere(open(other.path().c_str(), O_RDONLY | O_DIRECTORY));
  const Fd file(openat(elsewhere, "demux0", O_RDONLY));
  EXPECT_GE(file, 0);
  EXPECT_EQ(ioctl(file, DMX_STOP), -1) << "a file, no device";
}

TEST(Devices, tell_how_they_were_opened) {
  const Fd reader(device::open_demux());
  EXPECT_EQ(fcntl(reader, F_GETFL), O_RDONLY | O_NONBLOCK);
  EXPECT_EQ(fcntl(reader, F_SETFL, 0), 0);
  EXPECT_EQ(fcntl(reader, F_GETFL), O_RDONLY);
  EXPECT_EQ(fcntl(reader, F_GETFD), 0);
  const Fd writer(device::open_demux(O_RDWR | O_CLOEXEC));
  EXPECT_EQ(fcntl(writer, F_GETFL), O_RDWR);
  EXPECT_EQ(fcntl(writer, F_GETFD), FD_CLOEXEC);
}

TEST(Sandbox, files_live_below_its_root) {
  support::write_file("/tmp/testsig", "1f");
  EXPECT_EQ(support::read_file(in_root("/tmp/testsig")), "1f");
  EXPECT_TRUE(fs::exists("/tmp/testsig"));
  EXPECT_EQ(unlink("/tmp/testsig"), 0);
  EXPECT_FALSE(fs::exists(in_root("/tmp/testsig")));
  EXPECT_EQ(mkdir("/dvbfiles/deep", 0755), 0);
  support::write_file("/dvbfiles/deep/a", "text");
  EXPECT_EQ(rename("/dvbfiles/deep/a", "/tmp/zoneinfo/b"), 0);
  EXPECT_EQ(support::read_file(in_root("/tmp/zoneinfo/b")), "text");
  EXPECT_EQ(names_in("/tmp/zoneinfo"), (Names{"b"}));
  EXPECT_EQ(remove("/tmp/zoneinfo/b"), 0);
  EXPECT_EQ(rmdir("/dvbfiles/deep"), 0);
}

TEST(Sandbox, other_paths_stay_as_they_are) {
  support::Temp_dir folder;
  support::write_file(folder.file("a"), "x");
  EXPECT_FALSE(fs::exists(in_root(folder.file("a"))));
  support::write_file("/tmp/testsig2", "x");  // only looks like one
  EXPECT_FALSE(fs::exists(in_root("/tmp/testsig2")));
  fs::remove("/tmp/testsig2");
}

TEST(Sandbox, holds_for_shell_commands) {
  ASSERT_EQ(system("echo one > /tmp/zoneinfo/a && cp -f /tmp/zoneinfo/a /dvbfiles/localtime && "
                   "mv /tmp/zoneinfo/a /dvbfiles/b && test -e /dvbfiles/b && rm /dvbfiles/b"),
            0);
  EXPECT_EQ(support::read_file(in_root("/dvbfiles/localtime")), "one\n");
  EXPECT_EQ(names_in("/dvbfiles"), (Names{"localtime"}));
}

TEST(Sandbox, the_zone_compiler_works_in_it) {
  if (access("/usr/sbin/zic", X_OK) != 0)
    GTEST_SKIP() << "no zone compiler";
  support::write_file("/tmp/zoneinfo/timezone.txt", "Zone EST_0  02:00 - EST\n");
  ASSERT_EQ(system("/usr/sbin/zic -d /tmp/zoneinfo /tmp/zoneinfo/timezone.txt"), 0);
  EXPECT_EQ(support::read_file(in_root("/tmp/zoneinfo/EST_0")).find("TZif"), 0u);
}

TEST(Sandbox, paths_are_told_in_the_programs_terms) {
  char path[4096];
  EXPECT_STREQ(realpath("/dev/dvb/adapter0/demux0", path), "/dev/dvb/adapter0/demux0");
  char* made = realpath("/dvbfiles", nullptr);
  EXPECT_STREQ(made, "/dvbfiles");
  free(made);
}
