// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/epg/episode.h"

#include <algorithm>
#include <array>
#include <string_view>

#include <fmt/format.h>

#include "tools/epg/item_words.h"

namespace {

using std::string_view;

constexpr std::array<string_view, 19> SEASONS = {
    "series", "season", "staffel", "saison",  "temporada", "stagione", "sezon", "sezóna", "kausi", "hooaeg",
    "säsong", "sesong", "sæson",   "seizoen", "Сезон",     "сезон",    "s",     "t",      "série"};
constexpr std::array<string_view, 28> EPISODES = {
    "επεισόδιο", "Επεισόδιο", "επ",       "Επ",      "ΕΠ",    "episode", "épisode",
    "Épisode",   "episodio",  "episódio", "epizoda", "folge", "odcinek", "aflevering",
    "avsnitt",   "afsnit",    "jakso",    "osa",     "díl",   "diel",    "серия",
    "Серия",     "eps",       "ep",       "odc",     "afl",   "flg",     "e"};
// Below these a number behind the word alone says too little ("T 34", "E 605", "osa 2").
constexpr std::array<string_view, 19> CERTAIN_EPISODES = {
    "επεισόδιο", "Επεισόδιο", "επ",         "Επ",      "ΕΠ",    "episode", "épisode", "Épisode", "episodio", "episódio",
    "folge",     "odcinek",   "aflevering", "avsnitt", "jakso", "серия",   "Серия",   "ep",      "odc"};
constexpr std::array<string_view, 9> OFS = {"/", "of", "von", "van", "de", "sur", "di", "z", "av"};
constexpr size_t LONGEST_TEXT = 1000;  // further back no episode is told

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}
bool is_letter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || static_cast<unsigned char>(c) >= 0x80;
}
char small(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// Reads a text from some place on. Each take_...() moves on only where it finds what it looks for.
class Reader {
 public:
  Reader(string_view text, size_t at) : text_(text), at_(at) {}

  size_t at() const { return at_; }
  bool at_end() const { return at_ >= text_.size(); }
  char next() const { return at_end() ? '\0' : text_[at_]; }

  void skip(string_view any, size_t most) {
    for (size_t i = 0; i < most && !at_end() && any.find(next()) != string_view::npos; ++i) {
      ++at_;
    }
  }

  // One of `words` that is no part of a longer one. They are in small letters of ASCII, others as they stand.
  template <size_t SIZE>
  bool take_word(const std::array<string_view, SIZE>& words) {
    for (const string_view word : words) {
      const string_view here = text_.substr(std::min(at_, text_.size()), word.size());
      const size_t behind = at_ + word.size();
      const bool same = here.size() == word.size() && std::equal(here.begin(), here.end(), word.begin(),
                                                                 [](char a, char b) { return small(a) == small(b); });
      if (same && (word == "/" || behind >= text_.size() || !is_letter(text_[behind]))) {
        at_ = behind;
        return true;
      }
    }
    return false;
  }

  // From 1 to 9999; 0, and nothing taken, for others.
  int take_number() {
    size_t end = at_;
    int value = 0;
    for (; end < text_.size() && is_digit(text_[end]) && end - at_ < 5; ++end) {
      value = value * 10 + (text_[end] - '0');
    }
    if (end == at_ || value == 0 || value > 9999) {
      return 0;
    }
    at_ = end;
    return value;
  }

  // "/6", " of 6" of the episode `number`; 0 for none.
  int take_total(int number) {
    Reader ahead = *this;
    ahead.skip(" ", 1);
    if (!ahead.take_word(OFS)) {
      return 0;
    }
    ahead.skip(" ", 1);
    const int total = ahead.take_number();
    if (total < number || total < 2) {
      return 0;
    }
    *this = ahead;
    return total;
  }

 private:
  string_view text_;
  size_t at_;
};

// A word may begin here: no letter or digit stands before it. Dashes and quotes of U+2000 to U+203F are three bytes.
bool is_boundary(string_view text, size_t at) {
  return at == 0 || !(is_letter(text[at - 1]) || is_digit(text[at - 1])) ||
         (at >= 3 && text[at - 3] == '\xE2' && text[at - 2] == '\x80');
}

Episode found(string_view text, size_t from, const Reader& reader, int season, int number, int of) {
  return {std::string(text.substr(from, reader.at() - from)), season, number, of};
}

// "S1E2", "S1 Ep2/6", "Series 1, episode 2 of 6".
std::optional<Episode> season_and_episode(string_view text, size_t at) {
  Reader reader(text, at);
  if (!reader.take_word(SEASONS)) {
    return {};
  }
  reader.skip(" .:", 2);
  const int season = reader.take_number();
  if (season == 0) {
    return {};
  }
  reader.skip(" ,.;:-/", 3);
  if (!reader.take_word(EPISODES)) {
    return {};
  }
  reader.skip(" .:", 2);
  const int number = reader.take_number();
  if (number == 0 || is_letter(reader.next())) {
    return {};
  }
  const int of = reader.take_total(number);
  return found(text, at, reader, season, number, of);
}

// "Folge 3", "Ep. 3 of 6".
std::optional<Episode> episode_alone(string_view text, size_t at) {
  Reader reader(text, at);
  if (!reader.take_word(CERTAIN_EPISODES)) {
    return {};
  }
  reader.skip(" .:", 2);
  const int number = reader.take_number();
  if (number == 0 || is_letter(reader.next())) {
    return {};
  }
  const int of = reader.take_total(number);
  return found(text, at, reader, 0, number, of);
}

// "3/6": parts or episodes, so it is only told as it stands.
std::optional<Episode> fraction(string_view text, size_t at) {
  Reader reader(text, at);
  const int number = reader.take_number();
  if (number == 0 || reader.next() != '/' || reader.take_total(number) == 0) {
    return {};
  }
  return found(text, at, reader, 0, 0, 0);
}

// "... (3/6)", also with a full stop behind it.
std::optional<Episode> fraction_at_the_end(string_view text) {
  const size_t bracket = text.rfind('(');
  if (bracket == string_view::npos) {
    return {};
  }
  const auto inside = fraction(text, bracket + 1);
  const string_view behind = inside ? text.substr(bracket + 1 + inside->text.size()) : "";
  return behind == ")" || behind == ")." ? inside : std::nullopt;
}

std::optional<Episode> in_text(string_view whole, bool is_title) {
  const string_view text = whole.substr(0, LONGEST_TEXT);
  for (size_t at = 0; at < text.size(); ++at) {
    if (!is_boundary(text, at)) {
      continue;
    }
    if (auto episode = season_and_episode(text, at)) {
      return episode;
    }
  }
  for (size_t at = 0; at < text.size(); ++at) {
    auto episode = is_boundary(text, at) ? episode_alone(text, at) : std::nullopt;
    if (episode && (is_title || at == 0 || episode->of != 0)) {
      return episode;
    }
  }
  if (!is_title) {
    auto first = fraction(text, 0);
    if (first && text.substr(first->text.size()).starts_with(". ")) {
      return first;
    }
  }
  return fraction_at_the_end(text);
}

int number_of(const std::string& text) {
  Reader reader(text, 0);
  const int number = reader.take_number();
  return reader.at_end() ? number : 0;
}

std::optional<Episode> in_items(const Event_text& text) {
  Episode out;
  for (const auto& [name, value] : text.items) {
    const Item_kind kind = item_kind(name);
    if (kind == Item_kind::SEASON && out.season == 0) {
      out.season = number_of(value);
    } else if (kind == Item_kind::EPISODE_NUMBER && out.text.empty()) {
      Reader reader(value, 0);
      const int number = reader.take_number();
      const int of = number == 0 ? 0 : reader.take_total(number);
      if (number != 0 && reader.at_end()) {
        out.text = value;
        out.number = number;
        out.of = of;
      }
    }
  }
  if (out.text.empty()) {
    return {};
  }
  if (out.season != 0) {
    out.text = fmt::format("S{}E{}", out.season, out.text);
  }
  return out;
}

}  // namespace

std::optional<Episode> find_episode(const Guide_event& event) {
  for (const Event_text& text : event.texts) {
    if (auto episode = in_items(text)) {
      return episode;
    }
  }
  for (const Event_text& text : event.texts) {
    if (auto episode = in_text(text.title, true)) {
      return episode;
    }
    if (auto episode = in_text(text.description, false)) {
      return episode;
    }
  }
  return {};
}
