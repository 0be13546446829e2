// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>

#include <new>
#include <numeric>

#include "db_support.h"

using db_support::events_in;
using support::messages_at;
using support::prints_only_from;
using support::stderr_of;
using support::Texts;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

namespace {

class Epg : public db_support::Database_test {
 protected:
  Epg() { sc_.channel = 7; }
  ~Epg() override { clear(); }
  void clear() {
    for (EPG_cache* event : sc_.epg)
      delete event;
    sc_.epg.clear();
  }
  int lookup(int ev_id, int start, int duration) {
    return sdbl().lookup_epg_cache(&sc_.epg, ev_id, start, duration, &changed_, &overlap_);
  }
  // The result and what else it says.
  std::string looked_up(int ev_id, int start, int duration) {
    const int result = lookup(ev_id, start, duration);
    return std::to_string(result) + (changed_ ? " changed" : "") + (overlap_ ? " overlap" : "");
  }
  // What a number of look-ups print, of events of 50 seconds that begin `step` seconds after each other.
  std::string printed_by_lookups(int level, int number, int start = 100, int step = 0) {
    return messages_at(level, [&] {
      for (int i = 0; i < number; ++i)
        lookup(1, start + step * i, 50);
    });
  }
  int search(int t) { return sdbl().epg_cache_binary_search(&sc_.epg, t); }
  int store(long start, int duration, int ev_id = 1, bool replace = false, bool overlapping = false) {
    return sdbl().eit_for_service(1, 2, 506000000, 10, &sc_, 0x20100101, 0x000000, 0x003000, start, duration, 4, 1,
                                  ev_id, &content_, &rating_, replace, overlapping);
  }
  int text(int event, const char* lang, const char* name) {
    return sdbl().insert_epglist_lang(event, lang, name, "", "", "");
  }
  void forget() {
    clear();
    run("DELETE FROM epglist");
  }
  // As the guide does it.
  void look_up_and_store(int start, int duration) {
    lookup(1, start, duration);
    store(start, duration);
  }
  // What deleting the events of a range prints.
  std::string deleted(int level, bool trace, int from = 1000, int to = 1100) {
    return messages_at(level, [&] { EXPECT_EQ(sdbl().delete_epglist_range(7, from, to, trace, &sc_), 0); });
  }
  // An event of 1000 seconds that started at this distance from now, looked at before the second is over.
  void expect_not_running(long start) {
    for (int attempt = 0; attempt < 5; ++attempt) {
      run("DELETE FROM epglist");
      const long now = time(nullptr);
      store(now + start, 1000);
      const int available = sdbl().eit_info_available(7);
      if (time(nullptr) != now)
        continue;  // the clock went on meanwhile
      EXPECT_EQ(available, 0);
      return;
    }
    FAIL() << "the clock never stood still";
  }
  Texts events() { return rows("SELECT start_epoch, dur_sec FROM epglist ORDER BY start_epoch"); }

  SQL_cache sc_{};
  bool changed_ = false;
  bool overlap_ = false;
  std::string content_ = "4.1.0.0 ";
  std::string rating_ = "0c@EST ";
};

using Epg_cache = Epg;
using Epg_store = Epg;
using Epg_delete = Epg;

}  // namespace

TEST_F(Epg_cache, order_is_that_of_the_signed_starts_alone) {
  const EPG_cache events[] = {{INT_MIN, 0, 0}, {-5, 9, 100}, {0, 1, 5}, {0, 2, 7}, {5, 1, 1}, {INT_MAX, 0, 0}};
  for (const EPG_cache& a : events)
    for (const EPG_cache& b : events)
      EXPECT_EQ(cmp_epg_cache(&a, &b), a.start_epoch < b.start_epoch) << a.start_epoch << " and " << b.start_epoch;
}

TEST_F(Epg_cache, search_halves_and_takes_the_first_that_is_running) {
  const struct {
    const char* legend;
    std::vector<EPG_cache> cache;
    std::vector<int> times;
    std::vector<int> places;  // of the event that is running then
  } cases[] = {
      {"nothing is remembered", {}, {5}, {-1}},
      {"from its start to the second before its end",
       {{100, 1, 50}, {150, 2, 50}, {300, 3, 10}},
       {99, 100, 149, 150, 199, 200, 300, 310, INT_MIN, INT_MAX},
       {-1, 0, 0, 1, 1, -1, 2, -1, -1, -1}},
      {"middle one of three", {{0, 1, 1000}, {100, 2, 1000}, {200, 3, 1000}}, {250, 150, 50, 1150}, {1, 1, 0, 2}},
      {"lower one of two", {{0, 1, 1000}, {100, 2, 1000}, {200, 3, 1000}, {300, 4, 1000}}, {350}, {1}},
      {"none before later ends", {{0, 1, 1000}, {100, 2, 10}, {200, 3, 10}}, {50, 105, 500}, {0, 1, -1}},
      {"none without a duration",
       {{100, 1, 0}, {200, 2, -50}},
       {99, 100, 101, 149, 150, 199, 200},
       {-1, -1, -1, -1, -1, -1, -1}},
      {"ends beyond 32 bits", {{INT_MAX - 10, 1, INT_MAX}}, {INT_MAX}, {0}},
  };
  for (const auto& c : cases) {
    clear();
    for (const EPG_cache& event : c.cache)
      sc_.epg.push_back(new EPG_cache(event));
    std::vector<int> places;
    for (const int t : c.times)
      places.push_back(search(t));
    EXPECT_EQ(places, c.places) << c.legend;
  }
  clear();
  for (int i = 0; i < 100; ++i)
    sc_.epg.push_back(new EPG_cache{i * 10, i, 10});
  for (int i = 0; i < 100; ++i)
    EXPECT_EQ(search(i * 10 + 9), i) << "among many";
}

TEST_F(Epg_cache, a_null_entry_and_an_unassigned_cache_are_errors) {
  sc_.epg = {nullptr};
  changed_ = overlap_ = true;
  EXPECT_THAT([&] { EXPECT_EQ(search(5), -1); }, prints_only_from(0, "ERROR: ec is null"));
  EXPECT_THAT([&] { EXPECT_EQ(sdbl().lookup_epg_cache(nullptr, 1, 2, 3, &changed_, &overlap_), 0); },
              prints_only_from(0, MatchesRegex("ERROR: EPG cache is unassigned .+\n")));
  EXPECT_FALSE(changed_ || overlap_);
}

TEST_F(Epg_cache, quirk_low_addresses_count_as_unassigned) {
  auto* low = reinterpret_cast<std::vector<EPG_cache*>*>(uintptr_t{65534});
  EXPECT_EQ(stderr_of([&] { EXPECT_EQ(sdbl().lookup_epg_cache(low, 1, 2, 3, &changed_, &overlap_), 0); }),
            "ERROR: EPG cache is unassigned 0xfffe\n");
}

TEST_F(Epg_cache, the_lowest_address_that_a_program_can_have_is_a_cache) {
  using Cache = std::vector<EPG_cache*>;
  void* place = mmap(reinterpret_cast<void*>(uintptr_t{65536}), sizeof(Cache), PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
  if (place == MAP_FAILED)
    GTEST_SKIP() << "the address cannot be had";
  auto* cache = new (place) Cache;
  EXPECT_EQ(messages_at(0, [&] { sdbl().lookup_epg_cache(cache, 1, 100, 50, &changed_, &overlap_); }), "");
  EXPECT_EQ(events_in(*cache), (Texts{"100+50:1"}));
  for (EPG_cache* event : *cache)
    delete event;
  cache->~Cache();
  munmap(place, sizeof(Cache));
}

TEST_F(Epg_cache, the_same_slot_with_a_new_id_is_changed_in_place) {
  lookup(1, 100, 50);
  EPG_cache* const entry = sc_.epg[0];
  EXPECT_EQ(looked_up(2, 100, 50), "0 changed");
  EXPECT_EQ(sc_.epg, (std::vector<EPG_cache*>{entry}));
  EXPECT_EQ(events_in(sc_.epg), (Texts{"100+50:2"}));
  EXPECT_EQ(lookup(2, 100, 50), 1);
}

TEST_F(Epg_cache, look_ups_say_what_is_known_or_overlaps_and_are_remembered_in_order_of_start) {
  struct Look_up {
    int ev_id, start, duration;
    const char* result;
  };
  const auto expect = [&](const char* legend, const std::vector<Look_up>& look_ups, const Texts& cache) {
    SCOPED_TRACE(legend);
    clear();
    for (const Look_up& l : look_ups)
      EXPECT_EQ(looked_up(l.ev_id, l.start, l.duration), l.result) << l.start << "+" << l.duration;
    EXPECT_EQ(events_in(sc_.epg), cache);
  };
  const Look_up first = {1, 100, 50, "0"};
  expect("the same is known", {first, {1, 100, 50, "1"}}, {"100+50:1"});
  expect("inside, remembered", {first, {2, 120, 50, "0 overlap"}}, {"100+50:1", "120+50:2"});
  expect("begins before and reaches into it", {first, {2, 50, 200, "0"}}, {"50+200:2", "100+50:1"});
  expect("follows at once", {first, {2, 150, 50, "0"}}, {"100+50:1", "150+50:2"});
  expect("goes before at once", {first, {3, 50, 50, "0"}}, {"50+50:3", "100+50:1"});
  expect("another duration takes the place", {first, {1, 100, 60, "0 overlap"}}, {"100+60:1"});
  expect("several", {{1, 500, 10, "0"}, first, {2, 300, 10, "0"}, {3, -200, 10, "0"}, {4, 400, 10, "0"}},
         {"-200+10:3", "100+50:1", "300+10:2", "400+10:4", "500+10:1"});
  const Look_up inside = {2, 110, 10, "0 overlap"};
  expect("inside, repeatedly", {first, inside, inside, inside, inside, inside}, {"100+50:1", "110+10:2"});
  // The search never finds an event without a duration, and every look-up of it is a miss.
  const Look_up empty = {1, 100, 0, "0"};
  expect("without a duration, repeatedly", {empty, empty, empty, empty, empty}, {"100+0:1"});
  expect("another id without a duration", {empty, {2, 100, 0, "0"}}, {"100+0:1", "100+0:2"});
  const Look_up negative = {1, 100, -60, "0"}, other = {1, 100, -90, "0"};
  expect("one start and id, several durations", {empty, negative, other, empty, negative, other},
         {"100+0:1", "100+-60:1", "100+-90:1"});
}

TEST_F(Epg_cache, the_order_of_arrival_does_not_matter) {
  std::vector<int> starts = {-60, 0, 60, 120, 300};
  do {
    clear();
    for (const int start : starts)
      EXPECT_EQ(looked_up(start, start, 60), "0");
    EXPECT_EQ(events_in(sc_.epg), (Texts{"-60+60:-60", "0+60:0", "60+60:60", "120+60:120", "300+60:300"}));
    for (const int start : starts)
      EXPECT_EQ(lookup(start, start, 60), 1);
  } while (std::next_permutation(starts.begin(), starts.end()));
}

TEST_F(Epg_cache, thousands_of_events_are_all_found_again) {
  constexpr int EVENTS = 5000;
  std::vector<int> numbers(EVENTS);
  std::iota(numbers.begin(), numbers.end(), 0);
  std::mt19937 random(60000);
  const auto wrong = [&](const std::string& expected) {
    std::shuffle(numbers.begin(), numbers.end(), random);
    return std::count_if(numbers.begin(), numbers.end(),
                         [&](int i) { return looked_up(i & 0xFFFF, 1262304000 + 60 * i, 60) != expected; });
  };
  EXPECT_EQ(wrong("0"), 0);
  ASSERT_EQ(sc_.epg.size(), size_t{EVENTS});
  for (int i = 0; i < EVENTS; ++i)
    ASSERT_EQ(sc_.epg[static_cast<size_t>(i)]->start_epoch, 1262304000 + 60 * i);
  EXPECT_EQ(wrong("1"), 0);
  EXPECT_EQ(sc_.epg.size(), size_t{EVENTS});
}

TEST_F(Epg_cache, what_counts_as_a_hit_and_what_as_a_miss) {
  std::vector<EPG_cache*> other;
  EXPECT_EQ(messages_at(2,
                        [&] {
                          lookup(1, 1000, 100);  // new: a miss
                          lookup(1, 1000, 100);  // the same: a hit
                          lookup(2, 1000, 100);  // another id: a hit
                          lookup(3, 1050, 100);  // within the other: a miss
                          lookup(2, 1000, 90);   // another duration: a miss
                          lookup(4, 5000, 0);    // without one: a miss,
                          lookup(4, 5000, 0);    // each time
                          // of another service: a miss
                          sdbl().lookup_epg_cache(&other, 1, 1000, 100, &changed_, &overlap_);
                          for (int i = 8; i < 99; ++i)
                            lookup(2, 1000, 90);
                        }),
            "");
  EXPECT_EQ(messages_at(2, [&] { lookup(2, 1000, 90); }), "Epg cache hit 94, miss 6\n");
  delete other.front();
}

TEST_F(Epg_cache, every_look_up_is_traced_and_every_hundredth_reported) {
  EXPECT_EQ(printed_by_lookups(4, 1), "Lookup cachematch is 0\nepg cache entry inserted\n");
  EXPECT_EQ(printed_by_lookups(4, 1), "Lookup cachematch is 1\n");
  EXPECT_EQ(printed_by_lookups(3, 1), "");
  EXPECT_EQ(printed_by_lookups(2, 96), "");
  EXPECT_EQ(printed_by_lookups(2, 1), "Epg cache hit 99, miss 1\n");
  EXPECT_EQ(printed_by_lookups(1, 100), "");
  EXPECT_EQ(printed_by_lookups(2, 99, 1000, 50), "");
  EXPECT_EQ(messages_at(2, [&] { lookup(2, 100, 50); }), "Epg cache hit 200, miss 100\n");
}

TEST_F(Epg_store, an_event_is_stored_with_all_columns_and_traced) {
  EXPECT_EQ(messages_at(3, [&] { EXPECT_EQ(store(1262304000, 1800, 42), 1); }), "");
  EXPECT_EQ(rows("SELECT * FROM epglist"),
            (Texts{"1|7|2.5|537919745|0|1262304000|12288|1800|4.1.0.0 |0c@EST |4|1|42|10"}));
  EXPECT_THAT(messages_at(4, [&] { EXPECT_EQ(store(1262305800, 1800, 43), 2); }),
              StartsWith("Db event 43 freq 506000000 prnr 10 ymd 20100101 hms 0 dur 3000\n"));
}

TEST_F(Epg_store, a_second_event_of_the_same_start_is_refused) {
  store(1000, 60);
  EXPECT_THAT([&] { EXPECT_EQ(store(1000, 90), -1); }, prints_only_from(0, "ERROR: eit_for_service: rc is 2067\n"));
  EXPECT_EQ(events(), (Texts{"1000|60"}));
  EXPECT_EQ(store(2000, 90), 2);
}

TEST_F(Epg_store, negative_and_huge_values_are_refused_or_limited) {
  EXPECT_EQ(messages_at(-1, [&] { EXPECT_EQ(store(-1, 60), -1); }), "");
  EXPECT_EQ(messages_at(-1, [&] { EXPECT_EQ(store(1000, -60), -1); }), "");
  EXPECT_EQ(events(), Texts{});
  EXPECT_EQ(store(LONG_MAX, INT_MAX), 1);
  EXPECT_EQ(events(), (Texts{"2147483647|2147483647"}));
}

TEST_F(Epg_store, replacing_takes_the_place_of_the_event_of_that_start) {
  const int first = store(1000, 60, 1);
  int second = 0;
  EXPECT_EQ(messages_at(1, [&] { second = store(1000, 90, 2, true); }),
            "WARNING: Replacing event id channel 7, ymd_bcd 20100101, hms_bcd 0\n");
  EXPECT_GT(second, first);
  EXPECT_EQ(rows("SELECT * FROM epglist"),
            (Texts{std::to_string(second) + "|7|2.5|537919745|0|1000|12288|90|4.1.0.0 |0c@EST |4|1|2|10"}));
  EXPECT_EQ(messages_at(0, [&] { EXPECT_GT(store(1000, 60, 3, true), second); }), "");
  EXPECT_EQ(rows("SELECT dur_sec, ev_id FROM epglist"), (Texts{"60|3"}));
}

TEST_F(Epg_store, replacing_leaves_events_of_other_starts_and_services) {
  store(1000, 60, 1);
  EXPECT_EQ(store(2000, 60, 2, true), 2);
  sc_.channel = 8;
  store(1000, 60, 3, true);
  EXPECT_EQ(rows("SELECT channel, start_epoch, dur_sec, ev_id FROM epglist ORDER BY entry"),
            (Texts{"7|1000|60|1", "7|2000|60|2", "8|1000|60|3"}));
}

TEST_F(Epg_store, quirk_texts_of_a_replaced_event_stay) {
  const int first = store(1000, 60, 1);
  sdbl().insert_epglist_lang(first, "eng", "Name", "", "", "");
  store(1000, 90, 2, true);
  EXPECT_EQ(rows("SELECT source_oid, ev_name FROM epglist_lang"), (Texts{std::to_string(first) + "|Name"}));
}

TEST_F(Epg_store, overlapping_deletes_what_is_in_the_way) {
  for (const int start : {1000, 1060, 1120})
    store(start, 60);
  EXPECT_THAT(messages_at(1, [&] { EXPECT_GT(store(1030, 60, 9, false, true), 0); }),
              StartsWith("WARNING: Overlapping\n"));
  EXPECT_EQ(events(), (Texts{"1030|60", "1120|60"}));
  EXPECT_EQ(messages_at(0, [&] { EXPECT_GT(store(5000, 60, 9, false, true), 0); }), "");
}

// As the guide would do it: the look-up has remembered the new event before the old one goes.
TEST_F(Epg_store, an_event_over_a_remembered_one_takes_its_place) {
  const auto expect = [&](int ev_id, int start, int duration, const char* name, const std::string& printed,
                          const std::string& stored, const std::string& remembered) {
    SCOPED_TRACE(stored);
    forget();
    look_up_and_store(1000, 60);
    const int old = number("SELECT entry FROM epglist");
    if (name != nullptr)
      text(old, "eng", name);
    EXPECT_EQ(looked_up(ev_id, start, duration), "0 overlap");
    EXPECT_EQ(messages_at(3, [&] { EXPECT_EQ(store(start, duration, ev_id, changed_, overlap_), old + 1); }), printed);
    EXPECT_EQ(events(), Texts{stored});
    EXPECT_EQ(rows("SELECT * FROM epglist_lang"), Texts{});
    EXPECT_EQ(events_in(sc_.epg), Texts{remembered});
  };
  // With another start the old one leaves the cache, too; with the same one it keeps its place there.
  expect(2, 1030, 60, "Old", "WARNING: Overlapping\nDelete ch 7 from 1030 - 1090\nDeleted 1000 -1060 Old\n", "1030|60",
         "1030+60:2");
  expect(1, 1000, 90, nullptr,
         "WARNING: Overlapping\nDelete ch 7 from 1000 - 1090\nDeleted 1000 -1060  No event description\n"
         "No exact cache start_epoch: 1000 != 1000,  dur_sec 90 != 60\n",
         "1000|90", "1000+90:1");
}

TEST_F(Epg_store, overlapping_and_replacing_are_announced_one_after_the_other) {
  EXPECT_EQ(messages_at(1, [&] { EXPECT_EQ(store(1000, 60, 1, true, true), 1); }),
            "WARNING: Overlapping\n"
            "WARNING: No rows in db are between 1000 ... 1060 delete criteria, rc = 101\n"
            "WARNING: Replacing event id channel 7, ymd_bcd 20100101, hms_bcd 0\n");
  EXPECT_EQ(events(), (Texts{"1000|60"}));
}

TEST_F(Epg_store, ends_beyond_32_bits_are_limited) {
  look_up_and_store(INT_MAX - 100, INT_MAX);
  EXPECT_EQ(messages_at(3, [&] { EXPECT_EQ(store(INT_MAX - 50, INT_MAX, 2, false, true), 2); }),
            "WARNING: Overlapping\n"
            "Delete ch 7 from 2147483597 - 2147483647\n"
            "Deleted 2147483547 -2147483647  No event description\n");
  EXPECT_EQ(events(), (Texts{"2147483597|2147483647"}));
  EXPECT_EQ(events_in(sc_.epg), Texts{});
}

TEST_F(Epg_store, texts_are_stored_in_each_language_once) {
  const char* hostile = "it's 100% \"odd\"; DROP TABLE epglist; -- \xff";
  EXPECT_EQ(sdbl().insert_epglist_lang(5, "eng", hostile, "Desc", "Ext", "List"), 0);
  EXPECT_EQ(text(5, "est", "Nimi"), 0);
  EXPECT_THAT([&] { EXPECT_EQ(text(5, "eng", "Other"), 0); }, prints_only_from(1, "WARNING: epglist_lang rc = 2067\n"));
  EXPECT_EQ(rows("SELECT * FROM epglist_lang ORDER BY lang"),
            (Texts{std::string("5|eng|") + hostile + "|Desc|Ext|List", "5|est|Nimi|||"}));
}

TEST_F(Epg_store, quirk_event_name_of_two_letters_becomes_empty) {
  sdbl().insert_epglist_lang(5, "eng", "TV", "Desc", "", "");
  EXPECT_EQ(rows("SELECT ev_name, ev_desc FROM epglist_lang"), (Texts{"|Desc"}));
}

TEST_F(Epg_delete, everything_that_the_range_overlaps_goes) {
  const std::tuple<const char*, int, int, bool> cases[] = {
      {"before", 800, 100, false},
      {"up to the start", 900, 100, false},
      {"into the start", 950, 100, true},
      {"inside", 1020, 10, true},
      {"the same", 1000, 100, true},
      {"over the end", 1050, 100, true},
      {"from the end on", 1100, 100, false},
      {"around", 900, 300, true},
      {"last second", 1099, 5, true},
      {"up to the end", 1050, 50, true},
      {"after", 1200, 10, false},
  };
  for (const auto& [legend, start, duration, goes] : cases) {
    forget();
    look_up_and_store(start, duration);
    deleted(0, false);
    EXPECT_EQ(number("SELECT count(*) FROM epglist"), goes ? 0 : 1) << legend;
    EXPECT_EQ(sc_.epg.size(), goes ? 0u : 1u) << legend;
  }
}

TEST_F(Epg_delete, events_that_overlap_in_every_way_go_in_one_call) {
  const std::pair<int, int> going_then_staying[] = {{900, 150}, {950, 500}, {1010, 10}, {1020, 80}, {1090, 200},
                                                    {700, 200}, {901, 99},  {1100, 10}, {1101, 100}};
  for (const auto& [start, duration] : going_then_staying)
    text(store(start, duration), "eng", "Name");
  deleted(-1, true);  // nothing is in the cache
  EXPECT_EQ(events(), (Texts{"700|200", "901|99", "1100|10", "1101|100"}));
  EXPECT_EQ(number("SELECT count(*) FROM epglist_lang"), 4);
  EXPECT_EQ(number("SELECT count(*) FROM epglist JOIN epglist_lang ON entry = source_oid"), 4);
}

// Those at either end of the range go, too. The search does not find them, so they stay in the cache.
TEST_F(Epg_delete, events_without_a_duration_go_with_the_range_and_stay_in_the_cache) {
  for (const int start : {999, 1000, 1050, 1100, 1101})
    look_up_and_store(start, 0);
  EXPECT_EQ(deleted(0, false),
            "ERROR: Nothing to delete in cache list for start_epoch 1000\n"
            "ERROR: Nothing to delete in cache list for start_epoch 1050\n"
            "ERROR: Nothing to delete in cache list for start_epoch 1100\n");
  EXPECT_EQ(events(), (Texts{"999|0", "1101|0"}));
  EXPECT_EQ(sc_.epg.size(), 5u);
}

TEST_F(Epg_delete, texts_go_with_their_event_and_other_channels_stay) {
  look_up_and_store(1000, 60);
  text(1, "eng", "Name");
  text(51, "eng", "Other");
  run("INSERT INTO epglist (channel, start_epoch, dur_sec) VALUES (8, 1000, 60)");
  EXPECT_EQ(deleted(0, true, 0, 5000), "");
  EXPECT_EQ(rows("SELECT channel FROM epglist"), (Texts{"8"}));
  EXPECT_EQ(rows("SELECT ev_name FROM epglist_lang"), (Texts{"Other"}));
}

TEST_F(Epg_delete, nothing_to_delete_warns_and_an_event_that_is_not_in_the_cache_is_an_error) {
  const std::string warning = "WARNING: No rows in db are between 1000 ... 1100 delete criteria, rc = 101\n";
  EXPECT_EQ(deleted(0, true), "");
  EXPECT_EQ(deleted(1, true), warning);
  EXPECT_EQ(deleted(2, true), warning);
  EXPECT_EQ(deleted(3, true), "Delete ch 7 from 1000 - 1100\n" + warning);
  store(1000, 60);
  EXPECT_EQ(deleted(0, false), "ERROR: Nothing to delete in cache list for start_epoch 1000\n");
  EXPECT_EQ(events(), Texts{});
  store(1000, 60);
  EXPECT_EQ(deleted(-1, false), "");
}

TEST_F(Epg_delete, deleted_events_are_traced_with_their_names) {
  look_up_and_store(1000, 60);
  look_up_and_store(1060, 60);
  text(1, "eng", "Name");
  EXPECT_EQ(deleted(3, true),
            "Delete ch 7 from 1000 - 1100\nDeleted 1000 -1060 Name\nDeleted 1060 -1120  No event description\n");
  look_up_and_store(1000, 60);
  EXPECT_EQ(deleted(3, false), "Delete ch 7 from 1000 - 1100\n") << "without the trace";
  look_up_and_store(1000, 60);
  EXPECT_EQ(deleted(2, true), "");
}

TEST_F(Epg_delete, another_event_in_the_cache_is_kept) {
  const auto expect = [&](int start, int duration, const std::string& printed, const std::string& remembered) {
    for (const int level : {0, 2}) {
      store(start, duration);
      EXPECT_EQ(deleted(level, false), "") << level;
    }
    store(start, duration);
    EXPECT_EQ(deleted(3, false), "Delete ch 7 from 1000 - 1100\n" + printed);
    EXPECT_EQ(events_in(sc_.epg), Texts{remembered});
  };
  lookup(1, 1000, 90);
  expect(1000, 60, "No exact cache start_epoch: 1000 != 1000,  dur_sec 90 != 60\n", "1000+90:1");
  clear();
  lookup(1, 900, 200);
  expect(1000, 200, "No exact cache start_epoch: 900 != 1000,  dur_sec 200 != 200\n", "900+200:1");
}

TEST_F(Epg, an_event_is_running_between_its_start_and_its_end) {
  const long now = time(nullptr);
  EXPECT_EQ(sdbl().eit_info_available(7), 0);
  store(now + 100, 1000);
  store(now - 2000, 1000);
  EXPECT_EQ(sdbl().eit_info_available(7), 0);
  store(now - 100, 150);
  EXPECT_EQ(sdbl().eit_info_available(7), 1);
  EXPECT_EQ(sdbl().eit_info_available(8), 0);
  run("DELETE FROM epglist");
  store(now - 100, INT_MAX);
  EXPECT_EQ(sdbl().eit_info_available(7), 1) << "an end that does not fit 32 bits";
}

TEST_F(Epg, quirk_an_event_that_starts_this_second_is_not_running) {
  expect_not_running(0);
}

TEST_F(Epg, an_event_that_ends_this_second_is_not_running) {
  expect_not_running(-1000);
}

TEST_F(Epg, whether_there_is_an_event_is_said_at_level_3) {
  const auto ask = [&] { (void)sdbl().eit_info_available(7); };
  EXPECT_THAT(ask, prints_only_from(3, "NO EPG "));
  store(time(nullptr) - 100, 1000);
  EXPECT_EQ(messages_at(3, ask), "EPG OK ");
  EXPECT_THAT(messages_at(4, ask),
              MatchesRegex("Current epoch [0-9]+, channel 7 sql_get_int: SELECT OID from .*EPG OK "));
  run("DROP TABLE epg_db.epglist");
  EXPECT_THAT(messages_at(0, [&] { EXPECT_EQ(sdbl().eit_info_available(7), 0); }),
              HasSubstr("ERROR: SQL_get_int: 1 @ eit_info_available line "));
}

// --- Bounds of the guide file ----------------------------------------------------------------------------------------

namespace {

constexpr int HOUR = 3600;
constexpr int DAY = 24 * HOUR;
const char REFUSED[] = "ERROR: eit_for_service: rc is 13\n";

class Epg_room : public Epg {
 protected:
  // The file may grow by this many pages.
  void limit(int pages) {
    const int count = number("PRAGMA epg_db.page_count") + pages;
    EXPECT_EQ(number("PRAGMA epg_db.max_page_count=" + std::to_string(count)), count);
    // What is known of the room is trusted for the rest of the second.
    for (const time_t now = time(nullptr); time(nullptr) == now;)
      usleep(10000);
  }
  // One event an hour with so many bytes of text, until one is refused; how many went in.
  int fill(int64_t start, int most = 3000, size_t bytes = 3000) {
    const std::string text(bytes, 'x');
    for (int stored = 0; stored < most; ++stored) {
      const int oid = store(static_cast<long>(start + int64_t{stored} * HOUR), HOUR);
      if (oid <= 0)
        return stored;
      sdbl().insert_epglist_lang(oid, "est", "Name", "", text.c_str(), "");
    }
    return most;
  }
  // Every event has its text, and the file is whole, as this program and as another sees it.
  void expect_sound(int events, size_t bytes = 3000) {
    EXPECT_EQ(number("SELECT count(*) FROM epglist"), events);
    EXPECT_EQ(number("SELECT count(*) FROM epglist, epglist_lang WHERE entry = source_oid AND length(ext_desc) = " +
                     std::to_string(bytes)),
              events);
    EXPECT_EQ(rows("PRAGMA epg_db.integrity_check"), (Texts{"ok"}));
    EXPECT_EQ(db_support::Other_connection(guide_file()).rows("PRAGMA integrity_check"), (Texts{"ok"}));
  }
  int older_than(int days) {
    return number("SELECT count(*) FROM epglist WHERE start_epoch < " + std::to_string(now_ - days * DAY));
  }

  const int64_t now_ = time(nullptr);
};

// On a file system of its own, which is small; making one needs privileges.
class Epg_disk : public Epg_room {
 protected:
  void SetUp() override {
    close();
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("none", folder().path().c_str(), "tmpfs", 0, "size=2m") != 0)
      GTEST_SKIP() << "no file system can be mounted here";
    open();
  }
};

}  // namespace

TEST_F(Epg_room, near_the_limit_events_are_refused_and_the_file_is_sound) {
  limit(300);
  int stored = 0;
  EXPECT_EQ(messages_at(0, [&] { stored = fill(now_); }), REFUSED);
  EXPECT_GT(stored, 100);
  EXPECT_LT(stored, 300);
  EXPECT_THAT([&] { EXPECT_EQ(store(static_cast<long>(now_ - HOUR), 60), -1); }, prints_only_from(0, REFUSED));
  expect_sound(stored);
}

// With the limit as it is, and texts as long as the longest that are broadcast.
TEST_F(Epg_room, the_file_ends_below_8000_pages_and_old_events_make_room_again) {
  constexpr size_t LONGEST = 15000;
  int stored = 0;
  const auto expect_full = [&](int events) {
    expect_sound(events, LONGEST);
    EXPECT_LE(number("PRAGMA epg_db.page_count"), 8000);
    EXPECT_LE(std::filesystem::file_size(guide_file()),
              8000u * static_cast<unsigned>(number("PRAGMA epg_db.page_size")));
  };
  EXPECT_EQ(messages_at(0, [&] { stored = fill(now_, 3000, LONGEST); }), REFUSED);
  EXPECT_GT(number("PRAGMA epg_db.page_count"), 7800);
  expect_full(stored);
  // A hundred grow old.
  run("UPDATE epglist SET start_epoch = start_epoch - 1000000000 WHERE entry <= 100");
  int more = 0;
  EXPECT_EQ(messages_at(0, [&] { more = fill(now_ + int64_t{stored} * HOUR, 3000, LONGEST); }), REFUSED);
  EXPECT_GE(more, 90);
  EXPECT_EQ(older_than(1), 0);
  expect_full(stored + more - 100);
}

TEST_F(Epg_room, old_events_go_first) {
  fill(now_ - 100 * DAY, 200);
  limit(110);
  EXPECT_EQ(messages_at(0, [&] { EXPECT_EQ(fill(now_, 150), 150); }), "");
  EXPECT_EQ(older_than(2), 0);
  EXPECT_EQ(number("SELECT count(*) FROM epglist_lang"), 150);
  EXPECT_EQ(rows("PRAGMA epg_db.integrity_check"), (Texts{"ok"}));
}

TEST_F(Epg_room, with_room_nothing_is_removed_and_without_it_events_of_the_last_day_stay) {
  EXPECT_EQ(number("PRAGMA main.max_page_count"), 8000);
  EXPECT_EQ(number("PRAGMA epg_db.max_page_count"), 8000);
  ASSERT_EQ(fill(now_ - 100 * DAY, 10), 10);
  ASSERT_EQ(fill(now_ - 20 * HOUR, 10), 10);
  EXPECT_EQ(number("SELECT count(*) FROM epglist"), 20);
  run("DELETE FROM epglist WHERE entry <= 10");
  limit(50);
  EXPECT_EQ(messages_at(0, [&] { EXPECT_EQ(store(static_cast<long>(now_ + 30 * DAY), 60), -1); }), REFUSED);
  EXPECT_EQ(number("SELECT count(*) FROM epglist"), 10);
}

TEST_F(Epg_room, a_text_that_does_not_fit_is_refused_with_a_warning) {
  const int oid = store(static_cast<long>(now_), HOUR);
  ASSERT_GT(oid, 0);
  limit(10);
  const std::string long_text(3000, 'x');
  EXPECT_THAT([&] { EXPECT_EQ(sdbl().insert_epglist_lang(oid, "est", "Name", "", long_text.c_str(), ""), 0); },
              prints_only_from(1, "WARNING: epglist_lang rc = 13\n"));
  EXPECT_EQ(number("SELECT count(*) FROM epglist_lang"), 0);
  EXPECT_EQ(rows("PRAGMA epg_db.integrity_check"), (Texts{"ok"}));
}

TEST_F(Epg_room, pages_that_were_given_up_are_used_again) {
  limit(200);
  int stored = 0;
  (void)messages_at(0, [&] { stored = fill(now_); });
  run("DELETE FROM epglist");
  run("DELETE FROM epglist_lang");
  EXPECT_EQ(messages_at(0, [&] { EXPECT_EQ(fill(now_, stored - 5), stored - 5); }), "");
}

TEST_F(Epg_disk, a_full_disk_refuses_events_and_leaves_the_file_sound) {
  int stored = 0;
  EXPECT_EQ(messages_at(0, [&] { stored = fill(now_, 1000); }), REFUSED);
  EXPECT_GT(stored, 50);
  EXPECT_LT(stored, 500);
  expect_sound(stored);
  // Half of them grow old.
  run("UPDATE epglist SET start_epoch = start_epoch - 100000000 WHERE entry <= " + std::to_string(stored / 2));
  EXPECT_EQ(messages_at(0, [&] { EXPECT_EQ(fill(now_ + 2000 * HOUR, stored / 4), stored / 4); }), "");
  EXPECT_EQ(rows("PRAGMA epg_db.integrity_check"), (Texts{"ok"}));
  close();
  EXPECT_EQ(umount(folder().path().c_str()), 0);
}
