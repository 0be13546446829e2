// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Every call on a device fails with each errno that the kernel has for it: once, for a while and for ever; before the
// Kelvo is made, in a scan, and while the guide is collected. What was stored before stays as it was, nothing hangs,
// and with the fault gone the next scan finds everything. `make faults` runs all rows and prints them.
#include <sqlite3.h>
#include <sys/mount.h>

#include "kelvo/kelvo.h"
#include "support/database.h"
#include "support/softdvb.h"
#include "support/support.h"
#include "support/test.h"

namespace {

constexpr int FREQ = 506000000;
constexpr std::chrono::minutes PATIENCE{20};     // of the adapter's time
constexpr std::chrono::seconds GUIDE_PHASE{12};  // of the adapter's time: the guide begins, and all is asked for again

constexpr char UNPLUGGED[] = "device pulled out";
constexpr char SIGNALS[] = "signals";

struct Failing {
  const char* call;
  const char* errors;
};

const Failing CALLS[] = {
    {"open(frontend0)", "EBUSY ENODEV ENOENT EACCES EMFILE ENFILE EINTR EIO ENOMEM"},
    {"open(demux0)", "EBUSY ENODEV ENOENT EACCES EMFILE ENFILE EINTR ENOMEM"},
    {"close(frontend0)", "EIO EINTR"},
    {"close(demux0)", "EIO EINTR"},
    {"FE_GET_INFO", "EIO ENODEV EINTR EAGAIN 524"},
    {"FE_SET_FRONTEND", "EINVAL EIO ENODEV EINTR EBUSY EPERM EAGAIN 524"},
    {"FE_GET_FRONTEND", "EINVAL EIO ENODEV EINTR EAGAIN 524"},
    {"FE_SET_PROPERTY", "EINVAL EIO ENODEV EINTR EBUSY EPERM ENOMEM EAGAIN 524"},
    {"FE_GET_PROPERTY", "EINVAL EIO ENODEV EINTR ENOMEM EAGAIN 524"},
    {"FE_READ_STATUS", "EIO ENODEV EINTR EAGAIN ETIMEDOUT 524"},
    {"FE_READ_SIGNAL_STRENGTH", "EIO ENODEV EINTR EAGAIN 524"},
    {"FE_READ_SNR", "EIO ENODEV EINTR EAGAIN 524"},
    {"FE_READ_BER", "EIO ENODEV EINTR EAGAIN 524"},
    {"FE_READ_UNCORRECTED_BLOCKS", "EIO ENODEV EINTR EAGAIN 524"},
    {"FE_GET_EVENT", "EOVERFLOW EAGAIN EIO ENODEV EINTR"},
    {"DMX_SET_BUFFER_SIZE", "EINVAL EBUSY ENOMEM ENODEV EINTR"},
    {"DMX_SET_FILTER", "EINVAL EBUSY ENOMEM ENODEV EINTR"},
    {"DMX_START", "EINVAL EBUSY EIO ENOMEM ENODEV EINTR"},
    {"DMX_STOP", "EINVAL EIO ENODEV EINTR"},
    {"read(demux0)", "EOVERFLOW ETIMEDOUT EAGAIN EIO ENODEV EINTR EFAULT"},
    {"poll", "EINTR ENOMEM EINVAL EFAULT"},
    {"select", "EINTR ENOMEM EBADF EINVAL"},
    {"write(dvb.db)", "ENOSPC EDQUOT EROFS EIO"},
    {"write(dvb_epg.db)", "ENOSPC EDQUOT EROFS EIO"},
    {"read(dvb.db)", "EIO"},
    {"read(dvb_epg.db)", "EIO"},
    {UNPLUGGED, "-"},  // and put in again
    {SIGNALS, "-"},    // every moment, with a handler that ends the call
};

enum class When { START, SCAN, GUIDE };
constexpr const char* WHEN[] = {"start", "scan", "guide"};
struct How_long {
  const char* name;
  const char* suffix;
};
constexpr How_long HOW_LONG[] = {{"once", "*1"}, {"a while", "*20"}, {"for ever", ""}};

struct Row {
  std::string call;
  std::string error;
  When when;
  How_long how_long;
};

std::string name_of(const Row& row) {
  return row.call + " " + row.error + ", " + WHEN[static_cast<int>(row.when)] + ", " + row.how_long.name;
}

std::vector<Row> all_rows() {
  std::vector<Row> rows;
  for (const Failing& failing : CALLS) {
    std::istringstream errors(failing.errors);
    for (std::string error; errors >> error;)
      for (const When when : {When::START, When::SCAN, When::GUIDE})
        for (const How_long& how_long : HOW_LONG)
          if (error != "-" || *how_long.suffix == '\0')
            rows.push_back({failing.call, error, when, how_long});
  }
  return rows;
}

// Which allocation fails, of the library's threads and of the calls of this host: counted from 1; 0 for none.
std::atomic<long> failing_allocation{0};
std::atomic<long> allocations{0};
thread_local bool counted = true;
// To fail of the worker's alone once it has taken a request; 0 for none.
std::atomic<long> failing_of_beginning{0};
std::atomic<bool> of_worker_only{false};
thread_local bool is_worker = false;
// Or of every thread but the host's.
std::atomic<bool> of_library_only{false};
thread_local bool is_host = false;

// The test itself cannot do without memory.
class Spared {
 public:
  explicit Spared(bool spared = true) { counted = !spared; }
  ~Spared() { counted = before_; }
  Spared(const Spared&) = delete;
  Spared& operator=(const Spared&) = delete;

 private:
  const bool before_ = counted;
};

bool allocation_fails() {
  return counted && (is_worker || !of_worker_only) && !(is_host && of_library_only) &&
         allocations.fetch_add(1, std::memory_order_relaxed) + 1 == failing_allocation;
}

// What happened in a row.
struct Seen {
  std::string answer;   // to the request that the fault was for
  std::string outcome;  // of its scan
  std::string message;  // the first one that is not there without a fault
  std::string afterwards;
  bool kept = true;     // what was stored before
  std::string changed;  // the first row that was not kept
};

// A host that counts answers. One at a time: listeners of messages have no place of their own.
class Host {
 public:
  Host(const std::string& file, const Receiver_profile& profile, Durability durability)
      : database_(file.c_str(), durability), profile_(profile) {}
  ~Host() { disconnect(); }
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  void connect() {
    const Spared only_this_call(false);
    kelvo_ = std::make_unique<Kelvo>(0, 3, 1, &database_, true, nullptr, profile_);
    kelvo_->set_scan_listener(
        [](void* self, const Scan_end& end) {
          const Spared spared;
          auto& host = *static_cast<Host*>(self);
          const std::lock_guard lock(host.lock_);
          host.outcomes_.push_back(end.outcome);
        },
        this);
  }
  void disconnect() { kelvo_.reset(); }
  bool is_connected() const { return kelvo_ != nullptr; }
  void reconnect_tuner() {
    kelvo_->set_tuner(false);
    kelvo_->set_tuner(true);
  }

  // The request's answer: "0", "-1", "no lock", or "HANGS".
  std::string scan() {
    {
      const std::lock_guard lock(lock_);
      answers_.clear();
      outcomes_.clear();
    }
    const Spared only_this_call(false);
    return kelvo_->tune_to_freq(FREQ, this, on_answer) == 0 ? "no lock" : "";
  }
  std::string answer() {
    std::unique_lock lock(lock_);
    if (!answered_.wait_for(lock, PATIENCE, [this] { return !answers_.empty(); }))
      return "HANGS";
    return std::to_string(answers_.front());
  }
  std::string outcome() {
    static const char* const NAMES[] = {"complete", "timed out", "no stream", "no demux", "replaced", "device gone"};
    const std::lock_guard lock(lock_);
    return outcomes_.empty() ? "-" : NAMES[outcomes_.back()];
  }

  // All channels, streams and stored parameters, and all events, a row each.
  support::Texts stored() {
    support::Texts all;
    sqlite3* const conn = support::conn_of(database_);
    for (const char* query :
         {"SELECT 'kanalid', channel, hf_conn, dvb_type, freq, pat_prnr, pmt_pid, network_id, orig_network_id, "
          "tstream_id, lcn, pcr_pid, serv_name, serv_type, prov_name, network_name, run_status, free_ca, scan_state, "
          "row_status FROM kanalid ORDER BY channel",
          "SELECT 'kanalid_lang', * FROM kanalid_lang ORDER BY 2, 3",
          "SELECT 'estreams', channel, es_pid, es_type, es_subtype, codec, languages, lang_codes, p1, p2, ca_sysid, "
          "ca_pid FROM estreams ORDER BY 2, 3",  // all but the mark that a merge leaves
          "SELECT 'tuner_table', * FROM tuner_table ORDER BY 2",
          "SELECT 'event', channel, start_epoch, dur_sec, ev_id, (SELECT ev_name FROM epglist_lang WHERE source_oid = "
          "entry) FROM epglist ORDER BY 2, 3"})
      for (const std::string& row : support::rows(conn, query))
        all.push_back(row);
    return all;
  }
  bool is_sound() {
    sqlite3* const conn = support::conn_of(database_);
    return support::rows(conn, "PRAGMA main.integrity_check") == support::Texts{"ok"} &&
           support::rows(conn, "PRAGMA epg_db.integrity_check") == support::Texts{"ok"};
  }

  void take_message(const char* text) {
    if (failing_of_beginning != 0 && std::string_view(text).starts_with("WARNING: Loop init")) {
      is_worker = true;
      of_worker_only = true;
      allocations = 0;
      failing_allocation = failing_of_beginning.load();
    }
    const Spared spared;
    const std::lock_guard lock(lock_);
    std::string line(text, std::strcspn(text, "\n"));
    if (messages_.size() < 1000)
      messages_.push_back(std::move(line));
  }
  std::vector<std::string> messages() {
    const std::lock_guard lock(lock_);
    return messages_;
  }

 private:
  static void on_answer(void* self, int result) {
    const Spared spared;
    auto& host = *static_cast<Host*>(self);
    const std::lock_guard lock(host.lock_);
    host.answers_.push_back(result);
    host.answered_.notify_all();
  }

  std::mutex lock_;
  std::condition_variable answered_;
  std::vector<int> answers_;
  std::vector<int> outcomes_;
  std::vector<std::string> messages_;
  Sdbl database_;
  const Receiver_profile profile_;
  std::unique_ptr<Kelvo> kelvo_;
};

// Signals to this process as long as it lives.
class Signals {
 public:
  Signals() {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    (void)sigaction(SIGUSR1, &action, &before_);
    thread_ = std::thread([this] {
      while (running_) {
        (void)kill(getpid(), SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(4));
      }
    });
  }
  ~Signals() {
    running_ = false;
    thread_.join();
    (void)sigaction(SIGUSR1, &before_, nullptr);
  }
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;

 private:
  std::atomic<bool> running_{true};
  struct sigaction before_ {};
  std::thread thread_;
};

// Makes a row's fault, and takes it away again.
class Fault {
 public:
  explicit Fault(const Row& row) : row_(row) {}
  ~Fault() { end(); }
  Fault(const Fault&) = delete;
  Fault& operator=(const Fault&) = delete;

  void begin() {
    if (row_.call == UNPLUGGED)
      support::softdvb_control("adapter 0 unplug");
    else if (row_.call == SIGNALS)
      signals_.emplace();
    else
      support::softdvb_control("fault " + row_.call + " = " + row_.error + row_.how_long.suffix);
    begun_ = true;
  }
  void end() {
    if (begun_ && row_.call == UNPLUGGED)
      support::softdvb_control("adapter 0 plug");
    signals_.reset();
    support::softdvb_control("clear faults");
    begun_ = false;
  }

 private:
  const Row row_;
  bool begun_ = false;
  std::optional<Signals> signals_;
};

std::string without_numbers(const std::string& text) {
  static const std::regex NUMBERS("[0-9]+");
  return std::regex_replace(text, NUMBERS, "N");
}

class Fault_matrix : public testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    ASSERT_TRUE(support::under_softdvb());
    counted = false;
    verbosity_kelvo = VERB_WARNING;
    profile_ = std::string(GetParam()) == "box" ? Receiver_profile::box() : Receiver_profile::any_linux();
    std::filesystem::create_directories(folder_.path() + "/now");
    with_host([this](Host& host) {
      host.connect();
      EXPECT_EQ(host.scan(), "");
      EXPECT_EQ(host.answer(), "0");
      // The guide of an empty list comes with the second one; how much of it a machine with other work gets, differs.
      for (int scans = 0; scans < 20 && count("event", good_) != EVENTS; ++scans) {
        EXPECT_EQ(host.scan(), "");
        EXPECT_EQ(host.answer(), "0");
        std::this_thread::sleep_for(GUIDE_PHASE);
        good_ = host.stored();
      }
      for (const std::string& message : host.messages())
        usual_.insert(without_numbers(message));
    });
    EXPECT_EQ(count("event", good_), EVENTS);
    std::filesystem::copy(folder_.path() + "/now", folder_.path() + "/good", std::filesystem::copy_options::recursive);
  }
  static constexpr int EVENTS = 4;
  static int count(const char* table, const support::Texts& rows) {
    return static_cast<int>(
        std::count_if(rows.begin(), rows.end(), [table](const auto& row) { return row.starts_with(table); }));
  }

  void TearDown() override {
    support::softdvb_control("clear faults");
    Kelvo::set_message_listener({});
  }

  // With a database that is what the folder "now" has.
  template <typename Use>
  void with_host(Use use, Durability durability = Durability::NONE) {
    Host host(folder_.path() + "/now/dvb.db", profile_, durability);
    Message_listener listener;
    listener.message = [](void* data, int, const char* text) { static_cast<Host*>(data)->take_message(text); };
    listener.data = &host;
    listener.level = VERB_WARNING;
    listener.print = false;
    Kelvo::set_message_listener(listener);
    use(host);
    host.disconnect();
    Kelvo::set_message_listener({});
  }

  void begin_with_good() const {
    std::filesystem::remove_all(folder_.path() + "/now");
    std::filesystem::copy(folder_.path() + "/good", folder_.path() + "/now", std::filesystem::copy_options::recursive);
  }

  Seen run(const Row& row) {
    begin_with_good();
    Seen seen;
    with_host([&](Host& host) { play(row, host, &seen); });
    return seen;
  }

  void play(const Row& row, Host& host, Seen* seen) {
    Fault fault(row);
    if (row.when == When::START)
      fault.begin();
    host.connect();
    seen->answer = host.scan();
    if (row.when == When::SCAN)
      fault.begin();
    if (seen->answer.empty())
      seen->answer = host.answer();
    seen->outcome = host.outcome();
    if (row.when == When::GUIDE)
      fault.begin();
    std::this_thread::sleep_for(GUIDE_PHASE);
    fault.end();
    note_changes(host, seen);
    for (const std::string& message : host.messages()) {
      // What the guide gives up depends on when it began, and time goes on.
      if (usual_.count(without_numbers(message)) == 0 && !message.empty() && !message.starts_with("Kill scan") &&
          !message.starts_with("WARNING: The system's clock")) {
        seen->message = message;
        break;
      }
    }
    seen->afterwards = recover(host);
    if (!host.is_sound())
      seen->afterwards = "DAMAGED";
  }

  // The first row of before that is not there any more.
  std::string missing(const support::Texts& now) const {
    const std::set<std::string> rows(now.begin(), now.end());
    for (const std::string& row : good_)
      if (rows.count(row) == 0)
        return row;
    return "";
  }

  // The first row of a service or a stream that is none of those that belong there.
  std::string half_stored(const support::Texts& now) const {
    const std::set<std::string> rows(good_.begin(), good_.end());
    for (const std::string& row : now)
      if (rows.count(row) == 0 && (row.starts_with("kanalid|") || row.starts_with("estreams|")))
        return row;
    return "";
  }

  void note_changes(Host& host, Seen* seen) const {
    seen->changed = missing(host.stored());
    seen->kept = seen->changed.empty();
  }

  // What it takes until a scan finds everything again.
  std::string recover(Host& host) const {
    if (finds_everything(host))
      return "works";
    // A device that has come back this moment may not be ready yet.
    std::this_thread::sleep_for(GUIDE_PHASE);
    if (finds_everything(host))
      return AT_SECOND_REQUEST;
    host.reconnect_tuner();
    if (finds_everything(host))
      return "works with the tuner connected again";
    host.disconnect();
    host.connect();
    return finds_everything(host) ? "works with a new Kelvo" : "DOES NOT WORK";
  }

  bool finds_everything(Host& host) const {
    std::string answer = host.scan();
    if (answer.empty())
      answer = host.answer();
    const support::Texts now = host.stored();
    return answer == "0" && host.outcome() == "complete" && missing(now).empty() && now.size() == good_.size();
  }

  // A scan in which one allocation fails; 0 for none. Returns how many there were.
  long run_without_memory(long number) {
    begin_with_good();
    long count = 0;
    with_host([&](Host& host) {
      allocations = 0;
      failing_allocation = number;
      std::string answer;
      try {
        host.connect();
        answer = host.scan();
      } catch (const std::bad_alloc&) {
        answer = "no memory";
      }
      if (answer.empty())
        answer = host.answer();
      if (answer == "0")
        std::this_thread::sleep_for(GUIDE_PHASE);
      count = allocations;
      failing_allocation = 0;
      EXPECT_NE(answer, "HANGS") << "allocation " << number;
      EXPECT_EQ(missing(host.stored()), "") << "allocation " << number;
      EXPECT_TRUE(host.is_sound()) << "allocation " << number;
      if (!host.is_connected())
        host.connect();
      EXPECT_THAT(recover(host), testing::StartsWith("works")) << "allocation " << number << " answered " << answer;
    });
    return count;
  }

  void expect_good(const Row& row, const Seen& seen) const {
    EXPECT_NE(seen.answer, "HANGS") << name_of(row);
    EXPECT_TRUE(seen.kept) << name_of(row) << " changed " << seen.changed;
    EXPECT_THAT(seen.afterwards, testing::StartsWith("works")) << name_of(row);
    const bool was_gone = row.error == "ENODEV" || row.call == UNPLUGGED;
    if (profile_.watch_device) {
      EXPECT_TRUE(seen.afterwards == "works" || (was_gone && seen.afterwards == AT_SECOND_REQUEST))
          << name_of(row) << ": " << seen.afterwards;
    }
  }

  static constexpr char AT_SECOND_REQUEST[] = "works at the second request";

  support::Temp_dir folder_;
  Receiver_profile profile_;
  support::Texts good_;
  std::set<std::string> usual_;  // messages without a fault
};

INSTANTIATE_TEST_SUITE_P(, Fault_matrix, testing::Values("box", "any_linux"),
                         [](const auto& profile) { return std::string(profile.param); });

// A few rows that end differently.
const Row SMOKE[] = {
    {"open(frontend0)", "EBUSY", When::START, HOW_LONG[0]},
    {"open(demux0)", "EMFILE", When::START, HOW_LONG[1]},
    {"FE_SET_PROPERTY", "EIO", When::START, HOW_LONG[0]},
    {"FE_SET_FRONTEND", "EINVAL", When::START, HOW_LONG[2]},
    {"FE_READ_STATUS", "EAGAIN", When::START, HOW_LONG[1]},
    {"FE_READ_STATUS", "ENODEV", When::GUIDE, HOW_LONG[0]},
    {"DMX_SET_FILTER", "EINVAL", When::SCAN, HOW_LONG[0]},
    {"DMX_START", "EIO", When::SCAN, HOW_LONG[0]},
    {"DMX_START", "ENODEV", When::GUIDE, HOW_LONG[0]},
    {"DMX_STOP", "EIO", When::GUIDE, HOW_LONG[2]},
    {"read(demux0)", "EOVERFLOW", When::SCAN, HOW_LONG[1]},
    {"read(demux0)", "EIO", When::GUIDE, HOW_LONG[1]},
    {"poll", "ENOMEM", When::SCAN, HOW_LONG[1]},
    {"select", "EINTR", When::SCAN, HOW_LONG[1]},
    {UNPLUGGED, "-", When::GUIDE, HOW_LONG[2]},
    {SIGNALS, "-", When::START, HOW_LONG[2]},
};

// "2/8": the third of eight parts of all rows.
bool is_wanted(size_t index, const std::string& part) {
  const size_t slash = part.find('/');
  return slash != std::string::npos && index % std::stoul(part.substr(slash + 1)) == std::stoul(part.substr(0, slash));
}

}  // namespace

TEST_P(Fault_matrix, loses_nothing_and_leaves_a_receiver_that_works) {
  const char* const part = std::getenv("KELVO_FAULTS");
  if (part == nullptr) {
    for (const Row& row : SMOKE)
      expect_good(row, run(row));
    return;
  }
  const std::vector<Row> rows = all_rows();
  for (size_t i = 0; i < rows.size(); ++i) {
    if (!is_wanted(i, part))
      continue;
    const Row& row = rows[i];
    const Seen seen = run(row);
    expect_good(row, seen);
    std::printf("ROW|%s|%s|%s|%s|%s|%s|%s|%s|%s|%s\n", GetParam(), row.call.c_str(), row.error.c_str(),
                WHEN[static_cast<int>(row.when)], row.how_long.name, seen.answer.c_str(), seen.outcome.c_str(),
                seen.kept ? "kept" : "CHANGED", seen.afterwards.c_str(), seen.message.c_str());
    std::fflush(stdout);
  }
}

// The first filters of a scan: of the box it then sees nothing.
TEST_P(Fault_matrix, filters_that_are_refused_once_are_set_again_where_the_profile_says_so) {
  for (const char* call : {"DMX_SET_FILTER", "DMX_START"}) {
    SCOPED_TRACE(call);
    begin_with_good();
    with_host([&](Host& host) {
      host.connect();
      support::softdvb_control(std::string("fault ") + call + " = EBUSY*3");
      EXPECT_EQ(host.scan(), "");
      EXPECT_EQ(host.answer(), profile_.set_filters_again ? "0" : "-1");
      EXPECT_EQ(host.outcome(), profile_.set_filters_again ? "complete" : "no stream");
      support::softdvb_control("clear faults");
      EXPECT_TRUE(finds_everything(host));
    });
  }
}

// --- Disk ------------------------------------------------------------------------------------------------------------

namespace {

// A small disk of its own, on an empty folder.
class Disk {
 public:
  explicit Disk(const std::string& folder) : folder_(folder) {
    std::filesystem::create_directories(folder);
    mounted_ = mount("none", folder.c_str(), "tmpfs", 0, "size=1m") == 0;
  }
  ~Disk() {
    if (mounted_) {
      EXPECT_EQ(umount2(folder_.c_str(), MNT_DETACH), 0);
    }
  }
  Disk(const Disk&) = delete;
  Disk& operator=(const Disk&) = delete;

  bool is_mounted() const { return mounted_; }
  void leave_kilobytes(uintmax_t kilobytes) const {
    const uintmax_t left = std::filesystem::space(folder_).available;
    support::write_file(filler(), std::string(left - std::min(left, kilobytes * 1024), 'x'));
  }
  void make_room() const { std::filesystem::remove(filler()); }

 private:
  std::string filler() const { return folder_ + "/filler"; }

  const std::string folder_;
  bool mounted_ = false;
};

}  // namespace

TEST_P(Fault_matrix, loses_nothing_on_a_full_disk) {
  const std::string now = folder_.path() + "/now";
  std::filesystem::remove_all(now);
  if (!Disk(now).is_mounted())
    GTEST_SKIP() << "only root can make a small disk";
  const char* const part = std::getenv("KELVO_FAULTS");
  constexpr uintmax_t MOST_KILOBYTES = 64;
  int tried = 0;
  for (uintmax_t kilobytes = 0; kilobytes <= MOST_KILOBYTES; kilobytes += part != nullptr ? 1 : 21) {
    if (part != nullptr && !is_wanted(kilobytes, part))
      continue;
    for (const bool known : {true, false}) {
      const std::string legend = std::to_string(kilobytes) + " KB, " + (known ? "known" : "new") + " services";
      const Disk disk(now);
      ASSERT_TRUE(disk.is_mounted());
      if (known)
        std::filesystem::copy(folder_.path() + "/good", now, std::filesystem::copy_options::recursive);
      with_host([&](Host& host) {
        disk.leave_kilobytes(kilobytes);
        host.connect();
        for (int scans = 0; scans < 2; ++scans) {
          EXPECT_EQ(host.scan(), "") << legend;
          EXPECT_NE(host.answer(), "HANGS") << legend;
          std::this_thread::sleep_for(GUIDE_PHASE / 2);
        }
        EXPECT_TRUE(host.is_sound()) << legend;
        if (known) {
          EXPECT_EQ(missing(host.stored()), "") << legend;
        }
        EXPECT_EQ(half_stored(host.stored()), "") << legend;
        disk.make_room();
        bool all = false;
        for (int scans = 0; scans < 20 && !all; ++scans) {
          all = finds_everything(host);
          if (!all)
            std::this_thread::sleep_for(GUIDE_PHASE);
        }
        EXPECT_TRUE(all) << legend << ", with room again: " << testing::PrintToString(host.stored());
      });
      ++tried;
    }
  }
  if (part != nullptr)
    std::printf("TRIED|full disks, %s|%d\n", GetParam(), tried);
}

// --- Files -----------------------------------------------------------------------------------------------------------

namespace {

// What another program does to the files of a folder before they are opened, or while they are open, and how it is put
// right. Beside them lies a copy of the channels, copy.db.
struct File_fault {
  const char* name;
  bool while_open;
  void (*make)(const std::string& folder);
  void (*undo)(const std::string& folder);  // null: nothing has to be
  const char* exception = "";               // of the opening
  // A part of what is printed by `box` and by any_linux; empty for nothing that is unusual, SOMETIMES before it where
  // it hangs on whether the guide changes meanwhile.
  const char* box_message = "";
  const char* message = "";
  bool only_durable = false;  // else nothing is printed
};

void run_sql(const std::string& file, const std::string& sql) {
  EXPECT_EQ(support::Other_connection(file).run(sql), SQLITE_DONE) << sql;
}

void put_folder(const std::string& file) {
  std::filesystem::rename(file, file + ".away");
  std::filesystem::create_directory(file);
}

void put_link(const std::string& file) {
  std::filesystem::rename(file, file + ".away");
  std::filesystem::create_symlink(file + ".away", file);
}

// What was put there must still be it, and a folder empty.
void put_back(const std::string& file) {
  EXPECT_TRUE(std::filesystem::is_symlink(file) || std::filesystem::is_directory(file)) << file;
  std::filesystem::remove(file);
  std::filesystem::rename(file + ".away", file);
}

// For root, too.
void make_read_only(const std::string& path) {
  EXPECT_EQ(mount(path.c_str(), path.c_str(), nullptr, MS_BIND, nullptr), 0);
  EXPECT_EQ(mount(nullptr, path.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
}

void make_writable(const std::string& path) {
  EXPECT_EQ(umount2(path.c_str(), MNT_DETACH), 0);
}

constexpr char SOMETIMES = '?';
constexpr char PROTECTED[] = "attempt to write a readonly database";
constexpr char GUIDE_PROTECTED[] = "?attempt to write a readonly database";
constexpr char MOVED[] = "ERROR: Another program has moved or replaced the file: the channels of 506000000 Hz are not ";
constexpr char CUT[] = "ERROR: SQL_exec: 11 @ create_temp_tables";
constexpr char NO_FILE[] = "Unable to open file";

const File_fault FILE_FAULTS[] = {
    {"the folder is missing", false,
     [](const std::string& folder) { std::filesystem::rename(folder, folder + "-away"); },
     [](const std::string& folder) { std::filesystem::rename(folder + "-away", folder); }, NO_FILE},
    {"the channels are a link", false, [](const std::string& folder) { put_link(folder + "/dvb.db"); },
     [](const std::string& folder) { put_back(folder + "/dvb.db"); }},
    {"the guide is a link", false, [](const std::string& folder) { put_link(folder + "/dvb_epg.db"); },
     [](const std::string& folder) { put_back(folder + "/dvb_epg.db"); }},
    {"the channels are a folder", false, [](const std::string& folder) { put_folder(folder + "/dvb.db"); },
     [](const std::string& folder) { put_back(folder + "/dvb.db"); }, NO_FILE},
    {"the guide is a folder", false, [](const std::string& folder) { put_folder(folder + "/dvb_epg.db"); },
     [](const std::string& folder) { put_back(folder + "/dvb_epg.db"); }, "Unable to open epg file %s"},
    {"the channels can only be read", false, [](const std::string& folder) { make_read_only(folder + "/dvb.db"); },
     [](const std::string& folder) { make_writable(folder + "/dvb.db"); }, "", PROTECTED, PROTECTED},
    {"the guide can only be read", false, [](const std::string& folder) { make_read_only(folder + "/dvb_epg.db"); },
     [](const std::string& folder) { make_writable(folder + "/dvb_epg.db"); }, "", GUIDE_PROTECTED, GUIDE_PROTECTED},
    {"the folder can only be read", false, make_read_only, make_writable, "", PROTECTED, PROTECTED},
    {"the channels lack a column", false,
     [](const std::string& folder) { run_sql(folder + "/dvb.db", "ALTER TABLE kanalid RENAME lcn TO old"); },
     [](const std::string& folder) { run_sql(folder + "/dvb.db", "ALTER TABLE kanalid RENAME old TO lcn"); }, "", "",
     "no such column: lcn"},
    {"the guide lacks a column", false,
     [](const std::string& folder) { run_sql(folder + "/dvb_epg.db", "ALTER TABLE epglist RENAME ev_id TO old"); },
     [](const std::string& folder) { run_sql(folder + "/dvb_epg.db", "ALTER TABLE epglist RENAME old TO ev_id"); }, "",
     "no such column: ev_id", "no such column: ev_id"},
    {"the channels have no indexes", false,
     [](const std::string& folder) {
       const std::string file = folder + "/dvb.db";
       for (const std::string& name : support::Other_connection(file).rows(
                "SELECT name FROM sqlite_master WHERE type = 'index' AND sql IS NOT NULL AND tbl_name = 'kanalid'"))
         run_sql(file, "DROP INDEX " + name);
     },
     nullptr},
    {"the channels are moved away", true,
     [](const std::string& folder) { std::filesystem::rename(folder + "/dvb.db", folder + "/away.db"); },
     [](const std::string& folder) { std::filesystem::rename(folder + "/away.db", folder + "/dvb.db"); }, "", MOVED,
     MOVED, true},
    {"the guide is moved away", true,
     [](const std::string& folder) { std::filesystem::rename(folder + "/dvb_epg.db", folder + "/away.db"); },
     [](const std::string& folder) { std::filesystem::rename(folder + "/away.db", folder + "/dvb_epg.db"); }, "",
     GUIDE_PROTECTED, GUIDE_PROTECTED, true},
    {"another file is moved over the channels", true,
     [](const std::string& folder) { std::filesystem::rename(folder + "/copy.db", folder + "/dvb.db"); }, nullptr, "",
     MOVED, MOVED, true},
    {"the channels are cut", true,
     [](const std::string& folder) { EXPECT_EQ(truncate((folder + "/dvb.db").c_str(), 8192), 0); },
     [](const std::string& folder) { std::filesystem::rename(folder + "/copy.db", folder + "/dvb.db"); }, "", CUT, CUT},
};

}  // namespace

// Who has put such a fault right finds everything there, and the next scan works.
TEST_P(Fault_matrix, loses_nothing_to_files_that_others_move_or_protect) {
  const std::string now = folder_.path() + "/now";
  const bool mounts = Disk(folder_.path() + "/disk").is_mounted();
  for (const File_fault& fault : FILE_FAULTS)
    for (const Durability durability : {Durability::NONE, Durability::FULL}) {
      const bool durable = durability == Durability::FULL;
      SCOPED_TRACE(std::string(fault.name) + (durable ? ", durable" : ""));
      const bool is_protected = std::string(fault.name).find("only be read") != std::string::npos;
      if (durable && !fault.while_open && !is_protected)
        continue;  // found, or not, before there is a log
      if (!mounts && is_protected) {
        std::printf("only root can protect files: %s is not tried\n", fault.name);
        continue;
      }
      begin_with_good();
      std::filesystem::copy_file(now + "/dvb.db", now + "/copy.db");
      if (!fault.while_open)
        fault.make(now);
      std::string exception, unusual;
      try {
        with_host(
            [&](Host& host) {
              if (fault.while_open)
                fault.make(now);
              host.connect();
              EXPECT_EQ(host.scan(), "");
              EXPECT_NE(host.answer(), "HANGS");
              std::this_thread::sleep_for(GUIDE_PHASE / 4);
              for (const std::string& message : host.messages())
                if (usual_.count(without_numbers(message)) == 0 && message.starts_with("ERROR"))
                  unusual += message + "\n";
            },
            durability);
      } catch (const no_file_error& error) {
        exception = error.what();
      }
      EXPECT_EQ(exception, fault.exception);
      std::string expected = profile_.refresh ? fault.message : fault.box_message;
      if (fault.only_durable && !durable)
        expected.clear();
      const bool sometimes = expected.starts_with(SOMETIMES);
      expected.erase(0, sometimes ? 1 : 0);
      if (!sometimes || !unusual.empty()) {
        EXPECT_THAT(unusual, testing::HasSubstr(expected));
        EXPECT_EQ(unusual.empty(), expected.empty()) << unusual;
      }
      EXPECT_LE(support::count_of(unusual, MOVED), 3U) << "tried again and again";
      if (fault.undo != nullptr)
        fault.undo(now);
      with_host(
          [&](Host& host) {
            EXPECT_EQ(missing(host.stored()), "");
            EXPECT_TRUE(host.is_sound());
            host.connect();
            EXPECT_EQ(recover(host), "works");
          },
          durability);
    }
}

// --- Memory ----------------------------------------------------------------------------------------------------------

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* old, size_t size);

void* malloc(size_t size) {
  if (!allocation_fails())
    return __libc_malloc(size);
  errno = ENOMEM;
  return nullptr;
}

void* calloc(size_t count, size_t size) {
  if (!allocation_fails())
    return __libc_calloc(count, size);
  errno = ENOMEM;
  return nullptr;
}

void* realloc(void* old, size_t size) {
  if (!allocation_fails())
    return __libc_realloc(old, size);
  errno = ENOMEM;
  return nullptr;
}
}

TEST_P(Fault_matrix, survives_each_allocation_that_fails) {
  const char* const part = std::getenv("KELVO_FAULTS");
  const long all = run_without_memory(0);
  EXPECT_GT(all, 100);
  constexpr long SMOKE_ALLOCATIONS = 12;
  const long step = part != nullptr ? 1 : all / SMOKE_ALLOCATIONS;
  long tried = 0;
  for (long number = 1; number <= all && !HasFailure(); number += step) {
    if (part != nullptr && !is_wanted(static_cast<size_t>(number), part))
      continue;
    if (part != nullptr) {
      std::printf("allocation %ld\n", number);
      std::fflush(stdout);
    }
    run_without_memory(number);
    ++tried;
  }
  if (part != nullptr)
    std::printf("TRIED|failing allocations of a scan, %s|%ld\n", GetParam(), tried);
}

// Its first allocations are those of the scan that it is going to make, before there is one that could be given up.
TEST_P(Fault_matrix, a_worker_that_begins_without_memory_begins_later) {
  constexpr long OF_BEGINNING = 8;
  begin_with_good();
  is_host = true;
  with_host([&](Host& host) {
    for (long number = 1; number <= OF_BEGINNING && !HasFailure(); ++number) {
      host.disconnect();
      allocations = 0;
      of_library_only = true;
      failing_allocation = number;
      host.connect();
      std::string answer = host.scan();
      if (answer.empty())
        answer = host.answer();
      failing_allocation = 0;
      of_library_only = false;
      EXPECT_THAT(answer, testing::AnyOf("0", "-1")) << "allocation " << number;
      EXPECT_EQ(missing(host.stored()), "") << "allocation " << number;
      EXPECT_EQ(recover(host), "works") << "allocation " << number;
    }
  });
  is_host = false;
}

// While a request is taken over, no scan is open yet that could be given up.
TEST_P(Fault_matrix, a_request_that_begins_without_memory_is_answered) {
  constexpr long OF_BEGINNING = 24;
  begin_with_good();
  with_host([&](Host& host) {
    int refused = 0;
    for (long number = 1; number <= OF_BEGINNING && !HasFailure(); number += 2) {
      host.disconnect();
      host.connect();  // of its first request nothing is left of another that could be answered instead
      failing_of_beginning = number;
      std::string answer = host.scan();
      if (answer.empty())
        answer = host.answer();
      failing_of_beginning = 0;
      failing_allocation = 0;
      of_worker_only = false;
      EXPECT_THAT(answer, testing::AnyOf("0", "-1")) << "allocation " << number;
      EXPECT_TRUE(answer == "-1" || host.outcome() == "complete") << "allocation " << number << ' ' << host.outcome();
      refused += answer == "-1" ? 1 : 0;
      EXPECT_EQ(recover(host), "works") << "allocation " << number;
    }
    EXPECT_GT(refused, 0);
  });
}

#endif
