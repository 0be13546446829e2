// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/database/channel_db.h"

#include <fcntl.h>
#include <linux/dvb/frontend.h>
#include <pwd.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <sstream>
#include <tuple>

#include <fmt/format.h>
#include <kelvo/kelvo.h>

#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/database/folder_of.h"
#include "tools/database/open_to_read.h"
#include "tools/database/statement.h"

namespace {

// A disk that is nearly full is refused before the scan: afterwards, minutes of work would not fit on it.
constexpr uint64_t LEAST_FREE_BYTES = 1'048'576;

// Exactly what is read is named: a file of another layout is told when these are prepared, before anything is shown.
constexpr const char* SERVICE_COLUMNS =
    "SELECT channel, lcn, serv_name, serv_type, prov_name, network_name, freq, pat_prnr, network_id, orig_network_id, "
    "tstream_id, pmt_pid, pcr_pid, free_ca, scan_state, row_status FROM kanalid ORDER BY channel;";
constexpr const char* STREAM_COLUMNS =
    "SELECT channel, es_pid, es_type, es_subtype, codec, languages, ca_sysid, ca_pid FROM estreams "
    "ORDER BY channel, rowid;";
constexpr const char* WORD_COLUMNS =
    "SELECT channel, es_pid, es_type, component_tag, kind, codec, profile FROM stream_detail;";
constexpr const char* ROLE_COLUMNS =
    "SELECT channel, es_pid, lang, role, page FROM stream_language ORDER BY channel, rowid;";
constexpr const char* CA_COLUMNS = "SELECT channel, es_pid, ca_sysid, ca_pid FROM stream_ca ORDER BY channel, rowid;";
constexpr const char* ZONE_COLUMNS = "SELECT freq, offset_min, change_epoch, next_offset_min FROM broadcast_zone;";
// Only what a receiver can have stored; a row with a value that cannot be is none.
constexpr const char* DELIVERY_COLUMNS =
    "SELECT k.channel, t.system, t.asked_freq + t.offset_hz, t.bandwidth_hz, t.modulation, t.pipe FROM kanalid k JOIN "
    "tuned_multiplex t ON t.freq = k.freq AND t.hf_conn IS k.hf_conn AND t.dvb_type IS k.dvb_type WHERE "
    "(t.system = 3 AND t.pipe = -1 OR t.system = 16 AND t.pipe BETWEEN -1 AND 255) AND "
    "t.asked_freq BETWEEN 1 AND 2000000000 AND t.freq = t.asked_freq + max(t.pipe, 0) AND "
    "t.offset_hz BETWEEN -499999 AND 499999 AND t.asked_freq + t.offset_hz > 0 AND "
    "t.bandwidth_hz IN (0, 1712000, 5000000, 6000000, 7000000, 8000000, 10000000) AND t.modulation BETWEEN -1 AND 255;";
constexpr const char* HIDDEN_COLUMNS = "SELECT channel FROM service_detail WHERE visible = 0;";
constexpr const char* NAME_COLUMNS = "SELECT source_oid, lang, serv_name FROM kanalid_lang;";

struct Stream_kind {
  int stream_type;
  const char* kind;
  const char* codec;
};

// ISO/IEC 13818-1, table 2-34.
constexpr std::array<Stream_kind, 11> STREAM_KINDS = {{
    {0x01, "video", "MPEG-1"},
    {0x02, "video", "MPEG-2"},
    {0x03, "audio", "MPEG-1"},
    {0x04, "audio", "MPEG-2"},
    {0x0F, "audio", "AAC"},
    {0x10, "video", "MPEG-4"},
    {0x11, "audio", "HE-AAC"},
    {0x1B, "video", "H.264"},
    {0x24, "video", "HEVC"},
    {0x81, "audio", "AC-3"},
    {0x87, "audio", "E-AC-3"},
}};

// Subtypes that the library takes from descriptors.
constexpr unsigned SUBTYPE_AC3 = 0x80000001;
constexpr unsigned SUBTYPE_TELETEXT = 0x80003000;
constexpr unsigned SUBTYPE_SUBTITLES = 0x80004000;
constexpr unsigned SUBTYPE_CLASS = 0xFFFFF000;

// The stream type says it for most; private streams (0x06) are told apart by what the library found in their
// descriptors, which therefore comes second.
void set_kind(Stream* stream, unsigned subtype, const std::string& codec) {
  stream->kind = "data";
  for (const Stream_kind& known : STREAM_KINDS) {
    if (known.stream_type == stream->stream_type) {
      stream->kind = known.kind;
      stream->codec = known.codec;
    }
  }
  if (subtype == SUBTYPE_AC3 || codec == "AC3") {
    stream->kind = "audio";
    stream->codec = "AC-3";
  } else if ((subtype & SUBTYPE_CLASS) == SUBTYPE_TELETEXT) {
    stream->kind = "teletext";
  } else if ((subtype & SUBTYPE_CLASS) == SUBTYPE_SUBTITLES) {
    stream->kind = "subtitles";
  }
}

// Several rows of a PID often repeat a language; each is shown once, in the order of its first row.
void add_languages(Stream* stream, const std::string& languages) {
  std::istringstream words(languages);
  for (std::string word; words >> word;) {
    bool known = false;
    for (const std::string& language : stream->languages) {
      known = known || language == word;
    }
    if (!known) {
      stream->languages.push_back(word);
    }
  }
}

constexpr int FIRST_USER_DEFINED_TYPE = 0x80;

bool has_stream(const Service& service, const char* kind) {
  return std::any_of(service.streams.begin(), service.streams.end(),
                     [kind](const Stream& stream) { return stream.kind == kind; });
}

bool has_any_table(sqlite3* connection, const std::string& file) {
  return Statement(connection, file, "SELECT 1 FROM sqlite_master WHERE type = 'table';").step();
}

bool has_table(sqlite3* connection, const std::string& file, const char* name) {
  Statement statement(connection, file, "SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = ?1;");
  statement.bind(1, name);
  return statement.step();
}

// What must hold for a file that the library will write. True when it is there.
bool check_file(const std::string& file) {
  struct stat status {};
  if (stat(file.c_str(), &status) != 0) {
    if (errno != ENOENT) {
      throw Failure(fmt::format("{}: cannot be opened: {}", file, strerror(errno)));
    }
    const std::string folder = folder_of(file);
    // SQLite would only say that the file cannot be opened; the folder is what has to be mended.
    if (access(folder.c_str(), W_OK | X_OK) != 0) {
      throw Failure(fmt::format("{}: cannot be made: {}: {}", file, folder, strerror(errno)));
    }
    return false;
  }
  if (!S_ISREG(status.st_mode)) {
    throw Failure(fmt::format("{}: not a file; name another one with --db", file));
  }
  if (access(file.c_str(), R_OK | W_OK) != 0) {
    throw Failure(fmt::format("{}: cannot be written: {}", file, strerror(errno)));
  }
  // Its log is made there.
  const std::string folder = folder_of(file);
  if (access(folder.c_str(), W_OK | X_OK) != 0) {
    throw Failure(fmt::format("{}: cannot be written: {}: {}", file, folder, strerror(errno)));
  }
  return true;
}

}  // namespace

void sort_by_number(std::vector<Service>* services) {
  // Channels without a number have the largest one.
  std::stable_sort(services->begin(), services->end(), [](const Service& a, const Service& b) {
    return std::tie(a.lcn, a.channel) < std::tie(b.lcn, b.channel);
  });
}

std::string lcn_text(const Service& service) {
  return service.lcn == NO_LCN ? "-" : std::to_string(service.lcn);
}

std::string type_text(const Service& service) {
  switch (service.type) {
    case 0x01:
      return "TV";
    case 0x02:
    case 0x0A:
      return "radio";
    case 0x03:
      return "teletext";
    case 0x04:
    case 0x05:
    case 0x17:
    case 0x18:
    case 0x1A:
    case 0x1B:
    case 0x1D:
    case 0x1E:
      return "NVOD";
    case 0x06:
    case 0x0B:
      return "mosaic";
    case 0x07:
      return "FM radio";
    case 0x0C:
    case 0x10:
      return "data";
    case 0x11:
    case 0x19:
      return "HD TV";
    case 0x16:
      return "SD TV";
    case 0x1C:
      return "3D TV";
    // Whatever its picture's size is; of UHD are those of the next type.
    case 0x1F:
      return "HEVC TV";
    case 0x20:
      return "UHD TV";
    case 0x21:
      return "VVC TV";
    default:
      return fmt::format("type {}", service.type);
  }
}

bool is_tv(const Service& service) {
  switch (service.type) {
    case 0x01:
    case 0x06:
    case 0x0B:
    case 0x11:
    case 0x16:
    case 0x19:
    case 0x1C:
    case 0x1F:
    case 0x20:
    case 0x21:
      return true;
    default:
      return service.type >= FIRST_USER_DEFINED_TYPE && has_stream(service, "video");
  }
}

bool is_radio(const Service& service) {
  switch (service.type) {
    case 0x02:
    case 0x07:
    case 0x0A:
      return true;
    default:
      return service.type >= FIRST_USER_DEFINED_TYPE && !has_stream(service, "video") && has_stream(service, "audio");
  }
}

std::string state_text(const Service& service) {
  switch (service.scan_state) {
    case 1:
      return "found";
    case 2:
      return "timed out";
    default:
      return service.row_status == 2 ? "no streams" : "lost";
  }
}

void check_database_name(const std::string& file) {
  const size_t name = file.find_last_of('/') + 1;
  if (file.find('.', name) == std::string::npos || file.back() == '/') {
    throw Failure(fmt::format("--db {}: the file name needs an extension, such as dvb.db", file), EXIT_USAGE);
  }
  // The name of the guide, which is a little longer, is made in a buffer of 4096 bytes.
  if (file.size() >= 4080) {
    throw Failure("--db: the path is too long", EXIT_USAGE);
  }
}

std::string default_database() {
  const char* data = getenv("XDG_DATA_HOME");
  std::string folder;
  if (data != nullptr && data[0] == '/') {  // A relative path counts as unset.
    folder = data;
  } else {
    const char* home = getenv("HOME");
    // Services that are started by the system often have no HOME; the account has one all the same.
    if (home == nullptr || home[0] == '\0') {
      const passwd* user = getpwuid(getuid());
      home = user == nullptr ? nullptr : user->pw_dir;
    }
    if (home == nullptr || home[0] == '\0') {
      throw Failure("no home folder for the database; name a file with --db");
    }
    folder = std::string(home) + "/.local/share";
  }
  return folder + "/kelvo/dvb.db";
}

void make_folders_for(const std::string& file) {
  std::error_code error;
  std::filesystem::create_directories(folder_of(file), error);
  if (error) {
    throw Failure(fmt::format("{}: cannot be made: {}", folder_of(file), error.message()));
  }
}

// Everything is looked at before the library gets the files, because it would add its tables to any database that it
// can open, and report a damaged one statement by statement only.
bool check_database(const std::string& file) {
  const bool exists = check_file(file);
  if (exists) {
    const Channel_db database(file);
    if (!database.is_whole()) {
      throw Failure(fmt::format("{}: the database is damaged; 'kelvo check --repair' mends it", file));
    }
  }
  char guide[4096];
  Sdbl::mapto_epg_filename(guide, file.c_str());
  if (check_file(guide)) {
    const Connection connection = open_to_read(guide);
    Statement check(connection.get(), guide, "PRAGMA quick_check(1);");
    if (!check.step() || check.raw_text(0) != "ok") {
      throw Failure(fmt::format("{}: the guide is damaged; 'kelvo check --repair' mends it", guide));
    }
  }
  struct statvfs space {};
  if (statvfs(folder_of(file).c_str(), &space) == 0 &&
      static_cast<uint64_t>(space.f_bavail) * space.f_frsize < LEAST_FREE_BYTES) {
    throw Failure(fmt::format("{}: disk full; a scan needs at least 1 MiB", file));
  }
  return exists;
}

void remove_database(const std::string& file) {
  char guide[4096];
  Sdbl::mapto_epg_filename(guide, file.c_str());
  (void)unlink(file.c_str());
  (void)unlink(guide);
}

Channel_db::Channel_db(const std::string& file) : file_(file) {
  struct stat status {};
  if (stat(file.c_str(), &status) != 0) {
    throw Failure(fmt::format("{}: {}; make it with 'kelvo scan'", file, strerror(errno)));
  }
  if (!S_ISREG(status.st_mode)) {
    throw Failure(fmt::format("{}: not a file; name another one with --db", file));
  }
  connection_ = open_to_read(file);
  check_layout();
}

void Channel_db::check_layout() const {
  if (!has_any_table(connection_.get(), file_)) {
    return;  // An empty file becomes a database when it is first scanned into.
  }
  if (!has_table(connection_.get(), file_, "kanalid")) {
    throw Failure(fmt::format("{}: not a channel database; name another file with --db", file_));
  }
  // Preparing is the check: it fails where a column is missing. The two other tables are newer and may be absent.
  const Statement services(connection_.get(), file_, SERVICE_COLUMNS);
  if (has_table(connection_.get(), file_, "estreams")) {
    const Statement streams(connection_.get(), file_, STREAM_COLUMNS);
  }
  if (has_table(connection_.get(), file_, "kanalid_lang")) {
    const Statement names(connection_.get(), file_, NAME_COLUMNS);
  }
}

std::vector<Service> Channel_db::services(bool with_streams) const {
  std::vector<Service> out;
  if (!has_table(connection_.get(), file_, "kanalid")) {
    return out;
  }
  // Streams and names are read in one go each and sorted in by row: hundreds of services would otherwise cost hundreds
  // of queries each.
  std::map<int, size_t> places;
  Statement rows(connection_.get(), file_, SERVICE_COLUMNS);
  while (rows.step()) {
    Service service;
    service.channel = rows.number(0);
    service.lcn = rows.number(1);
    service.name = rows.text(2);
    service.type = rows.number(3);
    service.provider = rows.text(4);
    service.network = rows.text(5);
    service.freq = rows.number(6);
    service.delivery.freq = service.freq;
    service.program_number = rows.number(7);
    service.network_id = rows.number(8);
    service.original_network_id = rows.number(9);
    service.transport_stream_id = rows.number(10);
    service.pmt_pid = rows.number(11);
    service.pcr_pid = rows.number(12);
    service.scrambled = rows.number(13) != 0;
    service.scan_state = rows.number(14);
    service.row_status = rows.number(15);
    places[service.channel] = out.size();
    out.push_back(std::move(service));
  }
  if (has_table(connection_.get(), file_, "service_detail")) {
    Statement hidden(connection_.get(), file_, HIDDEN_COLUMNS);
    while (hidden.step()) {
      const auto place = places.find(hidden.number(0));
      if (place != places.end()) {
        out[place->second].visible = false;
      }
    }
  }
  read_deliveries(&out, places);
  if (!with_streams) {
    return out;
  }
  if (has_table(connection_.get(), file_, "kanalid_lang")) {
    Statement names(connection_.get(), file_, NAME_COLUMNS);
    while (names.step()) {
      const auto place = places.find(names.number(0));
      if (place != places.end() && !names.text(2).empty()) {
        out[place->second].names[names.text(1)] = names.text(2);
      }
    }
  }
  if (has_table(connection_.get(), file_, "estreams")) {
    Statement streams(connection_.get(), file_, STREAM_COLUMNS);
    while (streams.step()) {
      const auto place = places.find(streams.number(0));
      // Rows of a service that has been deleted since may remain; they belong to nobody.
      if (place == places.end()) {
        continue;
      }
      std::vector<Stream>& list = out[place->second].streams;
      Stream stream;
      stream.pid = streams.number(1);
      stream.stream_type = streams.number(2);
      stream.ca_system = streams.number(6);
      stream.ca_pid = streams.number(7);
      set_kind(&stream, static_cast<unsigned>(streams.number(3)), streams.text(4));
      // Teletext and subtitles have a row for each language.
      const auto same = std::find_if(list.begin(), list.end(), [&stream](const Stream& other) {
        return other.pid == stream.pid && other.kind == stream.kind;
      });
      if (same != list.end()) {
        add_languages(&*same, streams.text(5));
        continue;
      }
      add_languages(&stream, streams.text(5));
      list.push_back(std::move(stream));
    }
  }
  read_stream_words(&out, places);
  return out;
}

void Channel_db::read_deliveries(std::vector<Service>* services, const std::map<int, size_t>& places) const {
  if (!has_table(connection_.get(), file_, "tuned_multiplex")) {
    return;
  }
  Statement rows(connection_.get(), file_, DELIVERY_COLUMNS);
  while (rows.step()) {
    if (const auto place = places.find(rows.number(0)); place != places.end()) {
      (*services)[place->second].delivery = {rows.number(1), rows.number(2), rows.number(3), rows.number(4),
                                             rows.number(5)};
    }
  }
}

// What stands there of a stream that estreams has with another type is older than that: a program that does not know
// these tables has scanned since.
void Channel_db::read_stream_words(std::vector<Service>* services, const std::map<int, size_t>& places) const {
  for (const char* table : {"stream_detail", "stream_language", "stream_ca"}) {
    if (!has_table(connection_.get(), file_, table)) {
      return;
    }
  }
  const auto find = [&](int channel, int pid) -> Stream* {
    const auto place = places.find(channel);
    if (place == places.end()) {
      return nullptr;
    }
    std::vector<Stream>& streams = (*services)[place->second].streams;
    const auto stream = std::find_if(streams.begin(), streams.end(), [pid](const Stream& s) { return s.pid == pid; });
    return stream == streams.end() ? nullptr : &*stream;
  };
  Statement words(connection_.get(), file_, WORD_COLUMNS);
  while (words.step()) {
    Stream* stream = find(words.number(0), words.number(1));
    if (stream != nullptr && stream->stream_type == words.number(2)) {
      stream->described = true;
      stream->component_tag = words.number(3);
      stream->kind = words.text(4);
      stream->codec = words.text(5);
      stream->profile = words.text(6);
    }
  }
  Statement roles(connection_.get(), file_, ROLE_COLUMNS);
  while (roles.step()) {
    Stream* stream = find(roles.number(0), roles.number(1));
    if (stream != nullptr && stream->described) {
      stream->roles.push_back({roles.text(2), roles.text(3), roles.number(4)});
      add_languages(stream, roles.text(2));
    }
  }
  Statement ca(connection_.get(), file_, CA_COLUMNS);
  while (ca.step()) {
    if (const auto place = places.find(ca.number(0)); place != places.end()) {
      (*services)[place->second].ca.push_back({ca.number(1), ca.number(2), ca.number(3)});
    }
  }
}

std::map<int, Broadcast_zone> Channel_db::zones() const {
  std::map<int, Broadcast_zone> out;
  if (!has_table(connection_.get(), file_, "broadcast_zone")) {
    return out;
  }
  constexpr int MOST_MIN = 24 * 60;
  Statement rows(connection_.get(), file_, ZONE_COLUMNS);
  while (rows.step()) {
    const Broadcast_zone zone{rows.number(1), rows.big_number(2), rows.number(3)};
    if (std::abs(int64_t{zone.offset_min}) <= MOST_MIN && std::abs(int64_t{zone.next_offset_min}) <= MOST_MIN) {
      out[rows.number(0)] = zone;
    }
  }
  return out;
}

// Services that are named but not described are counted as well: the multiplex announced them.
std::vector<Tuning_request> Channel_db::stored_pipes() const {
  std::vector<Tuning_request> out;
  if (!has_table(connection_.get(), file_, "tuned_multiplex")) {
    return out;
  }
  // Of the input that the command uses, and only what a scan can have stored.
  Statement rows(connection_.get(), file_,
                 "SELECT asked_freq, pipe, bandwidth_hz FROM tuned_multiplex WHERE hf_conn = 0 AND dvb_type = 0 AND "
                 "pipe BETWEEN 1 AND 255 AND asked_freq BETWEEN 1 AND 2000000000 AND freq = asked_freq + pipe AND "
                 "bandwidth_hz IN (0, 1712000, 5000000, 6000000, 7000000, 8000000, 10000000) ORDER BY freq;");
  while (rows.step()) {
    Tuning_request request;
    request.freq = rows.number(0);
    request.system = SYS_DVBT2;
    request.pipe = rows.number(1);
    request.bandwidth_hz = rows.number(2);
    out.push_back(request);
  }
  return out;
}

int Channel_db::services_found(int freq) const {
  Statement count(connection_.get(), file_,
                  "SELECT count(*) FROM kanalid WHERE freq = ?1 AND (scan_state = 1 OR row_status = 2);");
  count.bind(1, freq);
  return count.step() ? count.number(0) : 0;
}

int Channel_db::version() const {
  Statement version(connection_.get(), file_, "PRAGMA data_version;");
  return version.step() ? version.number(0) : 0;
}

bool Channel_db::is_whole() const {
  Statement check(connection_.get(), file_, "PRAGMA quick_check(1);");
  return check.step() && check.raw_text(0) == "ok";
}
