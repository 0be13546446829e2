// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <kelvo/kelvo.h>
#include <nlohmann/json.hpp>

#include "tools/cli/console.h"
#include "tools/cli/failure.h"
#include "tools/cli/table.h"
#include "tools/cli/text.h"
#include "tools/commands.h"
#include "tools/engine/holder.h"
#include "tools/engine/tuning_text.h"

namespace {

// As many as the kernel has numbers for by default, and more frontends than any adapter has.
constexpr int MOST_ADAPTERS = 16;
constexpr int MOST_FRONTENDS = 8;

struct Frontend {
  int adapter = 0;
  int number = 0;
  Frontend_state state;
  std::string name;
  std::optional<Holder> holder;
  bool busy = false;
};

bool is_there(const Frontend& frontend) {
  return frontend.state.error != ENOENT && frontend.state.error != ENOTDIR;
}

Frontend look_at_frontend(int adapter, int number) {
  const std::string path = fmt::format("/dev/dvb/adapter{}/frontend{}", adapter, number);
  Frontend out{adapter, number, Tuner::probe(path.c_str()), "", std::nullopt, false};
  out.name = clean_text(out.state.name);
  if (is_there(out)) {
    out.holder = holder_of(path);
  }
  out.busy = out.holder.has_value() || out.state.error == EBUSY;
  return out;
}

void open_for_check(Frontend* frontend) {
  if (frontend->busy || frontend->state.error != 0) {
    return;
  }
  console::say(fmt::format("Opening {} ...", frontend->state.path));
  frontend->state = Tuner::check(frontend->state.path.c_str());
  frontend->busy = frontend->state.error == EBUSY;
}

std::vector<Frontend> all_frontends(bool check) {
  std::vector<Frontend> all;
  for (int adapter = 0; adapter < MOST_ADAPTERS; ++adapter) {
    for (int number = 0; number < MOST_FRONTENDS; ++number) {
      Frontend frontend = look_at_frontend(adapter, number);
      if (!is_there(frontend)) {
        continue;
      }
      if (check) {
        open_for_check(&frontend);
      }
      all.push_back(std::move(frontend));
    }
  }
  return all;
}

// What stands in the way of using it, or that nothing does. A program that has it comes first: it may have been the one
// that met the other reasons.
std::string state_text(const Frontend& frontend) {
  if (frontend.holder) {
    return fmt::format("used by {} ({})", frontend.holder->program, frontend.holder->pid);
  }
  switch (frontend.state.error) {
    case 0:
      break;
    case EBUSY:
      return "used by another program";
    case EACCES:
    case EPERM:
      return "no right (group video)";
    case ENODEV:
    case ENXIO:
      return "no driver";
    default:
      return strerror(frontend.state.error);
  }
  if (frontend.state.firmware_missing) {
    return "firmware missing (see dmesg)";
  }
  return frontend.state.systems.empty() ? "not for DVB-T or DVB-T2" : "free";
}

// One word, for programs.
std::string state_word(const Frontend& frontend) {
  if (frontend.busy) {
    return "used";
  }
  switch (frontend.state.error) {
    case 0:
      return frontend.state.firmware_missing ? "no firmware" : frontend.state.systems.empty() ? "other system" : "free";
    case EACCES:
    case EPERM:
      return "no right";
    case ENODEV:
    case ENXIO:
      return "no driver";
    default:
      return "unusable";
  }
}

std::vector<std::string> systems_of(const Frontend& frontend) {
  std::vector<std::string> names;
  for (const int system : frontend.state.all_systems) {
    names.push_back(system_name(system));
  }
  return names;
}

std::string range_text(const Frontend_state& state) {
  if (state.lowest_hz == 0 && state.highest_hz == 0) {
    return "-";
  }
  return fmt::format("{:g}-{:g} MHz", static_cast<double>(state.lowest_hz) / 1e6,
                     static_cast<double>(state.highest_hz) / 1e6);
}

void print_table(const std::vector<Frontend>& frontends) {
  using enum Table::Align;
  using enum Table::Fit;
  Table table({{"ADAPTER", RIGHT},
               {"FRONTEND", RIGHT},
               {"NAME", LEFT, WORDS},
               {"SYSTEMS", LEFT, WORDS},
               {"RANGE", RIGHT, WHOLE, 1},
               {"STATE", LEFT, WORDS}});
  for (const Frontend& frontend : frontends) {
    const std::string systems = fmt::format("{}", fmt::join(systems_of(frontend), " "));
    table.add({std::to_string(frontend.adapter), std::to_string(frontend.number),
               frontend.name.empty() ? "-" : frontend.name, systems.empty() ? "-" : systems, range_text(frontend.state),
               state_text(frontend)});
  }
  table.print(stdout);
}

nlohmann::ordered_json to_json(const Frontend& frontend) {
  const Frontend_state& state = frontend.state;
  nlohmann::ordered_json out;
  out["adapter"] = frontend.adapter;
  out["frontend"] = frontend.number;
  out["path"] = state.path;
  out["name"] = frontend.name.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(frontend.name);
  out["systems"] = systems_of(frontend);
  out["lowest_hz"] = state.lowest_hz == 0 ? nlohmann::ordered_json() : nlohmann::ordered_json(state.lowest_hz);
  out["highest_hz"] = state.highest_hz == 0 ? nlohmann::ordered_json() : nlohmann::ordered_json(state.highest_hz);
  out["state"] = state_word(frontend);
  out["errno"] = state.error;
  if (frontend.holder) {
    out["used_by"] = {{"program", frontend.holder->program}, {"pid", frontend.holder->pid}};
  } else {
    out["used_by"] = nullptr;
  }
  return out;
}

void list_adapters(bool json, bool check) {
  const console::Quiet_library quiet(-1);
  const std::vector<Frontend> frontends = all_frontends(check);
  if (json) {
    nlohmann::ordered_json out = nlohmann::ordered_json::array();
    for (const Frontend& frontend : frontends) {
      out.push_back(to_json(frontend));
    }
    console::print(out.dump(2) + "\n", "the list");
  } else {
    print_table(frontends);
  }
  console::finish_printing("the list");
  if (frontends.empty()) {
    console::say("No adapters below /dev/dvb: none is plugged in, or there is no driver for it (see dmesg).");
  }
}

}  // namespace

void add_adapters(CLI::App& app, int* exit_code) {
  CLI::App* command = app.add_subcommand("adapters", "List the adapters, what they receive and who uses them");
  const auto json = std::make_shared<bool>(false);
  const auto check = std::make_shared<bool>(false);
  command->add_flag("--json", *json, "A list of objects, for programs");
  command->add_flag("--check", *check,
                    "Open those that are free as if to tune them, which shows whether their firmware is there and "
                    "whether another user's program has them; takes seconds where a driver loads its firmware");
  command->footer(
      "State: free; used by PROGRAM (its process number); no right (group video); no driver; firmware missing (see\n"
      "dmesg); not for DVB-T or DVB-T2. Without --check devices are not disturbed: another user's program that has one\n"
      "is seen by root only, and that a device misses its firmware when it is tuned.\n"
      "\n"
      "Examples:\n"
      "  kelvo adapters --check\n"
      "  kelvo adapters --json | jq '.[] | select(.state == \"free\") | .adapter'");
  command->callback([json, check, exit_code] {
    list_adapters(*json, *check);
    *exit_code = EXIT_OK;
  });
}
