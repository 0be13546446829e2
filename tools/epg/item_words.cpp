// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/epg/item_words.h"

#include <algorithm>
#include <map>
#include <string_view>

#include "tools/database/find_channel.h"

namespace {

using enum Item_kind;

// In small letters. Words that mean several things in these languages are left out ("music" may be its composer or who
// plays it).
const std::map<std::string_view, Item_kind>& kinds() {
  static const std::map<std::string_view, Item_kind> all = {
      {"director", DIRECTOR},
      {"directors", DIRECTOR},
      {"directed by", DIRECTOR},
      {"regie", DIRECTOR},
      {"regisseur", DIRECTOR},
      {"regisseurin", DIRECTOR},
      {"réalisateur", DIRECTOR},
      {"réalisatrice", DIRECTOR},
      {"réalisation", DIRECTOR},
      {"réalisé par", DIRECTOR},
      {"regia", DIRECTOR},
      {"regista", DIRECTOR},
      {"dirección", DIRECTOR},
      {"realização", DIRECTOR},
      {"realizador", DIRECTOR},
      {"reżyseria", DIRECTOR},
      {"reżyser", DIRECTOR},
      {"režie", DIRECTOR},
      {"režisér", DIRECTOR},
      {"réžia", DIRECTOR},
      {"rendező", DIRECTOR},
      {"rendezte", DIRECTOR},
      {"regi", DIRECTOR},
      {"regissör", DIRECTOR},
      {"regissør", DIRECTOR},
      {"instruktør", DIRECTOR},
      {"ohjaus", DIRECTOR},
      {"ohjaaja", DIRECTOR},
      {"režissöör", DIRECTOR},
      {"lavastaja", DIRECTOR},
      {"režisors", DIRECTOR},
      {"režisierius", DIRECTOR},
      {"редатељ", DIRECTOR},
      {"режиссер", DIRECTOR},
      {"режиссёр", DIRECTOR},
      {"режисер", DIRECTOR},
      {"режисьор", DIRECTOR},
      {"σκηνοθεσία", DIRECTOR},
      {"σκηνοθέτης", DIRECTOR},
      {"redatelj", DIRECTOR},
      {"režija", DIRECTOR},
      {"režiser", DIRECTOR},
      {"regizor", DIRECTOR},
      {"yönetmen", DIRECTOR},
      {"actor", ACTOR},
      {"actors", ACTOR},
      {"actress", ACTOR},
      {"actor/actress", ACTOR},
      {"cast", ACTOR},
      {"starring", ACTOR},
      {"darsteller", ACTOR},
      {"darstellerin", ACTOR},
      {"darsteller:innen", ACTOR},
      {"schauspieler", ACTOR},
      {"acteur", ACTOR},
      {"actrice", ACTOR},
      {"acteurs", ACTOR},
      {"attore", ACTOR},
      {"attori", ACTOR},
      {"interpreti", ACTOR},
      {"actores", ACTOR},
      {"reparto", ACTOR},
      {"intérpretes", ACTOR},
      {"atores", ACTOR},
      {"elenco", ACTOR},
      {"obsada", ACTOR},
      {"występują", ACTOR},
      {"hrají", ACTOR},
      {"herec", ACTOR},
      {"herci", ACTOR},
      {"hrajú", ACTOR},
      {"szereplő", ACTOR},
      {"szereplők", ACTOR},
      {"főszereplő", ACTOR},
      {"főszereplők", ACTOR},
      {"skuespiller", ACTOR},
      {"skuespillere", ACTOR},
      {"skådespelare", ACTOR},
      {"i rollerna", ACTOR},
      {"näyttelijä", ACTOR},
      {"näyttelijät", ACTOR},
      {"pääosissa", ACTOR},
      {"osades", ACTOR},
      {"näitlejad", ACTOR},
      {"lomās", ACTOR},
      {"aktieri", ACTOR},
      {"vaidina", ACTOR},
      {"aktoriai", ACTOR},
      {"в ролях", ACTOR},
      {"актеры", ACTOR},
      {"актёры", ACTOR},
      {"в ролите", ACTOR},
      {"у ролях", ACTOR},
      {"улоге", ACTOR},
      {"ηθοποιοί", ACTOR},
      {"πρωταγωνιστούν", ACTOR},
      {"uloge", ACTOR},
      {"glumci", ACTOR},
      {"igrajo", ACTOR},
      {"actori", ACTOR},
      {"distribuție", ACTOR},
      {"oyuncular", ACTOR},
      {"writer", WRITER},
      {"writers", WRITER},
      {"written by", WRITER},
      {"screenplay", WRITER},
      {"screenwriter", WRITER},
      {"drehbuch", WRITER},
      {"scénario", WRITER},
      {"scénariste", WRITER},
      {"sceneggiatura", WRITER},
      {"guion", WRITER},
      {"guión", WRITER},
      {"guionista", WRITER},
      {"scenariusz", WRITER},
      {"scénář", WRITER},
      {"scenár", WRITER},
      {"forgatókönyv", WRITER},
      {"forgatókönyvíró", WRITER},
      {"käsikirjoitus", WRITER},
      {"stsenarist", WRITER},
      {"сценарий", WRITER},
      {"сценарист", WRITER},
      {"σενάριο", WRITER},
      {"scenarij", WRITER},
      {"scenarist", WRITER},
      {"senaryo", WRITER},
      {"producer", PRODUCER},
      {"producers", PRODUCER},
      {"produced by", PRODUCER},
      {"produzent", PRODUCER},
      {"produzentin", PRODUCER},
      {"producteur", PRODUCER},
      {"productrice", PRODUCER},
      {"produttore", PRODUCER},
      {"productor", PRODUCER},
      {"producent", PRODUCER},
      {"tuottaja", PRODUCER},
      {"produtsent", PRODUCER},
      {"продюсер", PRODUCER},
      {"composer", COMPOSER},
      {"music by", COMPOSER},
      {"komponist", COMPOSER},
      {"komponistin", COMPOSER},
      {"compositeur", COMPOSER},
      {"compositore", COMPOSER},
      {"compositor", COMPOSER},
      {"kompozytor", COMPOSER},
      {"skladatel", COMPOSER},
      {"zeneszerző", COMPOSER},
      {"kompositör", COMPOSER},
      {"säveltäjä", COMPOSER},
      {"helilooja", COMPOSER},
      {"композитор", COMPOSER},
      {"presenter", PRESENTER},
      {"presenters", PRESENTER},
      {"presented by", PRESENTER},
      {"host", PRESENTER},
      {"hosts", PRESENTER},
      {"moderation", PRESENTER},
      {"moderator", PRESENTER},
      {"moderatorin", PRESENTER},
      {"présentateur", PRESENTER},
      {"présentatrice", PRESENTER},
      {"présentation", PRESENTER},
      {"présenté par", PRESENTER},
      {"conduttore", PRESENTER},
      {"conduce", PRESENTER},
      {"presentador", PRESENTER},
      {"presentadora", PRESENTER},
      {"apresentação", PRESENTER},
      {"apresentador", PRESENTER},
      {"prowadzący", PRESENTER},
      {"prowadzi", PRESENTER},
      {"moderátor", PRESENTER},
      {"műsorvezető", PRESENTER},
      {"presentatie", PRESENTER},
      {"presentator", PRESENTER},
      {"programleder", PRESENTER},
      {"programledare", PRESENTER},
      {"juontaja", PRESENTER},
      {"saatejuht", PRESENTER},
      {"saatejuhid", PRESENTER},
      {"ведущий", PRESENTER},
      {"ведущая", PRESENTER},
      {"ведущие", PRESENTER},
      {"παρουσίαση", PRESENTER},
      {"παρουσιάζει", PRESENTER},
      {"voditelj", PRESENTER},
      {"commentator", COMMENTATOR},
      {"commentators", COMMENTATOR},
      {"kommentator", COMMENTATOR},
      {"commentateur", COMMENTATOR},
      {"commentatore", COMMENTATOR},
      {"telecronaca", COMMENTATOR},
      {"comentarista", COMMENTATOR},
      {"komentator", COMMENTATOR},
      {"komentátor", COMMENTATOR},
      {"selostaja", COMMENTATOR},
      {"kommentaator", COMMENTATOR},
      {"комментатор", COMMENTATOR},
      {"guest", GUEST},
      {"guests", GUEST},
      {"special guest", GUEST},
      {"gast", GUEST},
      {"gäste", GUEST},
      {"invité", GUEST},
      {"invités", GUEST},
      {"ospite", GUEST},
      {"ospiti", GUEST},
      {"invitado", GUEST},
      {"invitados", GUEST},
      {"convidados", GUEST},
      {"goście", GUEST},
      {"hosté", GUEST},
      {"vendég", GUEST},
      {"vendégek", GUEST},
      {"vieraat", GUEST},
      {"külalised", GUEST},
      {"gäster", GUEST},
      {"gjester", GUEST},
      {"gæster", GUEST},
      {"гости", GUEST},
      {"year", YEAR},
      {"production year", YEAR},
      {"year of production", YEAR},
      {"productionyear", YEAR},
      {"jahr", YEAR},
      {"produktionsjahr", YEAR},
      {"année", YEAR},
      {"année de production", YEAR},
      {"anno", YEAR},
      {"anno di produzione", YEAR},
      {"año", YEAR},
      {"año de producción", YEAR},
      {"ano", YEAR},
      {"rok produkcji", YEAR},
      {"rok výroby", YEAR},
      {"gyártási év", YEAR},
      {"jaar", YEAR},
      {"produktionsår", YEAR},
      {"valmistusvuosi", YEAR},
      {"aasta", YEAR},
      {"tootmisaasta", YEAR},
      {"год", YEAR},
      {"год производства", YEAR},
      {"country", COUNTRY},
      {"production country", COUNTRY},
      {"country of production", COUNTRY},
      {"produktionsland", COUNTRY},
      {"pays", COUNTRY},
      {"pays de production", COUNTRY},
      {"paese", COUNTRY},
      {"país", COUNTRY},
      {"kraj produkcji", COUNTRY},
      {"země původu", COUNTRY},
      {"krajina pôvodu", COUNTRY},
      {"productieland", COUNTRY},
      {"valmistusmaa", COUNTRY},
      {"tootmismaa", COUNTRY},
      {"страна производства", COUNTRY},
      {"episode title", EPISODE_TITLE},
      {"episode name", EPISODE_TITLE},
      {"episodetitle", EPISODE_TITLE},
      {"episodentitel", EPISODE_TITLE},
      {"folgentitel", EPISODE_TITLE},
      {"titre de l'épisode", EPISODE_TITLE},
      {"titolo episodio", EPISODE_TITLE},
      {"título del episodio", EPISODE_TITLE},
      {"tytuł odcinka", EPISODE_TITLE},
      {"název dílu", EPISODE_TITLE},
      {"avsnittstitel", EPISODE_TITLE},
      {"jakson nimi", EPISODE_TITLE},
      {"episode number", EPISODE_NUMBER},
      {"episodenumber", EPISODE_NUMBER},
      {"episode", EPISODE_NUMBER},
      {"episodennummer", EPISODE_NUMBER},
      {"folge", EPISODE_NUMBER},
      {"folgennummer", EPISODE_NUMBER},
      {"épisode", EPISODE_NUMBER},
      {"numéro d'épisode", EPISODE_NUMBER},
      {"episodio", EPISODE_NUMBER},
      {"episódio", EPISODE_NUMBER},
      {"odcinek", EPISODE_NUMBER},
      {"numer odcinka", EPISODE_NUMBER},
      {"číslo dílu", EPISODE_NUMBER},
      {"avsnitt", EPISODE_NUMBER},
      {"jakso", EPISODE_NUMBER},
      {"aflevering", EPISODE_NUMBER},
      {"season", SEASON},
      {"season number", SEASON},
      {"series number", SEASON},
      {"staffel", SEASON},
      {"staffelnummer", SEASON},
      {"saison", SEASON},
      {"stagione", SEASON},
      {"temporada", SEASON},
      {"sezon", SEASON},
      {"säsong", SEASON},
      {"sesong", SEASON},
      {"sæson", SEASON},
      {"seizoen", SEASON},
      {"kausi", SEASON},
      {"hooaeg", SEASON},
      {"сезон", SEASON},
  };
  return all;
}

std::string trimmed(const std::string& text) {
  const size_t begin = text.find_first_not_of(' ');
  const size_t end = text.find_last_not_of(" .");
  return begin == std::string::npos || end == std::string::npos || end < begin ? ""
                                                                               : text.substr(begin, end + 1 - begin);
}

// Commas and semicolons between people; not those in brackets, and not the one of "Robert Oak, Jr.".
std::vector<std::string> split_people(const std::string& text) {
  std::vector<std::string> out(1);
  int depth = 0;
  for (const char c : text) {
    depth += c == '(' ? 1 : c == ')' && depth > 0 ? -1 : 0;
    if (depth == 0 && (c == ',' || c == ';')) {
      out.emplace_back();
    } else {
      out.back() += c;
    }
  }
  for (std::string& part : out) {
    part = trimmed(part);
  }
  std::erase(out, "");
  for (size_t i = out.size(); i-- > 1;) {
    if (out[i] == "Jr" || out[i] == "Sr") {
      out[i - 1] += " " + out[i] + ".";
      out.erase(out.begin() + static_cast<std::ptrdiff_t>(i));
    }
  }
  return out;
}

}  // namespace

Item_kind item_kind(const std::string& name) {
  const auto found = kinds().find(lower_case(name));
  return found == kinds().end() ? OTHER : found->second;
}

const char* person_word(Item_kind kind) {
  switch (kind) {
    case DIRECTOR:
      return "director";
    case ACTOR:
      return "actor";
    case WRITER:
      return "writer";
    case PRODUCER:
      return "producer";
    case COMPOSER:
      return "composer";
    case PRESENTER:
      return "presenter";
    case COMMENTATOR:
      return "commentator";
    default:
      return "guest";
  }
}

std::optional<std::vector<Person>> people_in(Item_kind kind, const std::string& text) {
  // No name is that long, but half a sentence is.
  constexpr size_t LONGEST_NAME = 80;
  std::vector<Person> out;
  for (std::string& name : split_people(text)) {
    if (name.size() > LONGEST_NAME) {
      return {};
    }
    std::string part;
    const size_t bracket = name.find('(');
    if (kind == ACTOR && bracket != std::string::npos && bracket > 0 && name.back() == ')') {
      part = trimmed(name.substr(bracket + 1, name.size() - bracket - 2));
      name = trimmed(name.substr(0, bracket));
    }
    if (name.find_first_not_of("()-") != std::string::npos) {
      out.push_back({kind, std::move(name), std::move(part)});
    }
  }
  if (out.empty()) {
    return {};
  }
  return out;
}

std::vector<Person> people_of(const Guide_event& event) {
  std::vector<Person> out;
  for (const Event_text& text : event.texts) {
    for (const auto& [name, value] : text.items) {
      const Item_kind kind = item_kind(name);
      const auto people = is_person(kind) ? people_in(kind, value) : std::nullopt;
      for (const Person& person : people.value_or(std::vector<Person>())) {
        const bool known = std::any_of(out.begin(), out.end(), [&person](const Person& other) {
          return other.kind == person.kind && other.name == person.name;
        });
        if (!known) {
          out.push_back(person);
        }
      }
    }
  }
  std::stable_sort(out.begin(), out.end(), [](const Person& a, const Person& b) { return a.kind < b.kind; });
  return out;
}

std::string year_in(const std::string& text) {
  const std::string year = trimmed(text);
  const bool good = year.size() == 4 && year.find_first_not_of("0123456789") == std::string::npos &&
                    (year.starts_with("19") || year.starts_with("20"));
  return good ? year : "";
}

bool is_understood(const std::pair<std::string, std::string>& item) {
  const Item_kind kind = item_kind(item.first);
  return (is_person(kind) && people_in(kind, item.second)) || (kind == YEAR && !year_in(item.second).empty()) ||
         ((kind == COUNTRY || kind == EPISODE_TITLE) && !item.second.empty());
}
