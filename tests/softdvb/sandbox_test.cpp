#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/dvb/dmx.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/softdvb.h"
#include "support/support.h"

// Run under softdvb.
namespace fs = std::filesystem;

static std::vector<std::string> names_in(const char* folder) {
  std::vector<std::string> names;
  DIR* list = opendir(folder);
  if (list == nullptr)
    return names;
  while (const dirent* entry = readdir(list))
    if (entry->d_name[0] != '.')
      names.emplace_back(entry->d_name);
  closedir(list);
  std::sort(names.begin(), names.end());
  return names;
}

static std::string in_root(const std::string& path) {
  return std::string(getenv("SOFTDVB_ROOT")) + path;
}

using Names = std::vector<std::string>;

TEST(Devices, are_listed) {
  EXPECT_EQ((Names{"adapter0", "adapter2"}), names_in("/dev/dvb"));
  EXPECT_EQ((Names{"demux0", "dvr0", "frontend0"}), names_in("/dev/dvb/adapter2"));
  EXPECT_EQ(0, access("/dev/dvb/adapter0/frontend0", R_OK | W_OK));
  EXPECT_EQ(-1, access("/dev/dvb/adapter1/frontend0", F_OK));
  EXPECT_EQ(ENOENT, errno);
}

TEST(Devices, others_do_not_exist) {
  for (const char* path : {"/dev/dvb/adapter1/demux0", "/dev/dvb/adapter0/ca0", "/dev/dvb/adapter0/sec0",
                           "/dev/dvb/adapter0/frontend1", "/dev/dvb0.frontend0", "/dev/dvb/adapter00x/demux0"}) {
    errno = 0;
    EXPECT_EQ(-1, open(path, O_RDONLY)) << path;
    EXPECT_EQ(ENOENT, errno) << path;
  }
}

TEST(Devices, are_character_devices) {
  struct stat st {};
  ASSERT_EQ(0, stat("/dev/dvb/adapter2/demux0", &st));
  EXPECT_TRUE(S_ISCHR(st.st_mode));
  EXPECT_EQ(212u, major(st.st_rdev));
  const int fd = open("/dev/dvb/adapter2/demux0", O_RDONLY);
  struct stat open_one {};
  ASSERT_EQ(0, fstat(fd, &open_one));
  EXPECT_TRUE(S_ISCHR(open_one.st_mode));
  EXPECT_EQ(st.st_rdev, open_one.st_rdev);
  close(fd);
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
    EXPECT_EQ(0, ioctl(fd, DMX_STOP)) << name;
    EXPECT_EQ(FLAGS, fcntl(fd, F_GETFL)) << name;
    EXPECT_EQ(0, close(fd)) << name;
  }
}

TEST(Devices, tell_how_they_were_opened) {
  const int reader = open("/dev/dvb/adapter0/demux0", O_RDONLY | O_NONBLOCK);
  EXPECT_EQ(O_RDONLY | O_NONBLOCK, fcntl(reader, F_GETFL));
  EXPECT_EQ(0, fcntl(reader, F_SETFL, 0));
  EXPECT_EQ(O_RDONLY, fcntl(reader, F_GETFL));
  EXPECT_EQ(0, fcntl(reader, F_GETFD));
  const int writer = open("/dev/dvb/adapter0/demux0", O_RDWR | O_CLOEXEC);
  EXPECT_EQ(O_RDWR, fcntl(writer, F_GETFL));
  EXPECT_EQ(FD_CLOEXEC, fcntl(writer, F_GETFD));
  close(reader);
  close(writer);
}

TEST(Sandbox, files_live_below_its_root) {
  support::write_file("/tmp/testsig", "1f");
  EXPECT_EQ("1f", support::read_file(in_root("/tmp/testsig")));
  EXPECT_TRUE(fs::exists("/tmp/testsig"));
  EXPECT_EQ(0, unlink("/tmp/testsig"));
  EXPECT_FALSE(fs::exists(in_root("/tmp/testsig")));
  EXPECT_EQ(0, mkdir("/dvbfiles/deep", 0755));
  support::write_file("/dvbfiles/deep/a", "text");
  EXPECT_EQ(0, rename("/dvbfiles/deep/a", "/tmp/zoneinfo/b"));
  EXPECT_EQ("text", support::read_file(in_root("/tmp/zoneinfo/b")));
  EXPECT_EQ((Names{"b"}), names_in("/tmp/zoneinfo"));
  EXPECT_EQ(0, remove("/tmp/zoneinfo/b"));
  EXPECT_EQ(0, rmdir("/dvbfiles/deep"));
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
  ASSERT_EQ(0, system("echo one > /tmp/zoneinfo/a && cp -f /tmp/zoneinfo/a /dvbfiles/localtime && "
                      "mv /tmp/zoneinfo/a /dvbfiles/b && test -e /dvbfiles/b && rm /dvbfiles/b"));
  EXPECT_EQ("one\n", support::read_file(in_root("/dvbfiles/localtime")));
  EXPECT_EQ((Names{"localtime"}), names_in("/dvbfiles"));
}

TEST(Sandbox, the_zone_compiler_works_in_it) {
  if (access("/usr/sbin/zic", X_OK) != 0)
    GTEST_SKIP() << "no zone compiler";
  support::write_file("/tmp/zoneinfo/timezone.txt", "Zone EST_0  02:00 - EST\n");
  ASSERT_EQ(0, system("/usr/sbin/zic -d /tmp/zoneinfo /tmp/zoneinfo/timezone.txt"));
  EXPECT_EQ(0u, support::read_file(in_root("/tmp/zoneinfo/EST_0")).find("TZif"));
}

TEST(Sandbox, paths_are_told_in_the_programs_terms) {
  char path[4096];
  EXPECT_STREQ("/dev/dvb/adapter0/demux0", realpath("/dev/dvb/adapter0/demux0", path));
  char* made = realpath("/dvbfiles", nullptr);
  EXPECT_STREQ("/dvbfiles", made);
  free(made);
}
