// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <linux/dvb/frontend.h>

#include "support/support.h"
#include "support/test.h"
#include "tools/cli/failure.h"
#include "tools/cli/frequency.h"
#include "tools/cli/receiver_options.h"
#include "tools/frequencies/initial_scan_file.h"
#include "tools/frequencies/raster.h"
#include "tools/scan/what_to_scan.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// "506000000/8000000 T2", and its pipe where one is asked for.
std::string text_of(const Tuning_request& request) {
  std::string out = std::to_string(request.freq) + "/" + std::to_string(request.bandwidth_hz);
  out += request.system == SYS_DVBT ? " T" : request.system == SYS_DVBT2 ? " T2" : "";
  return request.pipe < 0 ? out : out + " pipe " + std::to_string(request.pipe);
}

TEST(Frequency, is_read_with_and_without_a_unit) {
  for (const char* text : {"474500000", "474500000Hz", "474500000 hz", "474500k", "474500 kHz", "474.5M", "474.5MHz",
                           "474.50 mhz", "474.5m", "0474.5M"})
    EXPECT_EQ(frequency_of(text), 474'500'000) << text;
  EXPECT_EQ(frequency_of("30M"), 30'000'000);
  EXPECT_EQ(frequency_of("1000M"), 1'000'000'000);
  EXPECT_EQ(frequency_of("666.0000004M"), 666'000'000);
  EXPECT_EQ(frequency_of("191.6666667M"), 191'666'667);
}

std::vector<std::string> texts_of(const std::vector<Tuning_request>& requests) {
  std::vector<std::string> out;
  std::transform(requests.begin(), requests.end(), std::back_inserter(out), text_of);
  return out;
}

template <typename Function>
std::string failure_of(Function function) {
  try {
    function();
  } catch (const Failure& failure) {
    return failure.what();
  }
  return "none";
}

TEST(Raster, of_a_country) {
  const struct {
    const char* country;
    size_t channels;
    std::string first;
    std::string last;
    int offset_hz;
  } cases[] = {
      {"DE", 28, "474000000/8000000 T2", "690000000/8000000 T2", 166667},
      {"AT", 28, "474000000/8000000 T2", "690000000/8000000 T2", 166667},
      {"GB", 28, "474000000/8000000", "690000000/8000000", 166667},
      {"UK", 28, "474000000/8000000", "690000000/8000000", 166667},
      {"FI", 36, "177500000/7000000", "690000000/8000000", 166667},
      {"ZA", 35, "178000000/8000000 T2", "690000000/8000000 T2", 166667},
      {"RU", 47, "178000000/8000000 T2", "786000000/8000000 T2", 166667},
      {"AU", 32, "177500000/7000000 T", "690500000/7000000 T", 125000},
      {"TW", 14, "527000000/6000000 T", "605000000/6000000 T", 0},
      {"CO", 38, "473000000/6000000 T2", "695000000/6000000 T2", 0},
      {"PA", 38, "473000000/6000000 T", "695000000/6000000 T", 0},
      // Not in the table, not in capitals, or none: Europe's channels 5 to 12 and 21 to 69.
      {"US", 57, "177500000/7000000", "858000000/8000000", 166667},
      {"de", 57, "177500000/7000000", "858000000/8000000", 166667},
      {"", 57, "177500000/7000000", "858000000/8000000", 166667},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.country);
    const Raster& raster = raster_of(c.country);
    const std::vector<Tuning_request> channels = frequencies(raster);
    ASSERT_EQ(channels.size(), c.channels);
    EXPECT_EQ(text_of(channels.front()), c.first);
    EXPECT_EQ(text_of(channels.back()), c.last);
    EXPECT_EQ(raster.offset_hz, c.offset_hz);
  }
  EXPECT_EQ(raster_of("GB").country, "GB");
  EXPECT_EQ(raster_of("US").country, "");
}

// The centres that Australia's channels 12 and 28 have; between them lies nothing.
TEST(Raster, goes_from_one_band_to_the_next) {
  const std::vector<Tuning_request> channels = frequencies(raster_of("AU"));
  EXPECT_EQ(channels[7].freq, 226500000);
  EXPECT_EQ(channels[8].freq, 529500000);
  EXPECT_EQ(channels[9].freq, 536500000);
}

TEST(Locale, names_a_country) {
  const std::pair<const char*, const char*> cases[] = {
      {"de_DE.UTF-8", "DE"},
      {"de_DE", "DE"},
      {"de_DE@euro", "DE"},
      {"sr_RS.UTF-8@latin", "RS"},
      {"en_GB.utf8", "GB"},
      {"C", ""},
      {"C.UTF-8", ""},
      {"POSIX", ""},
      {"eo", ""},
      {"", ""},
      {"de_", ""},
      {"de_D", ""},
      {"de_DEU", ""},
      {"de_de.UTF-8", ""},
      {"_DE", "DE"},
      {"es_419", ""},
      {"de_D\xC3", ""},
      {"zh_Hans_SG", ""},
  };
  for (const auto& [locale, country] : cases)
    EXPECT_EQ(country_of_locale(locale), country) << locale;
}

// Where the environment says more than one thing.
TEST(Locale, of_the_environment) {
  const char* const names[] = {"LC_ALL", "LC_MONETARY", "LC_ADDRESS", "LANG"};
  const struct {
    std::vector<const char*> values;  // of these; none: not set
    const char* country;
  } cases[] = {
      {{nullptr, nullptr, nullptr, nullptr}, ""},
      {{nullptr, nullptr, nullptr, "de_DE.UTF-8"}, "DE"},
      {{nullptr, "de_AT.UTF-8", nullptr, "en_US.UTF-8"}, "AT"},
      {{nullptr, "", "de_AT.UTF-8", "en_US.UTF-8"}, "AT"},
      {{nullptr, "C", nullptr, "fi_FI"}, "FI"},
      {{"sv_SE.UTF-8", "de_AT.UTF-8", nullptr, "en_US.UTF-8"}, "SE"},
      {{"C", "de_AT.UTF-8", nullptr, "en_US.UTF-8"}, ""},
      {{"", nullptr, nullptr, "en_IE.UTF-8"}, "IE"},
  };
  std::map<std::string, std::string> before;
  for (const char* name : names)
    if (getenv(name) != nullptr)
      before[name] = getenv(name);
  for (const auto& c : cases) {
    for (size_t i = 0; i < std::size(names); ++i)
      (void)(c.values[i] == nullptr ? unsetenv(names[i]) : setenv(names[i], c.values[i], 1));
    EXPECT_EQ(country_from_locale(), c.country);
  }
  for (const char* name : names)
    (void)(before.contains(name) ? setenv(name, before[name].c_str(), 1) : unsetenv(name));
}

TEST(Initial_scan, what_is_read) {
  const struct {
    const char* legend;
    std::string text;
    std::vector<std::string> multiplexes;
    int others;
  } cases[] = {
      {"a section",
       "[CHANNEL]\n\tDELIVERY_SYSTEM = DVBT\n\tFREQUENCY = 506000000\n\tBANDWIDTH_HZ = 8000000\n",
       {"506000000/8000000 T"},
       0},
      {"T2 with a pipe",
       "[A]\nDELIVERY_SYSTEM=DVBT2\nFREQUENCY=191500000\nBANDWIDTH_HZ=7000000\nSTREAM_ID=1\n",
       {"191500000/7000000 T2 pipe 1"},
       0},
      {"no filter, as it is written out",
       "[A]\nDELIVERY_SYSTEM=DVBT2\nFREQUENCY=506000000\nSTREAM_ID = 4294967295\n",
       {"506000000/0 T2"},
       0},
      {"unknown keys, comments, any order, small letters, no line break at the end",
       "# one\n[A # b]\nInversion = AUTO\nfrequency = 506000000 # c\nVIDEO_PID = 1 2\n\nbandwidth_hz = 0\n"
       "delivery_system = dvbt",
       {"506000000/0 T"},
       0},
      {"other systems, whatever stands in them",
       "[A]\nDELIVERY_SYSTEM = DVBS2\nFREQUENCY = 10.7 GHz\nSTREAM_ID = 70000\n[B]\nDELIVERY_SYSTEM = "
       "DVBC/ANNEX_A\n[C]\nDELIVERY_SYSTEM = DVBT\nFREQUENCY = 506000000\n",
       {"506000000/0 T"},
       2},
      {"a channel list, with the same multiplex again",
       "[A]\nDELIVERY_SYSTEM = DVBT\nFREQUENCY = 506000000\n[B]\nDELIVERY_SYSTEM = DVBT\nFREQUENCY = 506000000\n"
       "[C]\nDELIVERY_SYSTEM = DVBT2\nFREQUENCY = 506000000\nSTREAM_ID = 0\n"
       "[D]\nDELIVERY_SYSTEM = DVBT2\nFREQUENCY = 506000000\nSTREAM_ID = 1\n",
       {"506000000/0 T", "506000000/0 T2 pipe 0", "506000000/0 T2 pipe 1"},
       0},
      {"lines",
       "# Berlin\nT 506000000 8MHz 2/3 NONE QAM16 8k 1/8 NONE # RTL\nT 177500000 7MHz\nT 474000000\r\n",
       {"506000000/8000000 T", "177500000/7000000 T", "474000000/0 T"},
       0},
      {"lines for T2",
       "T2 506000000 8MHz AUTO AUTO AUTO AUTO AUTO AUTO 1\nT2 514000000 8MHz 3\nT2 522000000 1.712MHz\n"
       "T2 530000000 AUTO 2/3 NONE QAM256 32k 1/128 NONE\n",
       {"506000000/8000000 T2 pipe 1", "514000000/8000000 T2 pipe 3", "522000000/1712000 T2", "530000000/0 T2"},
       0},
      {"lines of other systems",
       "C 113000000 6900000 NONE QAM64\nS 12551500 V 22000000 5/6\nT 506000000 8MHz\n",
       {"506000000/8000000 T"},
       2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.legend);
    const Initial_scan scan = parse_initial_scan(c.text, "here");
    EXPECT_EQ(texts_of(scan.multiplexes), c.multiplexes);
    EXPECT_EQ(scan.others, c.others);
    EXPECT_THAT(scan.remarks, IsEmpty());
  }
}

TEST(Initial_scan, what_is_broken_is_named) {
  const std::string section = "[A]\nDELIVERY_SYSTEM = DVBT2\nFREQUENCY = 506000000\n";
  const struct {
    std::string text;
    std::string failure;
  } cases[] = {
      {"", "here: no frequency of DVB-T or DVB-T2 in it"},
      {"# T 506000000 8MHz\n", "here: no frequency of DVB-T or DVB-T2 in it"},
      {"C 113000000\n[A]\nDELIVERY_SYSTEM = DVBS\n",
       "here: no frequency of DVB-T or DVB-T2 in it; its 2 entries are for cable, satellite or other systems"},
      {"<html>\n", "here:1: '<html>': neither a [CHANNEL] nor a line that begins with T or T2"},
      {"\nTT 506000000\n", "here:2: 'TT 506000000': neither a [CHANNEL] nor a line that begins with T or T2"},
      {"T\n", "here:1: 'T': a frequency in Hz has to stand behind T"},
      {"T2 506MHz 8MHz\n", "here:1: 'T2 506MHz 8MHz': a frequency in Hz has to stand behind T2"},
      {"T 99999999999999999999 8MHz\n",
       "here:1: 'T 99999999999999999999 8MHz': a frequency in Hz has to stand behind T"},
      {"T 506000000 9MHz\n", "here:1: '9MHz' is not a bandwidth; give 1.712MHz, 5MHz, 6MHz, 7MHz, 8MHz, 10MHz or AUTO"},
      {"T2 506000000 8MHz 256\n", "here:1: '256' is not a pipe's number, 0 to 255"},
      {"T2 506000000 8MHz AUTO AUTO AUTO AUTO AUTO AUTO AUTO\n", "here:1: 'AUTO' is not a pipe's number, 0 to 255"},
      {"[A]\nFREQUENCY = 506000000\n", "here:1: DELIVERY_SYSTEM is missing in this section"},
      {"\n[A]\nDELIVERY_SYSTEM = DVBT\n[B]\n", "here:2: FREQUENCY is missing in this section"},
      {"[A]\nFREQUENCY 506000000\n", "here:2: 'FREQUENCY 506000000': neither KEY = VALUE nor [CHANNEL]"},
      {"[A]\nDELIVERY_SYSTEM = DVBT\nFREQUENCY = 506.0\n", "here:3: '506.0' is not a frequency; give Hz"},
      {"[A]\nDELIVERY_SYSTEM = DVBT\nFREQUENCY =\n", "here:3: '' is not a frequency; give Hz"},
      {section + "BANDWIDTH_HZ = 8\n", "here:4: '8' is not a bandwidth; give 1712000, 5, 6, 7, 8 or 10 million Hz"},
      {section + "STREAM_ID = 256\n[B]\n", "here:4: '256' is not a pipe's number, 0 to 255"},
      {"T 506000000 8MHz\n" + std::string("\0\0", 2), "here:2: not a text; an initial scan file is wanted"},
      // Nothing talks to the terminal, and no line fills it.
      {"\x1B[2J" + std::string(100, 'x') + "\n",
       "here:1: '[2J" + std::string(36, 'x') + "...': neither a [CHANNEL] nor a line that begins with T or T2"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(failure_of([&] { (void)parse_initial_scan(c.text, "here"); }), c.failure) << c.text;
}

// Kilohertz, and the slips that published tables have: one of them does not make the others useless.
TEST(Initial_scan, what_no_dvbt_receiver_can_tune_to_is_passed_over) {
  const Initial_scan scan = parse_initial_scan(
      "T 506000 8MHz\nT 506000000 8MHz\nT 5000000000 8MHz\n[A]\nDELIVERY_SYSTEM = DVBT\nFREQUENCY = -5\n", "here");
  EXPECT_THAT(texts_of(scan.multiplexes), ElementsAre("506000000/8000000 T"));
  EXPECT_THAT(scan.remarks,
              ElementsAre("here:1: 506000 Hz is passed over; DVB-T is between 30000000 and 1000000000",
                          "here:3: 5000000000 Hz is passed over; DVB-T is between 30000000 and 1000000000",
                          "here:6: -5 Hz is passed over; DVB-T is between 30000000 and 1000000000"));
}

// What commands that look for no frequencies themselves know of the country, too.
TEST(Profile_of_options, has_the_offset_of_the_locale_s_country) {
  const struct {
    const char* locale;
    const char* profile;
    int offset_hz;
  } cases[] = {{"en_AU.UTF-8", "any", 125000},
               {"de_DE.UTF-8", "any", 166667},
               {"es_CO.UTF-8", "any", 0},
               {"C", "any", 166667},
               {"en_AU.UTF-8", "box", Receiver_profile::box().offset_hz}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.locale);
    ASSERT_EQ(setenv("LC_ALL", c.locale, 1), 0);
    Receiver_options options;
    options.profile = c.profile;
    EXPECT_EQ(profile_of(options).offset_hz, c.offset_hz);
  }
  unsetenv("LC_ALL");
}

// What the command line makes of it.
TEST(What_to_scan, names_the_system_that_a_country_has_where_an_adapter_has_it) {
  Scan_choice choice;
  choice.country = "de";
  const What_to_scan with = what_to_scan(choice, [] { return true; });
  EXPECT_EQ(text_of(with.requests.front()), "474000000/8000000 T2");
  EXPECT_THAT(with.lines, ElementsAre("28 frequencies of DE"));
  EXPECT_EQ(with.offset_hz, 166667);

  const What_to_scan without = what_to_scan(choice, [] { return false; });
  EXPECT_EQ(text_of(without.requests.front()), "474000000/8000000");
  EXPECT_THAT(without.lines, ElementsAre("28 frequencies of DE",
                                         "DE sends DVB-T2, which the adapter does not receive; "
                                         "DVB-T is looked for"));

  choice.country = "GB";
  const auto not_asked = []() -> bool { throw std::logic_error("asked where it makes no difference"); };
  EXPECT_EQ(text_of(what_to_scan(choice, not_asked).requests.front()), "474000000/8000000");
}

TEST(What_to_scan, a_frequency_is_scanned_once) {
  Scan_choice choice;
  choice.freqs = {506000000, 514000000, 506000000};
  EXPECT_THAT(texts_of(what_to_scan(choice, [] { return true; }).requests), ElementsAre("506000000/0", "514000000/0"));
}

class Initial_scan_files : public testing::Test {
 protected:
  Initial_scan_files() {
    for (const char* name : {"new/de-Berlin", "new/de-Bremen", "new/uk-Bristol", "old/de-Berlin", "old/se-Old"}) {
      std::filesystem::create_directories(std::filesystem::path(dir_.file(name)).parent_path());
      support::write_file(dir_.file(name), std::string("T 506000000 8MHz\n"));
    }
  }
  std::string find(const std::string& name) const { return find_initial_scan_file(name, folders_); }

  support::Temp_dir dir_;
  std::vector<std::string> folders_{dir_.file("new"), dir_.file("old")};
};

TEST_F(Initial_scan_files, are_found_by_name) {
  EXPECT_EQ(find("de-Berlin"), dir_.file("new/de-Berlin"));
  EXPECT_EQ(find("se-Old"), dir_.file("old/se-Old"));
  EXPECT_EQ(find("./de-Berlin"), "./de-Berlin") << "a path is no name";
  EXPECT_THAT(texts_of(read_initial_scan_file(find("de-Berlin")).multiplexes), ElementsAre("506000000/8000000 T"));
}

TEST_F(Initial_scan_files, names_that_are_near_are_listed) {
  const std::string head = ": neither a file nor a table of " + dir_.file("new") + "; ";
  const std::pair<const char*, std::string> cases[] = {
      {"de-berlin", "near it: de-Berlin"},
      {"Bremen", "near it: de-Bremen"},
      {"de-Barlin", "near it: de-Berlin"},
      {"de-", "near it: de-Berlin, de-Bremen"},
      {"fr-Paris", "'ls " + dir_.file("new") + "' lists them"},
  };
  for (const auto& [name, text] : cases)
    EXPECT_EQ(failure_of([&, n = name] { (void)find(n); }), "--table " + std::string(name) + head + text);
  EXPECT_THAT(failure_of([&] { (void)find(""); }), HasSubstr("near it: "));
  EXPECT_THAT(failure_of([&] { (void)find(std::string(100000, 'x')); }), HasSubstr("' lists them"));
}

TEST_F(Initial_scan_files, without_the_package_it_is_named) {
  EXPECT_EQ(failure_of([&] { (void)find_initial_scan_file("de-Berlin", {dir_.file("none")}); }),
            "--table de-Berlin: no such file, and the tables of places are not installed; install the package "
            "dtv-scan-tables");
}

TEST_F(Initial_scan_files, that_cannot_be_read_are_said) {
  const auto failure = [](const std::string& file) { return failure_of([&] { (void)read_initial_scan_file(file); }); };
  EXPECT_EQ(failure(dir_.file("none/x")), dir_.file("none/x") + ": cannot be read: No such file or directory");
  EXPECT_EQ(failure(dir_.path()), dir_.path() + ": a folder; an initial scan file is wanted");
  EXPECT_EQ(failure("/dev/zero"), "/dev/zero: larger than 1 MiB; an initial scan file is wanted");
  support::write_file(dir_.file("large"), std::string(1024 * 1024 + 1, '\n'));
  EXPECT_EQ(failure(dir_.file("large")), dir_.file("large") + ": larger than 1 MiB; an initial scan file is wanted");
}

// Every table that Debian ships, where it is installed.
TEST(Initial_scan, the_published_tables_are_read) {
  size_t files = 0;
  for (const std::string& folder : scan_table_folders()) {
    if (!std::filesystem::is_directory(folder))
      GTEST_SKIP() << "dtv-scan-tables is not installed";
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      ++files;
      std::string failure;
      try {
        EXPECT_FALSE(read_initial_scan_file(entry.path()).multiplexes.empty());
      } catch (const Failure& e) {
        failure = e.what();
      }
      EXPECT_EQ(failure, "");
    }
  }
  EXPECT_GT(files, 1000U);
}

}  // namespace
