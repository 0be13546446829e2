// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/zone.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "base/log.h"
#include "base/uninterrupted.h"
#include "db/shell_files.h"

namespace sdbl {

namespace {

constexpr char ZONE_FOLDER[] = "/tmp/zoneinfo";
constexpr char ZONE_SOURCE[] = "timezone.txt";
constexpr time_t NOON = 43200;
constexpr int NOON_HOUR = 12;
constexpr size_t LONGEST_ZONE_NAME = 8;

// The source and what is installed are the machine's: adapters that hear of an offset at the same time follow it one
// after the other. Nothing else is locked meanwhile.
Mutex following{Lock_rank::ALONE, "time zone"};

// The country code is broadcast, and goes into a file, a file name and a command.
bool is_zone_name(const char* name) {
  const size_t length = std::strlen(name);
  if (length < 1 || length > LONGEST_ZONE_NAME)
    return false;
  for (const char* c = name; *c != '\0'; ++c)
    if (!((*c >= 'a' && *c <= 'z') || (*c >= 'A' && *c <= 'Z') || (*c >= '0' && *c <= '9')))
      return false;
  return true;
}

// Everybody may make things in /tmp: neither the folder nor the file is opened through a link, and a pipe in its place
// is not waited for.
int open_zone_source() {
  (void)mkdir(ZONE_FOLDER, 0755);  // it usually exists
  const int folder = uninterrupted([] { return open(ZONE_FOLDER, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); });
  if (folder < 0)
    return -1;
  const int fd = uninterrupted([folder] {
    return openat(folder, ZONE_SOURCE, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644);
  });
  (void)close(folder);  // was only read
  return fd;
}

// The name is a comment there: what a line break in it was followed by would be a line of its own.
std::string in_a_line(std::string name) {
  for (char& c : name)
    if (static_cast<unsigned char>(c) < ' ')
      c = '?';
  return name;
}

bool write_zone_source(const std::string& network, int offset_min, const char* zone_name, int zone_nr) {
  const int fd = open_zone_source();
  if (fd < 0)
    return false;
  std::FILE* file = fdopen(fd, "w");
  if (file == nullptr) {
    (void)close(fd);  // nothing was written
    return false;
  }
  const long long minutes = std::llabs(offset_min);
  std::fprintf(file, "# Automatically generated timezone file for network %s\n", in_a_line(network).c_str());
  // Deliberate: an offset of 0 is written as -00:00.
  std::fprintf(file, "Zone %s_%d %c%02d:%02d - %s\n", zone_name, zone_nr, offset_min < 1 ? '-' : ' ',
               static_cast<int>(minutes / 60), static_cast<int>(minutes % 60), zone_name);
  return std::fclose(file) == 0;
}

// False when nothing was compiled, or it could not be copied.
bool install_zone(const char* zone_name, int zone_nr) {
  (void)run_shell("/usr/sbin/zic -d /tmp/zoneinfo /tmp/zoneinfo/timezone.txt");
  char compiled[64];
  (void)std::snprintf(compiled, sizeof compiled, "/tmp/zoneinfo/%s_%d", zone_name, zone_nr);
  if (!file_exists(compiled))
    return false;
  const bool copied = run_shell("cp -f %s /dvbfiles/localtime", shell_quoted(compiled).c_str());
  (void)unlink(compiled);  // a file that stays is replaced the next time
  return copied;
}

Zone_outcome make_zone(const std::string& network, int offset_min, const char* zone_name, int zone_nr) {
  KLOG(VERB_WARNING, "WARNING: Setting timezone to %d\n", offset_min);
  const bool set = write_zone_source(network, offset_min, zone_name, zone_nr) && install_zone(zone_name, zone_nr);
  return set ? Zone_outcome::SET : Zone_outcome::FAILED;
}

}  // namespace

void Zone::set_preferred_provider(const char* name) {
  std::lock_guard<Mutex> lock(lock_);
  preferred_provider_ = name != nullptr ? name : "";
}

Zone_outcome Zone::update(int offset_min, const char* zone_name, int zone_nr, const Multiplex& multiplex, bool sets) {
  // The statement is reset at once, here as everywhere: a row left open would keep the file locked for other
  // connections, and the tables from being dropped.
  Rows rows(statements_, "update_system_timezone", 0,
            "SELECT network_name FROM kanalid where hf_conn = $hf_conn AND dvb_type = $dvb_type AND freq = $freq",
            number(multiplex.input.connector), number(multiplex.input.delivery), multiplex.freq);
  if (!rows.next())
    return Zone_outcome::UNTOUCHED;
  const std::string network = rows.text(0);
  rows.end();
  std::string preferred_provider;
  {
    std::lock_guard<Mutex> lock(lock_);
    preferred_provider = preferred_provider_;
  }
  KLOG(VERB_WARNING, "WARNING: Checking mux %d provider %s = timezone %s\n", multiplex.freq, network.c_str(),
       preferred_provider.c_str());
  if (network != preferred_provider || !is_zone_name(zone_name))
    return Zone_outcome::UNTOUCHED;

  const std::lock_guard<Mutex> one_at_a_time(following);
  tm noon{};
  tzset();  // otherwise a zone that was installed meanwhile is not seen
  (void)localtime_r(&NOON, &noon);
  // Deliberate: whole hours are compared, by a division that rounds towards 0.
  if (noon.tm_hour == offset_min / 60 + NOON_HOUR) {
    KLOG(VERB_WARNING, "WARNING: Timezone OK\n");
    return Zone_outcome::RIGHT;
  }
  return sets ? make_zone(preferred_provider, offset_min, zone_name, zone_nr) : Zone_outcome::KEPT;
}

Zone_outcome Zone::follow(int offset_min, const char* zone_name, int zone_nr, int64_t utc, bool sets) {
  constexpr long SECONDS_A_MINUTE = 60;
  if (!is_zone_name(zone_name) || !std::in_range<time_t>(utc))
    return Zone_outcome::UNTOUCHED;
  const std::lock_guard<Mutex> one_at_a_time(following);
  const auto now = static_cast<time_t>(utc);
  tm local{};
  tzset();  // as above
  if (localtime_r(&now, &local) != nullptr && local.tm_gmtoff == offset_min * SECONDS_A_MINUTE)
    return Zone_outcome::RIGHT;
  return sets ? make_zone(zone_name, offset_min, zone_name, zone_nr) : Zone_outcome::KEPT;
}

}  // namespace sdbl
