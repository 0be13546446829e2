// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/database/genre_words.h"

#include <array>

namespace {

struct Genre {
  const char* name;
  std::array<const char*, 12> details;  // by the second level
};

constexpr std::array<Genre, 12> GENRES = {{
    {"", {}},
    {"Movie/Drama",
     {"", "Detective/Thriller", "Adventure/Western/War", "Science fiction/Fantasy/Horror", "Comedy",
      "Soap/Melodrama/Folkloric", "Romance", "Serious/Classical/Religious/Historical movie/drama",
      "Adult movie/drama"}},
    {"News/Current affairs",
     {"", "News/Weather report", "News magazine", "Documentary", "Discussion/Interview/Debate"}},
    {"Show/Game show", {"", "Game show/Quiz/Contest", "Variety show", "Talk show"}},
    {"Sports",
     {"", "Special events", "Sports magazines", "Football/Soccer", "Tennis/Squash", "Team sports", "Athletics",
      "Motor sport", "Water sport", "Winter sports", "Equestrian", "Martial sports"}},
    {"Children's/Youth programmes",
     {"", "Pre-school children's programmes", "Entertainment programmes for 6 to 14",
      "Entertainment programmes for 10 to 16", "Informational/Educational/School programmes", "Cartoons/Puppets"}},
    {"Music/Ballet/Dance",
     {"", "Rock/Pop", "Serious music/Classical music", "Folk/Traditional music", "Jazz", "Musical/Opera", "Ballet"}},
    {"Arts/Culture",
     {"", "Performing arts", "Fine arts", "Religion", "Popular culture/Traditional arts", "Literature", "Film/Cinema",
      "Experimental film/video", "Broadcasting/Press", "New media", "Arts magazines/Culture magazines", "Fashion"}},
    {"Social/Political issues/Economics",
     {"", "Magazines/Reports/Documentary", "Economics/Social advisory", "Remarkable people"}},
    {"Education/Science/Factual topics",
     {"", "Nature/Animals/Environment", "Technology/Natural sciences", "Medicine/Physiology/Psychology",
      "Foreign countries/Expeditions", "Social/Spiritual sciences", "Further education", "Languages"}},
    {"Leisure hobbies",
     {"", "Tourism/Travel", "Handicraft", "Motoring", "Fitness and health", "Cooking", "Advertisement/Shopping",
      "Gardening"}},
    {"Special characteristics",
     {"Original language", "Black and white", "Unpublished", "Live broadcast", "Plano-stereoscopic",
      "Local or regional"}},
}};

}  // namespace

std::string genre_name(int level1) {
  const auto at = static_cast<size_t>(level1);
  return at < GENRES.size() ? GENRES[at].name : "";
}

std::string genre_detail(int level1, int level2) {
  const auto at = static_cast<size_t>(level1);
  const auto detail = static_cast<size_t>(level2);
  if (at >= GENRES.size() || detail >= GENRES[at].details.size() || GENRES[at].details[detail] == nullptr) {
    return "";
  }
  return GENRES[at].details[detail];
}
