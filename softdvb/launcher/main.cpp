// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "softdvb/launcher/keys.h"
#include "softdvb/launcher/launcher.h"
#include "softdvb/model/device_profile.h"
#include "softdvb/model/usage_error.h"

namespace softdvb {

// Cut off before the options are parsed: the command's own options are none of ours.
static std::vector<std::string> command_after_dashes(int& argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (std::string(argv[i]) != "--")
      continue;
    std::vector<std::string> command(argv + i + 1, argv + argc);
    argc = i;
    return command;
  }
  return {};
}

// Options act in the order in which they stand, because --adapter decides where the following ones belong.
static void add_options(CLI::App& app, Config& config) {
  for (const Key& key : keys()) {
    const std::string name = std::string("--") + key.name;
    CLI::Option* option = nullptr;
    if (key.form[0] == '\0')
      option = app.add_flag_callback(
          name, [&config, &key] { key.set(config, key, ""); }, key.help);
    else
      option = app.add_option_function<std::string>(
                      name, [&config, &key](const std::string& value) { key.set(config, key, value); }, key.help)
                   ->type_name(key.form)
                   ->take_last();
    option->trigger_on_parse();
  }
  CLI::Option* file = app.add_option_function<std::string>(
      "--config", [&config](const std::string& name) { read_file(config, name); }, "read such options from FILE");
  file->type_name("FILE")->take_last()->trigger_on_parse();
}

class Usage : public CLI::Formatter {
 public:
  std::string make_usage(const CLI::App*, std::string) const override {
    return "Usage: softdvb [OPTIONS] -- COMMAND [ARGUMENTS]\n       softdvb --control LINE\n";
  }
};

static int run(int argc, char** argv) {
  const std::vector<std::string> command = command_after_dashes(argc, argv);
  Config config;
  CLI::App app("Runs COMMAND with software DVB adapters that play recorded streams.", "softdvb");
  app.formatter(std::make_shared<Usage>());
  std::string control;
  app.add_option("--control", control, "change running adapters, from inside COMMAND")->type_name("LINE");
  bool list_devices = false;
  app.add_flag("--list-devices", list_devices, "show what --device can imitate");
  app.set_version_flag("--version", "softdvb " SOFTDVB_VERSION);
  add_options(app, config);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    // Help and version come this way, too.
    if (e.get_exit_code() == 0)
      return app.exit(e);
    throw Usage_error(e.what());
  }
  if (list_devices) {
    std::fputs(describe_devices().c_str(), stdout);
    return 0;
  }
  if (!control.empty()) {
    control_running(control);
    return 0;
  }
  if (command.empty())
    throw Usage_error("no command given; write it after '--', see softdvb --help");
  return run_command(config, command);
}

}  // namespace softdvb

int main(int argc, char** argv) {
  try {
    return softdvb::run(argc, argv);
    // Two exit codes, so that scripts can tell a wrong command line from a machine that refuses.
  } catch (const softdvb::Usage_error& e) {
    std::fprintf(stderr, "softdvb: %s\n", e.what());
    return 2;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "softdvb: %s\n", e.what());
    return 1;
  }
}
