// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// A host's threads do at random what any thread may do, on four adapters with one database; and Kelvos are destroyed at
// random moments. A little of it by default; `make threads` does it for long, also under ThreadSanitizer.
#include <cmath>
#include <shared_mutex>

#include "kelvo/channel_lookup.h"
#include "kelvo/kelvo.h"
#include "kelvo/now_and_next.h"
#include "support/database.h"
#include "support/softdvb.h"
#include "support/support.h"
#include "support/test.h"
#include "support/text.h"

namespace {

constexpr int ADAPTERS = 4;
constexpr int HOST_THREADS = 6;
constexpr int CONNECTOR = 3;
constexpr int TYPE = 1;
// Half of the adapters have a tuner always. The others are without one now and then, and whatever they receive then
// counts as the frequency that is asked for: so there is one.
bool keeps_tuner(int adapter) {
  return adapter % 2 == 0;
}
constexpr int FREQS[] = {506000000, 514000000};
constexpr int ONLY_FREQ = 530000000;
constexpr int SILENT_FREQ = 522000000;
constexpr std::chrono::minutes PATIENCE{60};  // of the adapters' time

using Clock = std::chrono::steady_clock;
using Random = std::minstd_rand;

int from_environment(const char* name, int usual) {
  const char* const given = getenv(name);
  return given != nullptr ? std::max(1, atoi(given)) : usual;
}

unsigned seed() {
  return static_cast<unsigned>(from_environment("KELVO_SEED", 20261122));
}

int below(int limit, Random& random) {
  return std::uniform_int_distribution<int>(0, limit - 1)(random);
}

bool one_in(int n, Random& random) {
  return below(n, random) == 0;
}

int any_freq(int adapter, Random& random) {
  if (!keeps_tuner(adapter))
    return ONLY_FREQ;
  return one_in(8, random) ? SILENT_FREQ : FREQS[below(2, random)];
}

// What went wrong, each kind once, with how often.
class Problems {
 public:
  void add(const std::string& what) {
    const std::lock_guard lock(lock_);
    ++found_[what];
  }
  std::map<std::string, int> found() {
    const std::lock_guard lock(lock_);
    return found_;
  }

 private:
  std::mutex lock_;
  std::map<std::string, int> found_;
};

// What was done and told; relaxed, so that counting puts the threads that count into no order.
struct Tally {
  std::atomic<int> operations{0};
  std::atomic<int> destroyed{0};
  std::atomic<int> merges{0};
  std::atomic<int> merged_again{0};  // that another connection, an export's, had kept from the file
  std::atomic<int> ends{0};
  std::atomic<int> answers{0};
  std::atomic<int> exports{0};
  std::atomic<int> times{0};
  std::atomic<int> events{0};
};

void count(std::atomic<int>& counter) {
  counter.fetch_add(1, std::memory_order_relaxed);
}

thread_local bool is_of_test = false;

class Life;

struct Asked {
  Life* life;
  std::atomic<int> answers{0};
  std::atomic<int> result{0};
};

// What one Kelvo has told. But for the requests, which hosts make, and the signal's events all of it belongs to the
// worker: it is not locked, so that ThreadSanitizer sees it when something comes from elsewhere.
class Life {
 public:
  Life(int adapter, unsigned its_seed, Problems& problems, Tally& tally, std::atomic<bool>& acting)
      : adapter_(adapter), random_(its_seed), problems_(problems), tally_(tally), acting_(acting) {}

  void listen_to(Kelvo& kelvo) {
    kelvo_ = &kelvo;
    kelvo.set_activity_listener({[](void* self, int kind, int value) { life(self).on_activity(kind, value); }, this});
    kelvo.set_scan_listener(on_end, this);
  }

  Asked* new_request() {
    const std::lock_guard lock(lock_);
    requests_.push_back(std::make_unique<Asked>());
    requests_.back()->life = this;
    return requests_.back().get();
  }
  static void on_answer(void* data, int result) {
    auto& asked = *static_cast<Asked*>(data);
    asked.life->from_worker("an answer");
    asked.result = result;
    if (++asked.answers != 1)
      asked.life->problems_.add("a request was answered twice");
    count(asked.life->tally_.answers);
    asked.life->act();
  }

  // Two that do the same: hosts exchange them.
  static void on_end(void* self, const Scan_end& end) { life(self).note_end(end); }
  static void on_end_too(void* self, const Scan_end& end) { life(self).note_end(end); }
  static void on_time(void* self, const Broadcast_time& /*time*/) {
    life(self).from_worker("a time");
    count(life(self).tally_.times);
  }
  static void on_guide(void* self, const std::vector<Guide_change>& changes) {
    life(self).from_worker("a change of the guide");
    if (changes.empty())
      life(self).problems_.add("a change of the guide without any");
    life(self).act();
  }
  static void on_device(void* self, const Device_event& /*event*/) { life(self).from_worker("a device's event"); }
  void on_change(int code) {
    from_worker("a change");
    if (code == DB_EXPORTED)
      count(tally_.exports);
    act();
  }

  // So that nothing is asked for by a callback once the test has said so.
  void stop_acting() {
    const std::lock_guard lock(acting_lock_);
    acting_ = false;
  }

  // After the destruction.
  void is_over() {
    over_ = true;
    if (untold_ != 0)
      problems_.add("a merge was not told");
  }

 private:
  static Life& life(void* self) { return *static_cast<Life*>(self); }

  void from_worker(const char* what) {
    if (over_)
      problems_.add(std::string(what) + " came after the destruction");
    if (is_of_test)
      problems_.add(std::string(what) + " came on a host's thread");
    if (worker_ == std::thread::id())
      worker_ = std::this_thread::get_id();
    else if (worker_ != std::this_thread::get_id())
      problems_.add(std::string(what) + " came on another thread than the ones before");
  }

  void on_activity(int kind, int value) {
    if (kind == ACTIVITY_MERGE_BEGIN) {
      from_worker("a merge");
      if (untold_ != 0)
        problems_.add("a merge was not told");
      if (merged_)
        count(tally_.merged_again);
      count(tally_.merges);
    } else if (kind == ACTIVITY_MERGE_END) {
      merged_ = true;
      untold_ = value;
    }
  }

  void note_end(const Scan_end& end) {
    from_worker("an end");
    count(tally_.ends);
    if (end.adapter != adapter_)
      problems_.add("an end was told of another adapter");
    if (end.merged && !merged_)
      problems_.add("a merge was told twice");
    if (end.changes != (end.merged ? untold_ : 0))
      problems_.add("an end with changes " + std::to_string(end.changes) + " for those of the merge, " +
                    std::to_string(untold_));
    if (!end.merged && untold_ != 0)
      problems_.add("a merge with changes was told as none");
    merged_ = false;
    untold_ = 0;
    act();
  }

  // What callbacks may do as well.
  void act() {
    if (!one_in(6, random_))
      return;
    const std::lock_guard lock(acting_lock_);
    if (!acting_)
      return;
    std::vector<EIT_progress> progress;
    std::vector<Lost_sections> lost;
    switch (below(6, random_)) {
      case 0:
        (void)kelvo_->tune_to_freq(any_freq(adapter_, random_), new_request(), on_answer);
        break;
      case 1:
        (void)kelvo_->tune_to_freq(any_freq(adapter_, random_), 1 + below(6, random_), nullptr, nullptr);
        break;
      case 2:
        kelvo_->set_scan(true);
        break;
      case 3:
        kelvo_->eit_progress(&progress);
        break;
      case 4:
        kelvo_->lost_sections(&lost);
        break;
      default:
        (void)kelvo_->signal();
        break;
    }
  }

  const int adapter_;
  Random random_;
  Problems& problems_;
  Tally& tally_;
  std::atomic<bool>& acting_;
  std::mutex acting_lock_;
  Kelvo* kelvo_ = nullptr;
  std::mutex lock_;  // guards the requests
  std::vector<std::unique_ptr<Asked>> requests_;
  std::thread::id worker_;
  bool merged_ = false;
  int untold_ = 0;  // what the last merge changed
  std::atomic<bool> over_{false};
};

// One adapter: a Kelvo that is destroyed and made anew.
struct Adapter {
  std::shared_mutex lock;           // shared by those who use the Kelvo
  std::atomic<bool> wanted{false};  // somebody is about to destroy it: nobody else is to come
  std::unique_ptr<Kelvo> kelvo;
  std::unique_ptr<Life> life;
};

std::array<std::atomic<Life*>, ADAPTERS> changes_of;  // change callbacks have no data

template <int N>
void on_change(int code) {
  changes_of[N].load()->on_change(code);
}
constexpr Kelvo::change_callback_t CHANGE_CALLBACKS[ADAPTERS] = {on_change<0>, on_change<1>, on_change<2>,
                                                                 on_change<3>};

std::atomic<int> signal_events{0};

void on_signal(unsigned, void*) {
  count(signal_events);
}

struct Place {
  int adapter;
  Kelvo& kelvo;
  Life& life;
  Sdbl& database;
  const std::string& folder;
};

struct Operation {
  int weight;
  void (*run)(const Place& at, Random& random);
};

std::string copy_in(const std::string& folder, Random& random) {
  return folder + (one_in(2, random) ? "/one.db" : "/two.db");
}

const Operation OPERATIONS[] = {
    {6,
     [](const Place& at, Random& random) {
       (void)at.kelvo.tune_to_freq(any_freq(at.adapter, random), at.life.new_request(), Life::on_answer);
     }},
    {1, [](const Place& at,
           Random& random) { (void)at.kelvo.tune_to_freq(any_freq(at.adapter, random), nullptr, nullptr); }},
    {3,
     [](const Place& at, Random& random) {
       (void)at.kelvo.tune_to_freq(any_freq(at.adapter, random), 1 + below(6, random), nullptr, nullptr);
     }},
    {3,
     [](const Place& at, Random& random) { at.kelvo.watch_again(any_freq(at.adapter, random), 1 + below(6, random)); }},
    {1, [](const Place& at, Random&) { at.kelvo.cancel_tuning(); }},
    {3, [](const Place& at, Random&) { at.kelvo.set_scan(false); }},
    {12, [](const Place& at, Random&) { at.kelvo.set_scan(true); }},
    {1, [](const Place& at, Random&) { at.kelvo.set_tuner(keeps_tuner(at.adapter)); }},
    {12, [](const Place& at, Random&) { at.kelvo.set_tuner(true); }},
    {3,
     [](const Place& at, Random& random) {
       (void)at.kelvo.export_db(copy_in(at.folder, random).c_str(), true);
       (void)at.kelvo.export_db_in_progress();
     }},
    {2, [](const Place& at, Random& random) { at.kelvo.export_channel_db(copy_in(at.folder, random).c_str()); }},
    {12,
     [](const Place& at, Random&) {
       std::vector<EIT_progress> progress;
       at.kelvo.eit_progress(&progress);
       std::vector<Lost_sections> lost;
       at.kelvo.lost_sections(&lost);
     }},
    {12,
     [](const Place& at, Random&) {
       (void)(at.kelvo.fe_freq() + at.kelvo.fe_status());
       (void)(at.kelvo.fe_strength() + at.kelvo.fe_snr() + at.kelvo.fe_ber());
       (void)at.kelvo.signal();
       (void)at.kelvo.last_tuning();
       (void)at.kelvo.frontend_state();
       (void)at.kelvo.time_valid();
       (void)at.kelvo.get_msg_state();
     }},
    {8,
     [](const Place& at, Random& random) {
       at.kelvo.set_scan_listener(one_in(2, random) ? Life::on_end : Life::on_end_too, &at.life);
       at.kelvo.set_time_listener(one_in(2, random) ? Life::on_time : nullptr, &at.life);
       at.kelvo.set_guide_listener(one_in(2, random) ? Life::on_guide : nullptr, &at.life);
       at.kelvo.set_device_listener(one_in(2, random) ? Life::on_device : nullptr, &at.life);
       at.kelvo.set_stb_event_callback(one_in(2, random) ? on_signal : nullptr);
     }},
    {4,
     [](const Place& at, Random& random) {
       if (one_in(3, random))
         at.kelvo.disable_tunerevents();
       else
         (void)at.kelvo.reset_signal_monitor();
     }},
    {12,
     [](const Place& at, Random& random) {  // now and next, and what else a host shows of a channel
       const int channel = 1 + below(6, random);
       int entry = 0;
       std::string name;
       (void)at.database.eit_info_available(channel);
       if (at.database.sql_get_int(
               &entry, 0, "SELECT entry FROM epglist WHERE channel = %d AND start_epoch > 0 ORDER BY start_epoch",
               channel) == 0)
         (void)at.database.sql_get_txt(&name, 0, "SELECT ev_name FROM epglist_lang WHERE source_oid = %d", entry);
       std::vector<Listed_channel> listed;
       (void)Channel_lookup(&at.database).by_name("tv", &listed);
       Now_next shown;
       (void)Now_and_next(&at.database).read(channel, {"est"}, &shown);
       (void)at.database.get_freq(channel);
       (void)at.database.read_streams(channel);
       std::vector<CA_pid*> pids;
       (void)at.database.fill_pids_for_channel(channel, &pids);
       for (const CA_pid* pid : pids)
         delete pid;
       Database_error error;
       (void)at.database.first_error(&error);
     }},
    {1, [](const Place& at, Random& random) { (void)at.database.remove_old_entries(86400, one_in(2, random)); }},
};

// What a process has that a Kelvo that has gone might leave behind.
struct Belongings {
  int threads;
  int descriptors;
  int timers;
  bool operator==(const Belongings& other) const {
    return threads == other.threads && descriptors == other.descriptors && timers == other.timers;
  }
};

std::ostream& operator<<(std::ostream& out, const Belongings& some) {
  return out << some.threads << " threads, " << some.descriptors << " descriptors, " << some.timers << " timers";
}

int entries_of(const char* folder) {
  const std::filesystem::directory_iterator entries(folder);
  return static_cast<int>(std::distance(begin(entries), end(entries)));
}

// The adapter keeps the streams that it has played.
int descriptors() {
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    count += std::filesystem::read_symlink(entry.path(), gone).extension() != ".ts";
  }
  return count;
}

Belongings belongings() {
  return {entries_of("/proc/self/task"), descriptors(),
          static_cast<int>(support::count_of(support::read_file("/proc/self/timers"), "notify:"))};
}

class Threads : public testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    ASSERT_TRUE(support::under_softdvb());
    Kelvo::set_message_listener(
        {[](void* self, int, const char* text) { static_cast<Threads*>(self)->take_message(text); }, this, VERB_ERROR,
         false});
    profile_ = std::string(GetParam()) == "box" ? Receiver_profile::box() : Receiver_profile::any_linux();
    // ThreadSanitizer begins one of its own with the first. A joined thread leaves /proc a moment later.
    pid_t first = 0;
    std::thread([&] { first = gettid(); }).join();
    ASSERT_TRUE(support::wait_for([&] { return !std::filesystem::exists("/proc/self/task/" + std::to_string(first)); },
                                  PATIENCE));
    const int threads = entries_of("/proc/self/task");
    // What the first of its kind makes for all.
    open();
    for (int n = 0; n < ADAPTERS; ++n) {
      make(n, n);
      destroy(n);
    }
    database_.reset();
    EXPECT_TRUE(support::wait_for([&] { return entries_of("/proc/self/task") == threads; }, PATIENCE));
    before_ = belongings();
    open();
  }

  void TearDown() override {
    for (int n = 0; n < ADAPTERS; ++n)
      destroy(n);
    database_.reset();
    // A joined thread leaves /proc a moment later.
    const auto are_as_before = [this] {
      Belongings now = belongings();
      if (!profile_.watch_device)
        now.timers = before_.timers;  // slots without a handle leave theirs: docs/quirks.md
      return now == before_;
    };
    EXPECT_TRUE(support::wait_for(are_as_before, PATIENCE)) << belongings() << ", before " << before_;
    Kelvo::set_message_listener({});
    for (const auto& [what, times] : problems_.found())
      ADD_FAILURE() << what << ", " << times << " times";
    for (const char* file : {"dvb.db", "dvb_epg.db", "one.db", "two.db", "one_epg.db", "two_epg.db"})
      EXPECT_TRUE(is_missing_or_sound(file)) << file;
    if (HasFailure()) {
      std::cerr << "KELVO_SEED=" << seed() << "\n";
      for (const auto& [text, times] : messages_)
        std::cerr << times << " times " << text;
    }
    std::cout << GetParam() << ": " << tally_.operations << " operations, " << tally_.destroyed << " destroyed, "
              << tally_.ends << " ends, " << tally_.merges << " merges (" << tally_.merged_again << " again), "
              << tally_.answers << " answers, " << tally_.exports << " exports, " << tally_.times << " times, "
              << signal_events << " signal events\n";
  }

  void open() { database_ = std::make_unique<Sdbl>(folder_.file("dvb.db").c_str()); }

  // A new Kelvo in place of none.
  void make(int n, unsigned its_seed, bool tuner = true) {
    Adapter& adapter = adapters_[static_cast<size_t>(n)];
    adapter.life = std::make_unique<Life>(n, its_seed + 1, problems_, tally_, acting_);
    changes_of[static_cast<size_t>(n)] = adapter.life.get();
    adapter.kelvo = std::make_unique<Kelvo>(n, CONNECTOR, TYPE, database_.get(), tuner, CHANGE_CALLBACKS[n], profile_);
    adapter.life->listen_to(*adapter.kelvo);
  }

  void destroy(int n) {
    Adapter& adapter = adapters_[static_cast<size_t>(n)];
    if (adapter.kelvo == nullptr)
      return;
    adapter.kelvo.reset();
    adapter.life->is_over();
    old_lives_.add(std::move(adapter.life));
    count(tally_.destroyed);
  }

  void operate(int n, Random& random) {
    Adapter& adapter = adapters_[static_cast<size_t>(n)];
    static const int ALL = std::accumulate(std::begin(OPERATIONS), std::end(OPERATIONS), 0,
                                           [](int sum, const Operation& one) { return sum + one.weight; });
    int left = below(ALL, random);
    const Operation* operation = OPERATIONS;
    for (; left >= operation->weight; ++operation)
      left -= operation->weight;
    operation->run({n, *adapter.kelvo, *adapter.life, *database_, folder_.path()}, random);
    count(tally_.operations);
  }

  void replace(int n, Random& random) {
    Adapter& adapter = adapters_[static_cast<size_t>(n)];
    if (adapter.wanted.exchange(true))
      return;
    {
      const std::lock_guard lock(adapter.lock);
      destroy(n);
      make(n, static_cast<unsigned>(random()), keeps_tuner(n) || !one_in(4, random));
    }
    adapter.wanted = false;
  }

  void use(int n, Random& random) {
    Adapter& adapter = adapters_[static_cast<size_t>(n)];
    if (adapter.wanted)
      return;
    const std::shared_lock lock(adapter.lock);
    operate(n, random);
  }

  bool is_missing_or_sound(const char* name) const {
    const std::string file = folder_.file(name);
    return !std::filesystem::exists(file) ||
           support::Other_connection(file).rows("PRAGMA integrity_check") == support::Texts{"ok"};
  }

  // On a busy machine a lock or the first PAT may come too late, as they do to every host. Nothing else may end it.
  static bool tunes(Kelvo& kelvo, int freq, Asked* asked) {
    for (int i = 0; i < 20; ++i) {
      if (kelvo.tune_to_freq(freq, asked, Life::on_answer) == -1)
        return true;
      const int outcome = kelvo.last_tuning().outcome;
      if (outcome != TUNING_NO_SIGNAL && outcome != TUNING_NO_LOCK && outcome != TUNING_NO_STREAM) {
        ADD_FAILURE() << "ended as " << outcome;
        return false;
      }
    }
    return false;
  }

  // The receivers as they were left work, and the files have each thing once.
  void expect_that_all_is_well();

  Receiver_profile profile_;
  support::Temp_dir folder_;
  std::unique_ptr<Sdbl> database_;
  Problems problems_;
  Tally tally_;
  std::atomic<bool> acting_{true};
  std::array<Adapter, ADAPTERS> adapters_;

 private:
  // Kept, since something might still be told to them.
  class Old_lives {
   public:
    void add(std::unique_ptr<Life> life) {
      const std::lock_guard lock(lock_);
      lives_.push_back(std::move(life));
    }

   private:
    std::mutex lock_;
    std::vector<std::unique_ptr<Life>> lives_;
  };

  void take_message(const char* text) {
    const std::lock_guard lock(message_lock_);
    ++messages_[std::regex_replace(std::string(text), std::regex("[0-9]+"), "N")];
  }

  Old_lives old_lives_;
  Belongings before_{};
  std::mutex message_lock_;
  std::map<std::string, int> messages_;
};

void Threads::expect_that_all_is_well() {
  for (Adapter& adapter : adapters_)
    adapter.life->stop_acting();
  for (const int turn : {0, 1})
    for (int n = 0; n < ADAPTERS; ++n) {
      const int freq = keeps_tuner(n) ? FREQS[turn] : ONLY_FREQ;
      Adapter& adapter = adapters_[static_cast<size_t>(n)];
      adapter.kelvo->set_tuner(true);
      adapter.kelvo->set_scan(true);
      Asked* const asked = adapter.life->new_request();
      EXPECT_TRUE(tunes(*adapter.kelvo, freq, asked)) << n << ", " << freq;
      const auto end = Clock::now() + PATIENCE;
      while (!HasFailure() && asked->answers == 0 && Clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
      EXPECT_EQ(asked->answers, 1) << n << ", " << freq;
      EXPECT_EQ(asked->result, 0) << n << ", " << freq;
    }
  const std::pair<const char*, const char*> expected[] = {
      {"SELECT freq, pat_prnr, serv_name, lcn FROM kanalid WHERE scan_state = 1 ORDER BY 1, 2",
       "506000000|101|Laine TV|1 506000000|102|Luide Film|12 514000000|201|Teine TV|2 514000000|202|Kolmas|22 "
       "514000000|203|Raadio Laht|202 530000000|301|Neljas|31 "},
      {"SELECT pat_prnr, count(*), count(DISTINCT es_pid) FROM estreams JOIN kanalid USING (channel) "
       "WHERE scan_state = 1 GROUP BY 1",
       "101|2|2 102|2|2 201|2|2 202|2|2 203|1|1 301|2|2 "},
      {"SELECT channel FROM kanalid GROUP BY channel HAVING count(*) > 1", ""},
      {"SELECT freq, pat_prnr FROM kanalid GROUP BY 1, 2 HAVING count(*) > 1", ""},
      {"SELECT channel, start_epoch FROM epglist GROUP BY 1, 2 HAVING count(*) > 1", ""},
      {"SELECT source_oid, lang FROM epglist_lang GROUP BY 1, 2 HAVING count(*) > 1", ""},
      {"SELECT source_oid FROM epglist_lang WHERE source_oid NOT IN (SELECT entry FROM epglist)", ""},
  };
  for (const auto& [query, rows] : expected) {
    std::string text;
    for (const std::string& row : support::rows(support::conn_of(*database_), query))
      text += row + " ";
    EXPECT_EQ(text, rows) << query;
  }
}

INSTANTIATE_TEST_SUITE_P(, Threads, testing::Values("box", "any_linux"),
                         [](const auto& profile) { return std::string(profile.param); });

}  // namespace

// For KELVO_THREADS seconds of the adapters' time, and until everything has happened once.
TEST_P(Threads, of_a_host_may_use_destroy_and_make_kelvos_at_random) {
  for (int n = 0; n < ADAPTERS; ++n)
    make(n, seed() + static_cast<unsigned>(n));
  const auto begin = Clock::now();
  const auto end = begin + std::chrono::seconds(from_environment("KELVO_THREADS", 30));
  const auto is_over = [&] {
    const bool all_seen =
        tally_.merges > 4 && tally_.answers > 4 && tally_.exports > 2 && tally_.destroyed > 2 * ADAPTERS;
    return Clock::now() >= end && (all_seen || Clock::now() >= begin + PATIENCE);
  };
  std::vector<std::thread> hosts;
  for (unsigned i = 0; i < HOST_THREADS; ++i)
    hosts.emplace_back([&, i] {
      is_of_test = true;
      Random random(seed() + 1000 * (i + 1));
      while (!is_over()) {
        const int n = below(ADAPTERS, random);
        if (one_in(200, random))
          replace(n, random);
        else
          use(n, random);
        std::this_thread::sleep_for(std::chrono::milliseconds(below(200, random)));
      }
    });
  for (std::thread& host : hosts)
    host.join();
  EXPECT_GT(tally_.merges, 4);
  EXPECT_GT(tally_.answers, 4);
  EXPECT_GT(tally_.exports, 2);
  expect_that_all_is_well();
}

// KELVO_DESTRUCTIONS times each adapter, up to 4 s after the first operation.
TEST_P(Threads, may_destroy_a_kelvo_at_any_moment) {
  std::vector<std::thread> hosts;
  for (int n = 0; n < ADAPTERS; ++n)
    hosts.emplace_back([this, n] {
      is_of_test = true;
      Random random(seed() + 77 * static_cast<unsigned>(n));
      for (int i = from_environment("KELVO_DESTRUCTIONS", 8); i > 0; --i) {
        make(n, static_cast<unsigned>(random()), keeps_tuner(n) || !one_in(4, random));
        Adapter& adapter = adapters_[static_cast<size_t>(n)];
        if (!one_in(4, random))
          (void)adapter.kelvo->tune_to_freq(any_freq(n, random), adapter.life->new_request(), Life::on_answer);
        for (int more = below(4, random); more > 0; --more)
          operate(n, random);
        // Short times as often as long ones.
        const auto wait_us = static_cast<int64_t>(std::exp2(std::uniform_real_distribution<double>(0, 22)(random)));
        std::this_thread::sleep_for(std::chrono::microseconds(wait_us));
        destroy(n);
      }
    });
  for (std::thread& host : hosts)
    host.join();
  for (int n = 0; n < ADAPTERS; ++n)
    make(n, seed());
  expect_that_all_is_well();
}
