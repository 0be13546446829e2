// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/database/guide_db.h"

#include <iconv.h>
#include <strings.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include <kelvo/kelvo.h>

#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/database/genre_words.h"
#include "tools/database/statement.h"

namespace {

// An event counts when any of its time lies in the range. One without a duration has no time at all, so its start
// decides.
constexpr const char* EVENT_COLUMNS =
    "SELECT entry, channel, ev_id, start_epoch, dur_sec, content_id, rating, run_status, free_ca FROM epglist "
    "WHERE start_epoch < ?2 AND (start_epoch + dur_sec > ?1 OR start_epoch >= ?1) ORDER BY start_epoch, channel, entry;";
constexpr const char* TEXT_COLUMNS =
    "SELECT lang, ev_name, ev_desc, ext_desc, ext_list FROM epglist_lang WHERE source_oid = ?1 ORDER BY rowid;";
constexpr const char* DETAIL_COLUMNS =
    "SELECT series_crid, programme_crid, running_status FROM event_detail WHERE entry = ?1;";
constexpr const char* ITEM_COLUMNS =
    "SELECT lang, name, value FROM event_item WHERE entry = ?1 ORDER BY lang, position;";
constexpr const char* COMPONENT_COLUMNS =
    "SELECT tag, stream_content, stream_content_ext, component_type, lang, text FROM event_component WHERE entry = ?1 "
    "ORDER BY position;";

// Seconds; further away, sums could overflow. The library's own rows end in 2038.
constexpr int64_t FARTHEST = int64_t{1} << 40;

// From the character table `table`, as iconv names it; empty when that does not work.
std::string from_table(const std::string& table, std::string_view text) {
  const iconv_t converter = iconv_open("UTF-8", table.c_str());
  if (converter == reinterpret_cast<iconv_t>(-1)) {
    return {};
  }
  std::string in(text);
  std::string out(in.size() * 4, '\0');
  char* from = in.data();
  char* to = out.data();
  size_t left = in.size();
  size_t room = out.size();
  // Half a conversion would be shown as if it were the title; without any, the caller shows what it has.
  const bool good = iconv(converter, &from, &left, &to, &room) != static_cast<size_t>(-1);
  (void)iconv_close(converter);
  out.resize(good ? out.size() - room : 0);
  return out;
}

// Takes the bytes that select a character table (EN 300 468, A.2) off the front of `text` and gives the table's name;
// empty, and nothing taken, where there are none or the table needs no conversion.
std::string take_table(std::string_view* text) {
  const auto byte = [text](size_t i) { return i < text->size() ? static_cast<unsigned char>((*text)[i]) : 0U; };
  const unsigned selector = byte(0);
  std::string table;
  size_t size = 1;
  // UTF-8 (0x15) and two-byte characters (0x11) are missing here: clean_text() knows them.
  if (selector >= 0x01 && selector <= 0x0B) {
    table = "ISO-8859-" + std::to_string(selector + 4);
  } else if (selector == 0x10 && byte(1) == 0 && byte(2) >= 1 && byte(2) <= 15) {
    table = "ISO-8859-" + std::to_string(byte(2));
    size = 3;
  } else if (selector >= 0x12 && selector <= 0x14) {
    table = selector == 0x12 ? "EUC-KR" : selector == 0x13 ? "GB2312" : "BIG5";
  }
  if (!table.empty()) {
    text->remove_prefix(std::min(size, text->size()));
  }
  return table;
}

// Where the description ends that stands twice at the start of `text`, with a colon behind it: the size of one of them,
// npos when there is none. Descriptions may hold colons themselves.
size_t doubled_size(std::string_view text) {
  // A long text that is full of colons must not make the search quadratic.
  constexpr int MOST_COLONS = 8;
  size_t colon = text.find(':');
  for (int i = 0; i < MOST_COLONS && colon != std::string_view::npos; ++i) {
    if (colon % 2 == 0 && text.substr(0, colon / 2) == text.substr(colon / 2, colon / 2)) {
      return colon / 2;
    }
    colon = text.find(':', colon + 1);
  }
  return std::string_view::npos;
}

// Nibbles in hexadecimal: "4.1.0.0 ", each genre with a blank behind it; 0.0.0.0 for none.
std::vector<Event_genre> genres(const std::string& content) {
  std::vector<Event_genre> out;
  std::istringstream words(content);
  for (std::string word; words >> word;) {
    std::array<unsigned long, 4> nibbles{};
    const char* at = word.c_str();
    char* end = nullptr;
    for (unsigned long& nibble : nibbles) {
      nibble = std::strtoul(at, &end, 16);
      at = *end == '.' ? end + 1 : end;
    }
    if (nibbles[0] > 0 && std::all_of(nibbles.begin(), nibbles.end(), [](unsigned long n) { return n <= 15; })) {
      out.push_back(
          {static_cast<int>(nibbles[0]), static_cast<int>(nibbles[1]), static_cast<int>(nibbles[2] * 16 + nibbles[3])});
    }
  }
  return out;
}

std::vector<std::string> names_of(const std::vector<Event_genre>& genres) {
  std::vector<std::string> out;
  for (const Event_genre& genre : genres) {
    // Several contents of one genre are common ("film: thriller", "film: drama").
    const std::string name = genre_name(genre.level1);
    if (!name.empty() && std::find(out.begin(), out.end(), name) == out.end()) {
      out.push_back(name);
    }
  }
  return out;
}

// EN 300 468, table 81: the age is 3 years above the value, 1 to 15; others are the broadcaster's own.
std::vector<std::pair<std::string, int>> ratings(const std::string& text) {
  std::vector<std::pair<std::string, int>> out;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    const size_t at = word.find('@');
    const unsigned long value = std::strtoul(word.c_str(), nullptr, 16);
    if (at != std::string::npos && value >= 1 && value <= 15) {
      out.emplace_back(guide_text(word.substr(at + 1)), static_cast<int>(value) + 3);
    }
  }
  return out;
}

using Items = std::vector<std::pair<std::string, std::string>>;

// What the added tables have of an event; by its row.
class Details {
 public:
  Details(sqlite3* connection, const std::string& file)
      : details_(connection, file, DETAIL_COLUMNS),
        items_(connection, file, ITEM_COLUMNS),
        components_(connection, file, COMPONENT_COLUMNS) {}

  void read(int64_t entry, Guide_event* event) {
    ask(&details_, entry);
    if (details_.step()) {
      event->series_crid = guide_text(details_.raw_text(0));
      event->programme_crid = guide_text(details_.raw_text(1));
      event->running_status = details_.number(2);
    }
    ask(&components_, entry);
    while (components_.step()) {
      event->components.push_back({components_.number(0), components_.number(1), components_.number(2),
                                   components_.number(3), guide_text(components_.raw_text(4)),
                                   guide_text(components_.raw_text(5))});
    }
  }

  // By language as stored.
  std::map<std::string, Items> items(int64_t entry) {
    std::map<std::string, Items> out;
    ask(&items_, entry);
    while (items_.step()) {
      std::string name = guide_text(items_.raw_text(1));
      // "Director:" gets its colon from whoever shows it.
      name.resize(name.find_last_not_of(" :") + 1);
      out[items_.raw_text(0)].emplace_back(std::move(name), guide_text(items_.raw_text(2)));
    }
    return out;
  }

 private:
  static void ask(Statement* statement, int64_t entry) {
    statement->reset();
    statement->bind_big(1, entry);
  }

  Statement details_;
  Statement items_;
  Statement components_;
};

}  // namespace

std::string guide_text(std::string_view text) {
  const std::string table = take_table(&text);
  std::string clean = clean_text(text);
  if (table.empty() || clean.find("\xEF\xBF\xBD") == std::string::npos) {
    return clean;  // It is UTF-8, only the selector was left.
  }
  const std::string converted = from_table(table, text);
  return converted.empty() ? clean : clean_text(converted);
}

std::vector<std::pair<std::string, std::string>> split_items(std::string_view list) {
  std::vector<std::pair<std::string, std::string>> out;
  if (!list.empty() && list.back() == '\n') {
    for (size_t end = 0; (end = list.find('\n')) != std::string_view::npos; list.remove_prefix(end + 1)) {
      const std::string_view line = list.substr(0, end);
      const size_t colon = std::min(line.find(':'), line.size());
      out.emplace_back(guide_text(line.substr(0, colon)), guide_text(line.substr(std::min(colon + 1, line.size()))));
    }
    return out;
  }
  while (!list.empty()) {
    std::string_view name;
    const size_t size = doubled_size(list);
    if (size != std::string_view::npos) {
      name = list.substr(0, size);
      list.remove_prefix(2 * size + 1);
    }
    // Items hold commas, too: the one that ends it has the next description, or nothing, behind it.
    size_t comma = list.find(',');
    while (comma != std::string_view::npos && comma + 1 < list.size() &&
           doubled_size(list.substr(comma + 1)) == std::string_view::npos) {
      comma = list.find(',', comma + 1);
    }
    std::string clean_name = guide_text(name);
    if (!clean_name.empty() && clean_name.back() == ':') {
      clean_name.pop_back();
    }
    const std::string item = guide_text(list.substr(0, comma));
    if (!clean_name.empty() || !item.empty()) {
      out.emplace_back(clean_name, item);
    }
    list.remove_prefix(comma == std::string_view::npos ? list.size() : comma + 1);
  }
  return out;
}

Guide_db::Guide_db(const std::string& channel_file) {
  char name[4096 + 16];
  Sdbl::mapto_epg_filename(name, channel_file.c_str());
  file_ = name;
  struct stat status {};
  if (stat(name, &status) != 0) {
    // A guide is made when the first event is stored, so a missing one is no mistake of anybody.
    if (errno == ENOENT) {
      return;
    }
    throw Failure(fmt::format("{}: {}", file_, strerror(errno)));
  }
  if (!S_ISREG(status.st_mode)) {
    throw Failure(fmt::format("{}: not a file; name another one with --db", file_));
  }
  Connection connection = open_to_read(file_);
  Statement tables(connection.get(), file_, "SELECT 1 FROM sqlite_master WHERE type = 'table';");
  if (!tables.step()) {
    return;  // An empty file becomes a guide when it is first written to.
  }
  tables.reset();
  Statement guide(connection.get(), file_,
                  "SELECT count(*) FROM sqlite_master WHERE type = 'table' AND name IN ('epglist', 'epglist_lang');");
  if (!guide.step() || guide.number(0) != 2) {
    throw Failure(fmt::format("{}: not a programme guide; name another file with --db", file_));
  }
  guide.reset();
  const Statement events(connection.get(), file_, EVENT_COLUMNS);
  const Statement texts(connection.get(), file_, TEXT_COLUMNS);
  Statement added(connection.get(), file_,
                  "SELECT count(*) FROM sqlite_master WHERE type = 'table' AND name IN ('event_detail', 'event_item', "
                  "'event_component');");
  has_details_ = added.step() && added.number(0) == 3;
  connection_ = std::move(connection);
}

std::vector<Guide_event> Guide_db::events(int64_t from, int64_t to, const std::vector<std::string>& languages) const {
  std::vector<Guide_event> out;
  if (connection_ == nullptr) {
    return out;
  }
  const auto rank = [&languages](const Event_text& text) {
    size_t place = 0;
    while (place < languages.size() && strcasecmp(languages[place].c_str(), text.language.c_str()) != 0) {
      ++place;
    }
    return std::pair(text.title.empty(), place);  // A language without a title is no help.
  };
  Statement rows(connection_.get(), file_, EVENT_COLUMNS);
  // Prepared once and bound for each event: a guide of a week has tens of thousands.
  Statement text_rows(connection_.get(), file_, TEXT_COLUMNS);
  std::optional<Details> details;
  if (has_details_) {
    details.emplace(connection_.get(), file_);
  }
  rows.bind_big(1, from);
  rows.bind_big(2, to);
  while (rows.step()) {
    Guide_event event;
    event.channel = rows.number(1);
    event.id = rows.number(2);
    event.start = std::clamp(rows.big_number(3), -FARTHEST, FARTHEST);
    event.duration = std::max(0, rows.number(4));
    event.contents = genres(rows.raw_text(5));
    event.genres = names_of(event.contents);
    event.ratings = ratings(rows.raw_text(6));
    event.running_status = rows.number(7);
    event.scrambled = rows.number(8) != 0;
    const int64_t entry = rows.big_number(0);
    std::map<std::string, Items> items;
    if (details) {
      details->read(entry, &event);
      items = details->items(entry);
    }
    text_rows.reset();
    text_rows.bind_big(1, entry);
    while (text_rows.step()) {
      const auto pairs = items.find(text_rows.raw_text(0));
      event.texts.push_back({guide_text(text_rows.raw_text(0)), guide_text(text_rows.raw_text(1)),
                             guide_text(text_rows.raw_text(2)), guide_text(text_rows.raw_text(3)),
                             pairs == items.end() ? split_items(text_rows.raw_text(4)) : pairs->second});
    }
    // Stable, because those that were not asked for stay in the order of their sending.
    std::stable_sort(event.texts.begin(), event.texts.end(),
                     [&rank](const Event_text& a, const Event_text& b) { return rank(a) < rank(b); });
    out.push_back(std::move(event));
  }
  return out;
}

std::map<int, Guide_extent> Guide_db::extents() const {
  std::map<int, Guide_extent> out;
  if (connection_ != nullptr) {
    Statement rows(connection_.get(), file_,
                   "SELECT channel, count(*), max(start_epoch + dur_sec) FROM epglist GROUP BY channel;");
    while (rows.step()) {
      out[rows.number(0)] = {rows.number(1), rows.big_number(2)};
    }
  }
  return out;
}

int Guide_db::version() const {
  if (connection_ == nullptr) {
    return 0;
  }
  Statement version(connection_.get(), file_, "PRAGMA data_version;");
  return version.step() ? version.number(0) : 0;
}

std::map<int, int> Guide_db::counts() const {
  std::map<int, int> out;
  if (connection_ != nullptr) {
    Statement rows(connection_.get(), file_, "SELECT channel, count(*) FROM epglist GROUP BY channel;");
    while (rows.step()) {
      out[rows.number(0)] = rows.number(1);
    }
  }
  return out;
}
