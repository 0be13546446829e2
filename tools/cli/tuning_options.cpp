// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/cli/tuning_options.h"

#include "tools/cli/frequency.h"

void add_adapters_option(CLI::App* command, std::vector<int>* adapters, const char* help) {
  command->add_option("--adapter", *adapters, help)
      ->type_name("N")
      ->check(CLI::Range(0, 3))
      // One value an option: a second word behind it is a mistake that is named, and not taken for one more adapter.
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

CLI::Option* add_freqs_option(CLI::App* command, std::vector<int>* freqs) {
  return command->add_option("--freq", *freqs, "Centre frequency in Hz, or as 474M; may be repeated")
      ->type_name("HZ")
      ->transform(hz_text)
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}
