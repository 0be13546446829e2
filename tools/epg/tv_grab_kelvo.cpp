// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The grabber of XMLTV, a program of its own because that is how others find it: by its name, in the path.

#include <clocale>
#include <csignal>
#include <cstdio>
#include <exception>

#include <CLI/CLI.hpp>

#include "tools/cli/console.h"
#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/epg/grabber.h"

namespace {

int say_failure(const std::string& text, int code) {
  console::say("tv_grab_kelvo: " + clean_text(text));
  return code;
}

int run(int argc, char** argv) {
  (void)setlocale(LC_CTYPE, "C.UTF-8");
  (void)signal(SIGPIPE, SIG_IGN);
  (void)signal(SIGXFSZ, SIG_IGN);

  CLI::App app("Hands over the guide that 'kelvo epg update' has collected, as XMLTV.", "tv_grab_kelvo");
  Grabber_options options;
  bool description = false;
  bool capabilities = false;
  bool method = false;
  bool ask = false;
  bool ask_by_api = false;
  bool list = false;
  bool debug = false;
  std::string stage = "start";
  app.set_version_flag("--version", "tv_grab_kelvo " KELVO_VERSION);
  app.add_flag("--description", description, "Say in a line what this grabber is for");
  app.add_flag("--capabilities", capabilities, "Say what of XMLTV's interface it can do");
  app.add_flag("--preferredmethod", method, "Say that all days are best asked for at once");
  app.add_option("--days", options.days, "So many days; default: all that there are")
      ->type_name("N")
      ->check(CLI::Range(1, 365));
  app.add_option("--offset", options.offset, "The first day: 0 for today, 1 for tomorrow; default: 0")
      ->type_name("N")
      ->check(CLI::Range(-30, 365));
  app.add_option("--config-file", options.config_file, "Settings; default: ~/.xmltv/tv_grab_kelvo.conf")
      ->type_name("FILE");
  app.add_flag("--configure", ask, "Ask which channels are wanted, and write the settings");
  app.add_flag("--list-channels", list, "All channels, without events");
  app.add_flag("--configure-api", ask_by_api, "What there is to ask, for programs that ask themselves");
  app.add_option("--stage", stage, "Of --configure-api: start")->type_name("NAME");
  app.add_option("--output", options.output, "The file to write; default: standard output")->type_name("FILE");
  app.add_flag("--quiet", options.quiet, "Say nothing but errors");
  app.add_flag("--debug", debug, "Accepted, as other grabbers know it; there is nothing to add");
  app.add_option("--db", options.database, "Channel database; default: that of the settings, else kelvo's")
      ->type_name("FILE");
  app.footer("Collect the guide with 'kelvo epg update' before; see tv_grab_kelvo(1).");
  try {
    app.parse(argc, argv);
    if (description) {
      console::print("DVB-T and DVB-T2 guide, received over the air (kelvo)\n", "the description");
    } else if (capabilities) {
      console::print("baseline\nmanualconfig\napiconfig\npreferredmethod\n", "the capabilities");
    } else if (method) {
      console::print("allatonce\n", "the method");
    } else if (ask) {
      configure(options);
    } else if (ask_by_api) {
      print_questions(options, stage);
    } else if (list) {
      list_channels(options);
    } else {
      grab(options);
    }
    console::finish_printing("the guide");
    return EXIT_OK;
  } catch (const CLI::Success& request) {  // --help and --version
    return app.exit(request);
  } catch (const CLI::ParseError& error) {
    return say_failure(std::string(error.what()) + " (see 'tv_grab_kelvo --help')", EXIT_USAGE);
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
    (void)fputs("tv_grab_kelvo: failed\n", stderr);
    return EXIT_FAILED;
  }
}
