// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "si/countries.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>

namespace {

constexpr int FIRST_TERRESTRIAL = 0x2000;
constexpr char ZONES[] = "/usr/share/zoneinfo/";
constexpr char ZONES_BY_COUNTRY[] = "/usr/share/zoneinfo/zone.tab";  // country, place, zone, comment
constexpr char SYSTEM_ZONE[] = "/etc/localtime";

// ISO 3166-1.
constexpr struct {
  char two[3];
  char three[4];
  int number;
} COUNTRIES[] = {
    {"AD", "AND", 20},  {"AE", "ARE", 784}, {"AF", "AFG", 4},   {"AG", "ATG", 28},  {"AI", "AIA", 660},
    {"AL", "ALB", 8},   {"AM", "ARM", 51},  {"AO", "AGO", 24},  {"AQ", "ATA", 10},  {"AR", "ARG", 32},
    {"AS", "ASM", 16},  {"AT", "AUT", 40},  {"AU", "AUS", 36},  {"AW", "ABW", 533}, {"AX", "ALA", 248},
    {"AZ", "AZE", 31},  {"BA", "BIH", 70},  {"BB", "BRB", 52},  {"BD", "BGD", 50},  {"BE", "BEL", 56},
    {"BF", "BFA", 854}, {"BG", "BGR", 100}, {"BH", "BHR", 48},  {"BI", "BDI", 108}, {"BJ", "BEN", 204},
    {"BL", "BLM", 652}, {"BM", "BMU", 60},  {"BN", "BRN", 96},  {"BO", "BOL", 68},  {"BQ", "BES", 535},
    {"BR", "BRA", 76},  {"BS", "BHS", 44},  {"BT", "BTN", 64},  {"BV", "BVT", 74},  {"BW", "BWA", 72},
    {"BY", "BLR", 112}, {"BZ", "BLZ", 84},  {"CA", "CAN", 124}, {"CC", "CCK", 166}, {"CD", "COD", 180},
    {"CF", "CAF", 140}, {"CG", "COG", 178}, {"CH", "CHE", 756}, {"CI", "CIV", 384}, {"CK", "COK", 184},
    {"CL", "CHL", 152}, {"CM", "CMR", 120}, {"CN", "CHN", 156}, {"CO", "COL", 170}, {"CR", "CRI", 188},
    {"CU", "CUB", 192}, {"CV", "CPV", 132}, {"CW", "CUW", 531}, {"CX", "CXR", 162}, {"CY", "CYP", 196},
    {"CZ", "CZE", 203}, {"DE", "DEU", 276}, {"DJ", "DJI", 262}, {"DK", "DNK", 208}, {"DM", "DMA", 212},
    {"DO", "DOM", 214}, {"DZ", "DZA", 12},  {"EC", "ECU", 218}, {"EE", "EST", 233}, {"EG", "EGY", 818},
    {"EH", "ESH", 732}, {"ER", "ERI", 232}, {"ES", "ESP", 724}, {"ET", "ETH", 231}, {"FI", "FIN", 246},
    {"FJ", "FJI", 242}, {"FK", "FLK", 238}, {"FM", "FSM", 583}, {"FO", "FRO", 234}, {"FR", "FRA", 250},
    {"GA", "GAB", 266}, {"GB", "GBR", 826}, {"GD", "GRD", 308}, {"GE", "GEO", 268}, {"GF", "GUF", 254},
    {"GG", "GGY", 831}, {"GH", "GHA", 288}, {"GI", "GIB", 292}, {"GL", "GRL", 304}, {"GM", "GMB", 270},
    {"GN", "GIN", 324}, {"GP", "GLP", 312}, {"GQ", "GNQ", 226}, {"GR", "GRC", 300}, {"GS", "SGS", 239},
    {"GT", "GTM", 320}, {"GU", "GUM", 316}, {"GW", "GNB", 624}, {"GY", "GUY", 328}, {"HK", "HKG", 344},
    {"HM", "HMD", 334}, {"HN", "HND", 340}, {"HR", "HRV", 191}, {"HT", "HTI", 332}, {"HU", "HUN", 348},
    {"ID", "IDN", 360}, {"IE", "IRL", 372}, {"IL", "ISR", 376}, {"IM", "IMN", 833}, {"IN", "IND", 356},
    {"IO", "IOT", 86},  {"IQ", "IRQ", 368}, {"IR", "IRN", 364}, {"IS", "ISL", 352}, {"IT", "ITA", 380},
    {"JE", "JEY", 832}, {"JM", "JAM", 388}, {"JO", "JOR", 400}, {"JP", "JPN", 392}, {"KE", "KEN", 404},
    {"KG", "KGZ", 417}, {"KH", "KHM", 116}, {"KI", "KIR", 296}, {"KM", "COM", 174}, {"KN", "KNA", 659},
    {"KP", "PRK", 408}, {"KR", "KOR", 410}, {"KW", "KWT", 414}, {"KY", "CYM", 136}, {"KZ", "KAZ", 398},
    {"LA", "LAO", 418}, {"LB", "LBN", 422}, {"LC", "LCA", 662}, {"LI", "LIE", 438}, {"LK", "LKA", 144},
    {"LR", "LBR", 430}, {"LS", "LSO", 426}, {"LT", "LTU", 440}, {"LU", "LUX", 442}, {"LV", "LVA", 428},
    {"LY", "LBY", 434}, {"MA", "MAR", 504}, {"MC", "MCO", 492}, {"MD", "MDA", 498}, {"ME", "MNE", 499},
    {"MF", "MAF", 663}, {"MG", "MDG", 450}, {"MH", "MHL", 584}, {"MK", "MKD", 807}, {"ML", "MLI", 466},
    {"MM", "MMR", 104}, {"MN", "MNG", 496}, {"MO", "MAC", 446}, {"MP", "MNP", 580}, {"MQ", "MTQ", 474},
    {"MR", "MRT", 478}, {"MS", "MSR", 500}, {"MT", "MLT", 470}, {"MU", "MUS", 480}, {"MV", "MDV", 462},
    {"MW", "MWI", 454}, {"MX", "MEX", 484}, {"MY", "MYS", 458}, {"MZ", "MOZ", 508}, {"NA", "NAM", 516},
    {"NC", "NCL", 540}, {"NE", "NER", 562}, {"NF", "NFK", 574}, {"NG", "NGA", 566}, {"NI", "NIC", 558},
    {"NL", "NLD", 528}, {"NO", "NOR", 578}, {"NP", "NPL", 524}, {"NR", "NRU", 520}, {"NU", "NIU", 570},
    {"NZ", "NZL", 554}, {"OM", "OMN", 512}, {"PA", "PAN", 591}, {"PE", "PER", 604}, {"PF", "PYF", 258},
    {"PG", "PNG", 598}, {"PH", "PHL", 608}, {"PK", "PAK", 586}, {"PL", "POL", 616}, {"PM", "SPM", 666},
    {"PN", "PCN", 612}, {"PR", "PRI", 630}, {"PS", "PSE", 275}, {"PT", "PRT", 620}, {"PW", "PLW", 585},
    {"PY", "PRY", 600}, {"QA", "QAT", 634}, {"RE", "REU", 638}, {"RO", "ROU", 642}, {"RS", "SRB", 688},
    {"RU", "RUS", 643}, {"RW", "RWA", 646}, {"SA", "SAU", 682}, {"SB", "SLB", 90},  {"SC", "SYC", 690},
    {"SD", "SDN", 729}, {"SE", "SWE", 752}, {"SG", "SGP", 702}, {"SH", "SHN", 654}, {"SI", "SVN", 705},
    {"SJ", "SJM", 744}, {"SK", "SVK", 703}, {"SL", "SLE", 694}, {"SM", "SMR", 674}, {"SN", "SEN", 686},
    {"SO", "SOM", 706}, {"SR", "SUR", 740}, {"SS", "SSD", 728}, {"ST", "STP", 678}, {"SV", "SLV", 222},
    {"SX", "SXM", 534}, {"SY", "SYR", 760}, {"SZ", "SWZ", 748}, {"TC", "TCA", 796}, {"TD", "TCD", 148},
    {"TF", "ATF", 260}, {"TG", "TGO", 768}, {"TH", "THA", 764}, {"TJ", "TJK", 762}, {"TK", "TKL", 772},
    {"TL", "TLS", 626}, {"TM", "TKM", 795}, {"TN", "TUN", 788}, {"TO", "TON", 776}, {"TR", "TUR", 792},
    {"TT", "TTO", 780}, {"TV", "TUV", 798}, {"TW", "TWN", 158}, {"TZ", "TZA", 834}, {"UA", "UKR", 804},
    {"UG", "UGA", 800}, {"UM", "UMI", 581}, {"US", "USA", 840}, {"UY", "URY", 858}, {"UZ", "UZB", 860},
    {"VA", "VAT", 336}, {"VC", "VCT", 670}, {"VE", "VEN", 862}, {"VG", "VGB", 92},  {"VI", "VIR", 850},
    {"VN", "VNM", 704}, {"VU", "VUT", 548}, {"WF", "WLF", 876}, {"WS", "WSM", 882}, {"YE", "YEM", 887},
    {"YT", "MYT", 175}, {"ZA", "ZAF", 710}, {"ZM", "ZMB", 894}, {"ZW", "ZWE", 716},
};

template <typename Is>
std::string find_country(Is is) {
  const auto* country = std::find_if(std::begin(COUNTRIES), std::end(COUNTRIES), is);
  return country != std::end(COUNTRIES) ? country->three : "";
}

// "Europe/Tallinn"; empty for a zone that is a rule, or a file elsewhere.
std::string name_of_system_zone() {
  std::string zone;
  if (const char* tz = std::getenv("TZ"); tz != nullptr) {
    zone = tz;
    if (zone.starts_with(':'))
      zone.erase(0, 1);
  } else {
    char path[4096];
    const ssize_t size = readlink(SYSTEM_ZONE, path, sizeof path);
    zone.assign(path, static_cast<size_t>(std::max<ssize_t>(size, 0)));
  }
  // The link may be a relative one.
  if (const size_t at = zone.find(std::string_view(ZONES).substr(1)); at != std::string::npos)
    zone.erase(0, at + std::string_view(ZONES).size() - 1);
  return zone;
}

}  // namespace

std::string countries::by_letters(std::string_view letters) {
  std::string capitals(letters);
  for (char& c : capitals)
    if (c >= 'a' && c <= 'z')
      c = static_cast<char>(c - 'a' + 'A');
  return find_country([&](const auto& country) { return capitals == country.two || capitals == country.three; });
}

std::string countries::by_network(int original_network_id) {
  return find_country([=](const auto& country) { return country.number == original_network_id - FIRST_TERRESTRIAL; });
}

std::string countries::by_system_zone() {
  const std::string zone = name_of_system_zone();
  if (zone.empty())
    return "";
  std::ifstream list(ZONES_BY_COUNTRY);
  for (std::string line; std::getline(list, line);) {
    const size_t place = line.find('\t');
    const size_t name = place == std::string::npos ? place : line.find('\t', place + 1);
    if (place != 2 || name == std::string::npos)
      continue;
    if (line.substr(name + 1, line.find('\t', name + 1) - name - 1) == zone)
      return by_letters(std::string_view(line).substr(0, 2));
  }
  return "";
}
