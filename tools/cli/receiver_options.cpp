// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/cli/receiver_options.h"

#include <iconv.h>

#include <algorithm>
#include <cctype>
#include <cmath>

#include <fmt/format.h>

#include "tools/cli/failure.h"
#include "tools/frequencies/raster.h"

namespace {

constexpr double SHORTEST_LOCK_TIME = 0.1;
constexpr double LONGEST_LOCK_TIME = 60;

// Names with a slash tell iconv how to replace characters; an empty one is the locale's table.
bool is_charset(const std::string& name) {
  if (name.empty() || name.find('/') != std::string::npos) {
    return false;
  }
  const iconv_t converter = iconv_open("UTF-8", name.c_str());
  if (converter == reinterpret_cast<iconv_t>(-1)) {
    return false;
  }
  (void)iconv_close(converter);
  return true;
}

}  // namespace

void add_receiver_options(CLI::App* command, Receiver_options* options) {
  command
      ->add_option("--profile", options->profile,
                   "any: whatever Linux has a driver for; box: as a certain set-top box wants its frontend, which few "
                   "others understand; default: any")
      ->check(CLI::IsMember({"any", "box"}));
  command
      ->add_option("--lock-time", options->lock_time,
                   "Wait so many seconds for each lock, DVB-T or DVB-T2, whether or not there is a sign of a signal; "
                   "default: 1.2 to 2 without a sign, 3 to 4 with one")
      ->type_name("SECONDS")
      ->check(CLI::Range(SHORTEST_LOCK_TIME, LONGEST_LOCK_TIME));
}

void add_set_clock_option(CLI::App* command, Receiver_options* options) {
  command->add_flag("--set-clock", options->set_clock,
                    "Let the broadcast set the system's clock and time zone; default: only with --profile box");
}

void add_charset_option(CLI::App* command, Receiver_options* options) {
  command
      ->add_option("--charset", options->charset,
                   "The character table of texts that announce none, as iconv names it (ISO-8859-2); default: "
                   "the standard's (ISO 6937)")
      ->type_name("NAME")
      ->check([](const std::string& name) {
        return is_charset(name) ? std::string()
                                : fmt::format("\"{}\" is no character table; \"iconv --list\" shows all", name);
      });
}

void add_country_option(CLI::App* command, Receiver_options* options) {
  command
      ->add_option(
          "--country", options->country,
          "Whose local time counts where the broadcast has that of several, by two or three letters (EE, EST); "
          "default: the network's country's")
      ->type_name("COUNTRY")
      ->check([](const std::string& text) {
        const bool letters =
            std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isalpha(c) != 0; });
        return letters && (text.size() == 2 || text.size() == 3)
                   ? std::string()
                   : fmt::format("\"{}\" is no country; give its two or three letters, such as EE", text);
      });
}

void add_other_option(CLI::App* command, Receiver_options* options) {
  command->add_flag("--other", options->other,
                    "Also read what is sent about other networks and multiplexes: channel numbers, names and guide of "
                    "channels that are known; their own multiplex counts more. A scan may take 12 s longer");
}

Receiver_profile profile_of(const Receiver_options& options) {
  const bool box = options.profile == "box";
  Receiver_profile profile = box ? Receiver_profile::box() : Receiver_profile::any_linux();
  if (!box) {
    profile.offset_hz = raster_of(country_from_locale()).offset_hz;
  }
  if (options.lock_time && box) {
    throw Failure("--lock-time: not with --profile box, which waits 0.15 s", EXIT_USAGE);
  }
  if (options.lock_time) {
    const int ms = static_cast<int>(std::lround(*options.lock_time * 1000));
    Receiver_profile::Lock_times& times = profile.lock_times;
    times.silent_t = times.silent_t_of_both = times.silent_t2 = times.signal_t = times.signal_t2 = ms;
  }
  if (!options.charset.empty() && box) {
    throw Failure("--charset: not with --profile box, which reads such texts as ISO 6937", EXIT_USAGE);
  }
  if (options.other && box) {
    throw Failure("--other: not with --profile box, which reads what is sent about its own multiplex", EXIT_USAGE);
  }
  profile.charset = options.charset;
  profile.other_networks = options.other;
  profile.other_guides = options.other;
  profile.country = options.country;
  if (options.set_clock) {
    profile.set_clock = true;
    profile.set_zone = true;
  }
  return profile;
}
