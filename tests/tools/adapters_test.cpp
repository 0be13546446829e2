// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <fcntl.h>
#include <sys/wait.h>

#include <nlohmann/json.hpp>

#include "tools/command_fixture.h"
#include "tools/engine/holder.h"

// `kelvo adapters`, and who holds a device.

namespace {

using nlohmann::json;
using testing::HasSubstr;

Command_result adapters(const Words& options, const Words& arguments = {}) {
  return run_command(joined({{SOFTDVB_COMMAND}, options, {"--", KELVO_COMMAND, "adapters"}, arguments}));
}

TEST(Adapters, are_listed_with_what_they_receive) {
  EXPECT_EQ(adapters({"--adapter", "0", "--adapter", "2", "--frequency-range", "174000000-230000000"}),
            prints("ADAPTER  FRONTEND  NAME             SYSTEMS        RANGE  STATE\n"
                   "      0         0  softdvb DVB-T 0  DVB-T     47-862 MHz  free\n"
                   "      2         0  softdvb DVB-T 2  DVB-T    174-230 MHz  free\n"));
}

TEST(Adapters, with_two_frontends_have_two_lines) {
  EXPECT_EQ(adapters({"--device", "rtl2832+mn88472"}),
            prints("ADAPTER  FRONTEND  NAME                     SYSTEMS                   RANGE  STATE\n"
                   "      0         0  Realtek RTL2832 (DVB-T)  DVB-T               174-862 MHz  free\n"
                   "      0         1  Panasonic MN88472        DVB-T DVB-T2 DVB-C  174-862 MHz  free\n"));
}

// State in the table and for programs, without and with --check.
struct Checked {
  const char* legend;
  Words options;
  const char* free;
  const char* word;
  const char* checked;
  const char* checked_word;
};

TEST(Adapters, are_opened_for_a_check_of_what_stands_in_their_way) {
  const Checked cases[] = {
      {"nothing", {"--device", "si2168"}, "free", "free", "free", "free"},
      {"its firmware",
       {"--device", "si2168", "--firmware", "missing"},
       "free",
       "free",
       "firmware missing (see dmesg)",
       "no firmware"},
      {"a program of another user", {"--busy"}, "free", "free", "used by another program", "used"},
      {"no right to write",
       {"--fault", "open(/dev/dvb/adapter0/frontend0)=EACCES@3"},
       "free",
       "free",
       "no right (group video)",
       "no right"},
  };
  const auto last_words = [](const Command_result& run) {
    const Words lines = support::lines_of(run.out);
    const std::string& line = lines.at(1);
    return line.substr(line.find("MHz") + 5);
  };
  const auto word = [](const Command_result& run) { return json::parse(run.out)[0]["state"].get<std::string>(); };
  const std::string opening = "Opening /dev/dvb/adapter0/frontend0 ...\n";
  for (const Checked& c : cases) {
    SCOPED_TRACE(c.legend);
    const Words options = joined({{"--time", "x8"}, c.options});
    const Command_result free = adapters(options);
    EXPECT_EQ(last_words(free), c.free);
    EXPECT_EQ(free.err, "");
    EXPECT_EQ(word(adapters(options, {"--json"})), c.word);
    const Command_result checked = adapters(options, {"--check"});
    EXPECT_EQ(last_words(checked), c.checked);
    EXPECT_EQ(checked.err, opening);
    EXPECT_EQ(checked.exit_code, 0);
    EXPECT_EQ(word(adapters(options, {"--check", "--json"})), c.checked_word);
  }
}

TEST(Adapters, that_cannot_be_used_are_not_opened_for_a_check) {
  EXPECT_EQ(adapters({"--fault", "open(/dev/dvb/adapter0/frontend0)=EBUSY"}, {"--check"}),
            prints("ADAPTER  FRONTEND  NAME  SYSTEMS  RANGE  STATE\n"
                   "      0         0  -     -            -  used by another program\n"));
}

TEST(Adapters, say_what_stands_in_their_way) {
  const struct {
    const char* fault;
    const char* state;
    const char* word;
    int error;
  } cases[] = {
      {"open(/dev/dvb/adapter0/frontend0)=EBUSY", "used by another program", "used", EBUSY},
      {"open(/dev/dvb/adapter0/frontend0)=EACCES", "no right (group video)", "no right", EACCES},
      {"open(/dev/dvb/adapter0/frontend0)=EPERM", "no right (group video)", "no right", EPERM},
      {"open(/dev/dvb/adapter0/frontend0)=ENODEV", "no driver", "no driver", ENODEV},
      {"open(/dev/dvb/adapter0/frontend0)=EIO", "Input/output error", "unusable", EIO},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(adapters({"--fault", c.fault}), prints(std::string("ADAPTER  FRONTEND  NAME  SYSTEMS  RANGE  STATE\n"
                                                                 "      0         0  -     -            -  ") +
                                                     c.state + "\n"));
    const json list = json::parse(adapters({"--fault", c.fault}, {"--json"}).out);
    ASSERT_EQ(list.size(), 1U);
    EXPECT_EQ(list[0]["state"], c.word);
    EXPECT_EQ(list[0]["errno"], c.error);
    EXPECT_EQ(list[0]["name"], nullptr);
    EXPECT_EQ(list[0]["used_by"], nullptr);
  }
}

TEST(Adapters, are_objects_for_programs) {
  EXPECT_EQ(json::parse(adapters({}, {"--json"}).out), json::parse(R"([{
    "adapter": 0, "frontend": 0, "path": "/dev/dvb/adapter0/frontend0", "name": "softdvb DVB-T 0",
    "systems": ["DVB-T"], "lowest_hz": 47000000, "highest_hz": 862000000, "state": "free", "errno": 0, "used_by": null
  }])"));
}

TEST(Adapters, of_other_systems_are_told_apart) {
  EXPECT_EQ(adapters({"--type", "qam"}), prints("ADAPTER  FRONTEND  NAME             SYSTEMS       RANGE  STATE\n"
                                                "      0         0  softdvb DVB-C 0  DVB-C    47-862 MHz  not for "
                                                "DVB-T or DVB-T2\n"));
}

TEST(Adapters, that_are_not_there_are_an_empty_list) {
  if (std::filesystem::exists("/dev/dvb"))
    GTEST_SKIP() << "this machine has DVB adapters";
  const std::string line =
      "No adapters below /dev/dvb: none is plugged in, or there is no driver for it (see dmesg).\n";
  EXPECT_EQ(run_command({KELVO_COMMAND, "adapters"}), prints("", line));
  EXPECT_EQ(run_command({KELVO_COMMAND, "adapters", "--json"}), prints("[]\n", line));
}

// A child that has a file open until it is killed.
class Child {
 public:
  Child(const std::string& file, int flags) {
    int ready[2];
    EXPECT_EQ(pipe(ready), 0);
    pid_ = fork();
    if (pid_ == 0) {
      const int fd = open(file.c_str(), flags);
      (void)!write(ready[1], "x", fd >= 0 ? 1 : 0);
      (void)close(ready[1]);
      while (true)
        pause();
    }
    (void)close(ready[1]);
    char byte = 0;
    EXPECT_EQ(read(ready[0], &byte, 1), 1) << "the child could not open " << file;
    (void)close(ready[0]);
  }
  ~Child() {
    (void)kill(pid_, SIGKILL);
    (void)waitpid(pid_, nullptr, 0);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  int pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
};

TEST(Holder, is_another_process_that_has_the_file_open_for_writing) {
  const support::Temp_dir dir;
  const std::string file = dir.file("frontend0");
  support::write_file(file, "");
  EXPECT_FALSE(holder_of(file));
  const int own = open(file.c_str(), O_RDWR);
  EXPECT_FALSE(holder_of(file)) << "this process itself";
  (void)close(own);
  {
    const Child reader(file, O_RDONLY);
    EXPECT_FALSE(holder_of(file)) << "a reader disturbs nobody";
  }
  for (const int flags : {O_RDWR, O_WRONLY}) {
    const Child writer(file, flags);
    const std::optional<Holder> holder = holder_of(file);
    ASSERT_TRUE(holder);
    EXPECT_EQ(holder->pid, writer.pid());
    // The kernel keeps fifteen characters of a name.
    EXPECT_EQ(holder->program, std::string("tools_adapters_test").substr(0, 15));
    EXPECT_FALSE(holder_of(dir.file("frontend1")));
  }
  EXPECT_FALSE(holder_of(file)) << "it has ended";
}

}  // namespace
