// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Databases that were damaged: small valid files of channels and guide, some bytes of one of them replaced, through the
// readers of the library and of the commands. The input is the file (a byte), then changes of four bytes: where, in
// steps that reach every byte of the first pages, and what for.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <stdexcept>
#include <string>

#include "base/messages.h"
#include "db/ca_pid.h"
#include "db/no_file_error.h"
#include "db/sdbl.h"
#include "fuzz/entries.h"
#include "support/database.h"
#include "tools/cli/failure.h"
#include "tools/database/channel_db.h"
#include "tools/database/guide_db.h"

namespace {

constexpr int FREQ = 506000000;

struct Files {
  support::Temp_dir dir;
  std::string channels = dir.file("fuzz.db");
  std::string guide = dir.file("fuzz_epg.db");
  std::string good_channels;
  std::string good_guide;

  Files() {
    verbosity_kelvo = -1;
    {
      Sdbl made(channels.c_str());
      sqlite3* conn = support::conn_of(made);
      for (
          const char* sql :
          {"INSERT INTO kanalid (freq, hf_conn, dvb_type, pat_prnr, pmt_pid, serv_name, serv_type, network_name, lcn) "
           "VALUES (506000000, 1, 1, 1, 100, 'Kuldnokk', 1, 'levira', 1), (506000000, 1, 1, 2, 200, 'Laine', 2, '', 2)",
           "INSERT INTO kanalid_lang (source_oid, lang, serv_name) VALUES (1, 'est', 'Kuldnokk')",
           "INSERT INTO estreams (channel, es_pid, es_type, languages, ca_sysid, ca_pid) VALUES (1, 101, 2, '', 1, 2), "
           "(1, 102, 4, 'est ', 0, 0)",
           "INSERT INTO tuner_table (freq, hf_conn, dvb_type, tuner_params) VALUES (506000000, 1, 1, 'Fr: 506000000')",
           "INSERT INTO epglist (channel, ev_id, start_epoch, dur_sec, rating) VALUES (1, 1, 2216241000, 60, '05@EST')",
           "INSERT INTO epglist_lang (source_oid, lang, ev_name, ext_list) VALUES (1, 'est', 'Uudised', 'a:b')"})
        (void)support::run(conn, sql);
    }
    good_channels = support::read_file(channels);
    good_guide = support::read_file(guide);
  }
};

// Written over and over. It stays open: to close it would give up SQLite's locks on the file, too.
class File {
 public:
  explicit File(const std::string& name) : fd_(open(name.c_str(), O_RDWR | O_CLOEXEC)) {}
  ~File() { (void)close(fd_); }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  void write(const std::string& bytes) const {
    const auto size = static_cast<ssize_t>(bytes.size());
    if (ftruncate(fd_, size) != 0 || pwrite(fd_, bytes.data(), bytes.size(), 0) != size)
      std::abort();
  }

 private:
  int fd_;
};

void read_with_library(const std::string& file) {
  try {
    Sdbl db(file.c_str());
    (void)db.get_freq(1);
    (void)db.get_pat_prnr(1, FREQ);
    delete db.get_serv_name(1, 1, FREQ, 1);
    std::vector<CA_pid*> pids;
    (void)db.fill_pids_for_channel(1, &pids);
    for (const CA_pid* one : pids)
      delete one;
    (void)db.eit_info_available(1);
    std::list<SQL_cache*> list;
    (void)db.get_eit_scan_list(0, 1, 1, FREQ, &list, SCAN_EIT);
    db.clear_eit_scan_list(&list);
  } catch (const no_file_error&) {
    // said in the constructor's contract
  }
}

void read_with_commands(const std::string& file) {
  try {
    const Channel_db channels(file);
    (void)channels.is_whole();
    (void)channels.services(true);
    (void)channels.stored_pipes();
    (void)channels.zones();
    const Guide_db guide(file);
    (void)guide.events(0, INT64_MAX, {"est"});
    (void)guide.counts();
  } catch (const Failure&) {
    // one line
  }
}

}  // namespace

int fuzz::database(const uint8_t* data, size_t size) {
  static const Files files;
  static const File channel_file(files.channels);
  static const File guide_file(files.guide);
  if (size == 0)
    return 0;
  const bool in_guide = (data[0] & 1) != 0;
  std::string channels = files.good_channels;
  std::string guide = files.good_guide;
  std::string& damaged = in_guide ? guide : channels;
  for (size_t i = 1; i + 3 < size; i += 4) {
    const size_t at = (static_cast<size_t>(data[i]) << 16 | data[i + 1] << 8 | data[i + 2]) % damaged.size();
    damaged[at] = static_cast<char>(data[i + 3]);
  }
  if ((data[0] & 4) != 0)
    damaged.resize(damaged.size() * data[0] / 256);
  channel_file.write(channels);
  guide_file.write(guide);
  if ((data[0] & 2) != 0)
    read_with_library(files.channels);
  else
    read_with_commands(files.channels);
  return 0;
}
