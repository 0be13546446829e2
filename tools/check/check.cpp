// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <memory>
#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <kelvo/kelvo.h>
#include <nlohmann/json.hpp>

#include "tools/cli/console.h"
#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/commands.h"
#include "tools/database/channel_db.h"
#include "tools/database/repair.h"

namespace {

struct Check_options {
  std::string db;
  bool repair = false;
  bool json = false;
};

// One of the two files, and what is said of it.
class Checked_file {
 public:
  Checked_file(std::string file, bool guide) : file_(std::move(file)), guide_(guide) {
    state_ = look_at(file_, table());
    for (std::string& problem : state_.problems) {
      problem = clean_text(problem);
    }
  }

  bool is_well() const { return repaired_ || state_.state == File_state::SOUND || (guide_ && is_missing()); }
  bool is_missing() const { return state_.state == File_state::MISSING; }

  // A guide is only made anew, because what is missing of it is sent again.
  void repair() {
    if (is_well()) {
      return;
    }
    std::string copy = guide_ ? "" : good_copy_of(file_);
    if (!copy.empty() && look_at(copy, table()).state != File_state::SOUND) {
      copy.clear();
    }
    if (copy.empty() && is_missing()) {
      throw Failure(fmt::format("{}: No such file or directory; make it with 'kelvo scan'", file_));
    }
    repair_ = mend(file_, table(), copy);
    repaired_ = true;
  }

  void print() const {
    std::string out;
    if (state_.state == File_state::SOUND) {
      out = fmt::format("{}: sound, {}\n", file_, rows(state_.rows));
    } else if (is_missing()) {
      out = fmt::format("{}: not there{}\n", file_, guide_ ? " yet" : "");
    }
    for (const std::string& problem : state_.problems) {
      out += fmt::format("{}: damaged: {}\n", file_, problem);
    }
    if (repaired_) {
      out += repair_.from.empty()
                 ? fmt::format("{}: made anew with what could be read, {}\n", file_, rows(repair_.rows))
                 : fmt::format("{}: replaced by {}, {}\n", file_, repair_.from, rows(repair_.rows));
      if (!repair_.aside.empty()) {
        out += fmt::format("{}: the damaged file is kept as {}\n", file_, repair_.aside);
      }
    }
    console::print(out, "the result");
  }

  nlohmann::ordered_json to_json() const {
    const auto or_null = [](const std::string& text) {
      return text.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(text);
    };
    nlohmann::ordered_json out;
    out["file"] = file_;
    out["kind"] = guide_ ? "guide" : "channels";
    out["state"] = is_missing() ? "missing" : state_.state == File_state::SOUND ? "sound" : "damaged";
    out["problems"] = state_.problems;
    out["repaired"] = repaired_;
    out["repaired_from"] = or_null(repair_.from);
    out["set_aside"] = or_null(repair_.aside);
    out[guide_ ? "events" : "channels"] = repaired_ ? repair_.rows : state_.rows;
    return out;
  }

 private:
  std::string table() const { return guide_ ? "epglist" : "kanalid"; }
  std::string rows(int number) const {
    return fmt::format("{} {}{}", number, guide_ ? "event" : "channel", number == 1 ? "" : "s");
  }

  std::string file_;
  bool guide_;
  File_state state_;
  Repair repair_;
  bool repaired_ = false;
};

int check(const Check_options& options) {
  const console::Quiet_library quiet(-1);
  const std::string file = options.db.empty() ? default_database() : options.db;
  check_database_name(file);
  char guide_file[4096];
  Sdbl::mapto_epg_filename(guide_file, file.c_str());
  Checked_file channels(file, false), guide(guide_file, true);
  if (channels.is_missing() && !options.repair) {
    throw Failure(fmt::format("{}: No such file or directory; make it with 'kelvo scan'", file));
  }
  if (options.repair) {
    channels.repair();
    guide.repair();
  }
  if (options.json) {
    console::print(nlohmann::ordered_json::array({channels.to_json(), guide.to_json()}).dump(2) + "\n", "the result");
  } else {
    channels.print();
    guide.print();
  }
  console::finish_printing("the result");
  if (channels.is_well() && guide.is_well()) {
    return EXIT_OK;
  }
  console::say("kelvo: the database is damaged; 'kelvo check --repair' mends it");
  return EXIT_FAILED;
}

}  // namespace

void add_check(CLI::App& app, int* exit_code) {
  CLI::App* command = app.add_subcommand("check", "Say whether the database is sound, and mend it");
  const auto options = std::make_shared<Check_options>();
  command->add_option("--db", options->db, "Channel database; default: $XDG_DATA_HOME/kelvo/dvb.db")->type_name("FILE");
  command->add_flag("--repair", options->repair,
                    "Put the copy of the last scan in the place of a damaged channel list, and make a damaged guide "
                    "anew with what can be read. Damaged files are kept under another name");
  command->add_flag("--json", options->json, "A list of objects, one a file, for programs");
  command->footer(
      "Exit codes: 0 both files are sound, or have been mended; 1 one is damaged, or cannot be looked at.\n"
      "\n"
      "Examples:\n"
      "  kelvo check\n"
      "  kelvo check --repair --db dvb.db");
  command->callback([options, exit_code] { *exit_code = check(*options); });
}
