// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <clocale>
#include <csignal>
#include <cstdio>
#include <exception>
#include <string>

#include <CLI/CLI.hpp>

#include "tools/cli/console.h"
#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/commands.h"

namespace {

// What was already listed goes out before the failure, so that a reader of both sees them in the order in which they
// happened. Names of files and channels are part of the text, so it is made harmless for a terminal.
int say_failure(const std::string& text, int code) {
  (void)fflush(stdout);
  console::say("kelvo: " + clean_text(text));
  return code;
}

int run(int argc, char** argv) {
  // Output is UTF-8 whatever the locale: the width of a character on the screen must be known.
  (void)setlocale(LC_CTYPE, "C.UTF-8");
  // A reader that goes away is an error of fflush(), not a silent death.
  (void)signal(SIGPIPE, SIG_IGN);
  (void)signal(SIGXFSZ, SIG_IGN);  // and so is a file that may not grow, of write()

  CLI::App app("Finds the services of digital terrestrial television and keeps the channel list and the guide.",
               "kelvo");
  app.set_version_flag("--version", "kelvo " KELVO_VERSION);
  app.require_subcommand(1);
  app.footer("'kelvo COMMAND --help' says more about a command, with examples.");
  // Each command runs while the arguments are parsed, as a callback, and leaves its code here.
  int exit_code = EXIT_OK;
  add_adapters(app, &exit_code);
  add_scan(app, &exit_code);
  add_channels(app, &exit_code);
  add_epg(app, &exit_code);
  add_guide(app, &exit_code);
  add_watch(app, &exit_code);
  add_play(app, &exit_code);
  add_signal(app, &exit_code);
  add_serve(app, &exit_code);
  add_trace(app, &exit_code);
  add_check(app, &exit_code);

  try {
    app.parse(argc, argv);
    return exit_code;
  } catch (const CLI::Success& request) {  // --help and --version
    return app.exit(request);
  } catch (const CLI::ParseError& error) {
    // The hint names the innermost command that was recognised, whose help explains the mistake.
    std::string command = "kelvo";
    for (const CLI::App* at = &app; !at->get_subcommands().empty();) {
      at = at->get_subcommands().front();
      command += " " + at->get_name();
    }
    std::string text = error.what();
    // The parser says only that something was left over; people want to read which word it was.
    if (app.get_subcommands().empty() && !app.remaining().empty()) {
      const std::string first = app.remaining().front();
      text = (first[0] == '-' ? "no option '" : "no command '") + first + "'";
    }
    return say_failure(text + " (see '" + command + " --help')", EXIT_USAGE);
  } catch (const Reader_gone& gone) {
    return gone.code();
  } catch (const Failure& failure) {
    return say_failure(failure.what(), failure.code());
  } catch (const std::exception& error) {
    return say_failure(error.what(), EXIT_FAILED);
  }
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (...) {
    // Nothing of the command throws anything else; but whatever it is, it must not end in a core file.
    (void)fputs("kelvo: failed\n", stderr);
    return EXIT_FAILED;
  }
}
