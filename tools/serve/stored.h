// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/database/channel_db.h"
#include "tools/database/guide_db.h"

// A text that is made once for all who read it, and its name among those before and after it.
struct Document {
  std::shared_ptr<const std::string> text;
  std::string etag;  // quoted
};

// What is stored of one multiplex.
struct Stored_multiplex {
  std::string network;
  int transport_stream_id = 0;
  int channels = 0;
  int events = 0;
  int64_t guide_end = 0;  // of its last event, seconds since 1970; 0: no events
};

// What the databases hold, read by connections that change nothing, and kept until somebody changes a file. Files may
// be made, replaced and removed meanwhile. One thread.
class Stored {
 public:
  // Throws Failure when a file that is there cannot be read; with `must_exist` also when there are no channels' file.
  Stored(std::string channel_file, bool must_exist);

  // What has changed since the last look, as far as a look is due: documents that were told as changed are not changed
  // again for LOOK_INTERVAL. No failures: a file that cannot be read has not changed.
  static constexpr std::chrono::seconds LOOK_INTERVAL{2};
  struct Changes {
    bool channels = false;
    bool guide = false;
  };
  Changes look();

  // Read when it is asked for. Throws Failure when a file cannot be read (any more).
  const Document& channels_document();
  const Document& guide_document();
  const std::vector<Service>& services();                // sorted as lists are
  const std::map<int, Stored_multiplex>& multiplexes();  // by frequency
  // What is on, by channel: of several the one that began last, as everywhere.
  struct On_now {
    std::string title;
    int64_t end = 0;  // seconds since 1970
  };
  const std::map<int, On_now>& now();
  std::optional<int64_t> guide_changed() const;  // when the guide's file was written to last

  // Before the last other user closes the files: a reader must not be the last.
  void close();

 private:
  using Clock = std::chrono::steady_clock;
  // Of a file: which one it is, and its version; another one after any change.
  struct Version {
    uint64_t device = 0;
    uint64_t inode = 0;
    int data = 0;
    bool operator==(const Version&) const = default;
  };
  static Version file_of(const std::string& name);
  void open_channels();
  void open_guide();

  std::string file_;
  bool must_exist_;
  std::string guide_file_;
  std::unique_ptr<Channel_db> channels_;
  std::unique_ptr<Guide_db> guide_;
  Version channels_version_;
  Version guide_version_;
  Clock::time_point changed_;
  std::string seed_;
  unsigned documents_ = 0;
  std::optional<Document> channels_document_;
  std::optional<Document> guide_document_;
  std::optional<std::vector<Service>> services_;
  std::optional<std::map<int, Stored_multiplex>> multiplexes_;
  std::map<int, On_now> now_;
  int64_t now_until_ = 0;  // `now_` holds until then; 0: not read
};
