// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/epg/language_code.h"

#include <algorithm>

namespace {

// Five letters each: ISO 639-2 and ISO 639-1. Croatian and Serbian have their former codes as well, which are still on
// air.
constexpr std::string_view CODES =
    "aaraa abkab afraf akaak albsq amham araar argan armhy asmas avaav aveae aymay azeaz bakba bambm baqeu belbe "
    "benbn bihbh bisbi bodbo bosbs brebr bulbg burmy catca cescs chach chece chizh chucu chvcv corkw cosco crecr "
    "cymcy czecs danda deude divdv dutnl dzodz ellel engen epoeo estet euseu eweee faofo fasfa fijfj finfi frafr "
    "frefr fryfy fulff geoka gerde glagd glega glggl glvgv greel grngn gujgu hatht hauha hebhe herhz hinhi hmoho "
    "hrvhr hunhu hyehy iboig iceis idoio iiiii ikuiu ileie inaia indid ipkik islis itait javjv jpnja kalkl kankn "
    "kasks katka kaukr kazkk khmkm kikki kinrw kirky komkv konkg korko kuakj kurku laolo latla lavlv limli linln "
    "litlt ltzlb lublu luglg macmk mahmh malml maomi marmr mayms mkdmk mlgmg mltmt monmn mrimi msams myamy nauna "
    "navnv nblnr ndend ndong nepne nldnl nnonn nobnb norno nyany ocioc ojioj orior ormom ossos panpa perfa plipi "
    "polpl porpt pusps quequ rohrm ronro rumro runrn rusru sagsg sansa sinsi slksk slosk slvsl smese smosm snasn "
    "sndsd somso sotst spaes sqisq srdsc srpsr sswss sunsu swasw swesv tahty tamta tattt telte tgktg tgltl thath "
    "tibbo tirti tonto tsntn tsots tuktk turtr twitw uigug ukruk urdur uzbuz venve vievi volvo welcy wlnwa wolwo "
    "xhoxh yidyi yoryo zhaza zhozh zulzu "
    "sccsr scrhr ";
constexpr size_t CODE_SIZE = 6;
constexpr size_t LONG_SIZE = 3;
constexpr size_t SHORT_SIZE = 2;

}  // namespace

std::string language_code(std::string_view broadcast) {
  std::string code(broadcast);
  for (char& letter : code) {
    letter = letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
  }
  if (code.size() != LONG_SIZE || !std::all_of(code.begin(), code.end(), [](char c) { return c >= 'a' && c <= 'z'; }) ||
      code == "und" || code == "mul" || code == "zxx") {
    return "";
  }
  for (size_t at = 0; at < CODES.size(); at += CODE_SIZE) {
    if (CODES.substr(at, LONG_SIZE) == code) {
      return std::string(CODES.substr(at + LONG_SIZE, SHORT_SIZE));
    }
  }
  return code;
}
