// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "support/browser.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <sstream>

#include <gtest/gtest.h>

#include "support/command.h"
#include "support/support.h"

namespace support {

using nlohmann::json;

Browser::Browser() {
  int in[2], out[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) {
    ADD_FAILURE() << "no pipes";
    return;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  char program[] = "python3", script[] = KELVO_WEBDRIVER;
  char* argv[] = {program, script, nullptr};
  if (posix_spawnp(&pid_, program, &actions, nullptr, argv, environ) != 0)
    pid_ = -1;
  posix_spawn_file_actions_destroy(&actions);
  close(in[0]);
  close(out[1]);
  to_ = in[1];
  from_ = out[0];
  if (pid_ < 0)
    missing_ = "no python3 here";
  else
    (void)ask(nullptr);  // its first line comes unasked
}

Browser::~Browser() {
  close(to_);  // it ends at the end of its input
  close(from_);
  if (pid_ > 0)
    (void)waitpid(pid_, nullptr, 0);
}

json Browser::ask(json request) {
  if (!request.is_null()) {
    const std::string line = request.dump() + "\n";
    if (write(to_, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
      ADD_FAILURE() << "the browser is gone";
  }
  size_t end = 0;
  while ((end = buffer_.find('\n')) == std::string::npos) {
    char bytes[65536];
    const ssize_t n = read(from_, bytes, sizeof bytes);
    if (n <= 0) {
      ADD_FAILURE() << "the browser is gone";
      return nullptr;
    }
    buffer_.append(bytes, static_cast<size_t>(n));
  }
  const json answer = json::parse(buffer_.substr(0, end));
  buffer_.erase(0, end + 1);
  if (answer.contains("error"))
    ADD_FAILURE() << answer["error"].get<std::string>();
  missing_ = answer.value("skip", missing_);
  return answer.value("value", json());
}

json Browser::serious_findings(const std::string& axe_file) {
  return js("return (async () => {" + read_file(axe_file) + R"(;
    const found = await axe.run(document, {resultTypes: ["violations"]});
    return found.violations.filter((one) => ["serious", "critical"].includes(one.impact))
      .map((one) => one.id + ": " + one.nodes.slice(0, 3)
        .map((node) => node.html.slice(0, 150) + " " + node.failureSummary).join(" / ")))" +
            "})()");
}

json Browser::complaints() {
  json all = js("return window.violations");
  for (const json& message : ask({{"do", "log"}}))
    all.push_back(message);
  return all;
}

std::map<std::string, size_t> colours_of(const std::string& png) {
  const Command_result result = run_command({"python3", KELVO_PNG_COLOURS, png});
  EXPECT_EQ(result.exit_code, 0) << result.err;
  std::map<std::string, size_t> out;
  std::istringstream lines(result.out);
  size_t count = 0;
  for (std::string colour; lines >> colour >> count;)
    out[colour] = count;
  return out;
}

}  // namespace support
